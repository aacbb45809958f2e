#!/usr/bin/env python3
"""Calls the C interface through ctypes, with nothing but Python's own library: runs a model over a
recording, whole and frame by frame, and prints what it finds.

Usage: from_ctypes.py LIBRARY MODEL FRAMES OUTPUTS     FRAMES: 32-bit floats; OUTPUTS is written
"""
import array
import ctypes
import sys

Size, Status, Text = ctypes.c_size_t, ctypes.c_int, ctypes.c_char_p


class Handle(ctypes.Structure):
    _fields_ = [("id", ctypes.c_uint64)]


class Features(ctypes.Structure):
    _fields_ = [(name, ctypes.c_int32) for name in
                ("window_left", "window_right", "bands", "deltas", "line_kernels",
                 "line_kernel_width", "frame_width")]


Floats = ctypes.POINTER(ctypes.c_float)
Listener = ctypes.CFUNCTYPE(None, ctypes.c_int, Text, ctypes.c_void_p)


def declared(library):
    library.mlnn_last_error.restype = library.mlnn_version.restype = Text
    library.mlnn_status_name.restype = Text
    library.mlnn_set_message_function.argtypes = [Listener, ctypes.c_void_p]
    library.mlnn_model_open.argtypes = [Text, Text, ctypes.POINTER(Handle)]
    library.mlnn_model_outputs.argtypes = [Handle, ctypes.POINTER(Size)]
    library.mlnn_model_features.argtypes = [Handle, ctypes.POINTER(Features)]
    library.mlnn_model_label.argtypes = [Handle, Size, ctypes.POINTER(Text)]
    library.mlnn_model_close.argtypes = [Handle]
    library.mlnn_stream_create.argtypes = [Handle, Size, ctypes.POINTER(Handle)]
    library.mlnn_stream_push.argtypes = [Handle, Floats, Size, Floats, Size,
                                         ctypes.POINTER(ctypes.c_int)]
    library.mlnn_stream_finish.argtypes = [Handle, Floats, Size, ctypes.POINTER(ctypes.c_int)]
    library.mlnn_stream_close.argtypes = [Handle]
    return library


def main(path, model_path, frames_path, outputs_path):
    mlnn = declared(ctypes.CDLL(path))
    heard = []
    listener = Listener(lambda severity, text, data: heard.append((severity, text)))
    mlnn.mlnn_set_message_function(listener, None)

    def check(status):
        if status != 0:
            raise RuntimeError(mlnn.mlnn_last_error().decode())

    model, stream = Handle(), Handle()
    check(mlnn.mlnn_model_open(model_path.encode(), None, ctypes.byref(model)))
    outputs, features = Size(), Features()
    check(mlnn.mlnn_model_outputs(model, ctypes.byref(outputs)))
    check(mlnn.mlnn_model_features(model, ctypes.byref(features)))
    check(mlnn.mlnn_stream_create(model, 0, ctypes.byref(stream)))
    width, count = features.frame_width, outputs.value

    frames = array.array("f")
    with open(frames_path, "rb") as file:
        frames.frombytes(file.read())
    result, has_outputs = (ctypes.c_float * count)(), ctypes.c_int()
    all_outputs = array.array("f")

    def take(status):
        check(status)
        if has_outputs.value:
            all_outputs.extend(result)
        return has_outputs.value

    for start in range(0, len(frames), width):
        frame = (ctypes.c_float * width)(*frames[start:start + width])
        take(mlnn.mlnn_stream_push(stream, frame, width, result, count,
                                   ctypes.byref(has_outputs)))
    while take(mlnn.mlnn_stream_finish(stream, result, count, ctypes.byref(has_outputs))):
        pass
    with open(outputs_path, "wb") as file:
        file.write(all_outputs.tobytes())

    label = Text()
    check(mlnn.mlnn_model_label(model, 3, ctypes.byref(label)))
    print("version", mlnn.mlnn_version().decode())
    print("label", label.value.decode())
    print("last message", heard[-1][0], heard[-1][1].decode())
    check(mlnn.mlnn_stream_close(stream))
    check(mlnn.mlnn_model_close(model))
    status = mlnn.mlnn_stream_close(stream)
    print(mlnn.mlnn_status_name(status).decode(), mlnn.mlnn_last_error().decode(), sep=": ")


main(*sys.argv[1:])
