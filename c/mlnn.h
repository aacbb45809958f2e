/**
 * \file
 * mlnn for C, and for every language that calls C: opens models, and runs them over frames and
 * streams.
 *
 * A program opens a model, makes a pass or a stream over it, and runs that. Each function returns
 * MLNN_OK or why it refused, and mlnn_last_error() then has the reason in words, which is also a
 * message (mlnn_set_message_function). A function that refuses leaves what it was to fill as it
 * was. No exception leaves a function, and no argument ends the program but a pointer that does not
 * point to as much as is said.
 *
 * Handles are numbers, not addresses: what is done with a handle that was closed, or that is not
 * one, is refused with MLNN_ERROR_HANDLE.
 *
 * Threads: all functions may be called from any thread at any time, with two exceptions. A pass or
 * a stream serves one thread at a time: calls with the same one, closing included, follow one
 * another; several over one model run in several threads at once. And text that a function returns
 * belongs to its model, which nobody must close while the text is in use.
 *
 * A model does not change once it is open. Closing it ends the handle; passes and streams over it
 * go on, and the last of them frees the model.
 *
 * mlnn_pass_run allocates nothing, takes no lock and makes no system call once it has run as many
 * frames together, if it has no further threads; mlnn_stream_push and mlnn_stream_finish never do.
 *
 * Compiles as C99 and as C++. features/Version.h has the macros MLNN_VERSION_MAJOR,
 * MLNN_VERSION_MINOR, MLNN_VERSION_PATCH and MLNN_VERSION_STRING.
 */
#ifndef MLNN_H
#define MLNN_H

#include <stddef.h>
#include <stdint.h>

#include "features/Version.h"

/** Stands before every function: a shared library shows these, and keeps everything else to itself.
 */
#if defined(__GNUC__) && !defined(_WIN32)
#define MLNN_API __attribute__((visibility("default")))
#else
#define MLNN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* --- Results --- */

/** What a function returns. Later versions may add values. */
typedef enum mlnn_status {
  MLNN_OK = 0,             /**< done */
  MLNN_ERROR_ARGUMENT = 1, /**< a null pointer, a number out of its range, an unknown name */
  MLNN_ERROR_HANDLE = 2,   /**< a handle that is closed, or of another kind, or none */
  MLNN_ERROR_SIZE = 3,     /**< a width or a stride that does not fit the model */
  MLNN_ERROR_MODEL = 4,    /**< what is no model, cannot be read, or cannot be run */
  MLNN_ERROR_STATE = 5,    /**< not now: a frame while a stream is being finished */
  MLNN_ERROR_MEMORY = 6,   /**< there is not enough memory */
  MLNN_ERROR_INTERNAL = 7, /**< anything else */
  MLNN_STOPPED = 8         /**< a watch of mlnn_analysis.h said so */
} mlnn_status;

/** Returns the latest error message of this thread, one line of at most 511 bytes; "" when there
 * was none. It tells why a call was refused, not whether one was, and stays until the thread's next
 * error. */
MLNN_API const char* mlnn_last_error(void);

/** Returns the name of a status, as "MLNN_ERROR_SIZE"; "unknown" for other values. */
MLNN_API const char* mlnn_status_name(mlnn_status status);

/* --- Version --- */

/** Returns the version of the library that runs, as "0.2.0"; the macros tell that of the headers.
 */
MLNN_API const char* mlnn_version(void);

/* --- Messages --- */

/** The kinds of messages. */
typedef enum mlnn_severity {
  MLNN_SEVERITY_ERROR = 0,   /**< "ERROR: ", "ERRROR: ": refused, or read with a fault */
  MLNN_SEVERITY_WARNING = 1, /**< "Warning: ": done, with a reservation */
  MLNN_SEVERITY_INFO = 2     /**< "info: ": what was found and done */
} mlnn_severity;

/** Takes a message: one line without a line feed, which holds until the call returns. `data` is
 * what was given with the function. It is called by the thread that makes the message, so maybe by
 * several at once. It may use this interface; it must return, and throw nothing. */
typedef void (*mlnn_message_function)(mlnn_severity severity, const char* text, void* data);

/** Hands the process's messages to `function` from now on; null lets them go to the standard error
 * stream, as they do at first. A message that another thread began before may still reach the
 * earlier function. */
MLNN_API mlnn_status mlnn_set_message_function(mlnn_message_function function, void* data);

/** A function for mlnn_set_message_function: errors and warnings go to the standard error stream,
 * each line in one write, and what is for information only goes nowhere. `data` is not looked at.
 */
MLNN_API void mlnn_print_problems(mlnn_severity severity, const char* text, void* data);

/* --- Models --- */

/** A model that is open. */
typedef struct mlnn_model {
  uint64_t id; /**< 0 is no model */
} mlnn_model;

/** Opens a model of either format, from a file or a pipe, and reads it into memory. `hidden_act_fn`
 * names the activation of hidden layers for which the file records none; null goes by the file's
 * property hidden_act_fn. Where there is neither, a warning says that they stay linear. */
MLNN_API mlnn_status mlnn_model_open(const char* path, const char* hidden_act_fn,
                                     mlnn_model* model);

/** The same for a file in memory, which is not needed any more afterwards. */
MLNN_API mlnn_status mlnn_model_open_memory(const void* bytes, size_t length,
                                            const char* hidden_act_fn, mlnn_model* model);

/** Opens a binary image that is run from where it lies, such as an array in ROM, without a copy. It
 * must stay there unchanged until the model and all passes and streams over it are closed. */
MLNN_API mlnn_status mlnn_model_open_image(const void* image, size_t length, mlnn_model* model);

/** Maps the file of a binary image, and runs it from there. The file may be replaced or removed
 * while the model is in use. Where another process writes into it, results may be any; where one
 * makes it shorter, the system may end this process by SIGBUS. mlnn_model_open has no such limit.
 */
MLNN_API mlnn_status mlnn_model_map_image(const char* path, mlnn_model* model);

/** Ends the handle. */
MLNN_API mlnn_status mlnn_model_close(mlnn_model model);

/** Which layers mlnn_model_to_codes holds as codes. */
enum {
  MLNN_CODES_FOR_SPEED = 0, /**< those that run faster so, which are large ones */
  MLNN_CODES_FOR_MEMORY = 1 /**< all for which it saves half of the memory or more */
};

/** Makes another model, whose passes and streams give what the model gives after its parameters
 * are reduced to `bits` bits, 1 to 8: with a quarter of the memory or less. They share one set of
 * codes; the model may be closed. `codes_for` is one of MLNN_CODES_FOR_SPEED and
 * MLNN_CODES_FOR_MEMORY. All layers have one grid, which is too coarse for some networks:
 * `mlnn reduce --sweep` tells what a width keeps. */
MLNN_API mlnn_status mlnn_model_to_codes(mlnn_model model, int32_t bits, int32_t codes_for,
                                         mlnn_model* codes);

/** Which layers of mlnn_model_to_integers take their inputs as integers of 16 bits. */
enum {
  MLNN_WIDE_INPUTS_NONE = 0,  /**< none: all take 8 bits */
  MLNN_WIDE_INPUTS_FIRST = 1, /**< the first */
  MLNN_WIDE_INPUTS_ALL = 2    /**< all */
};

/** Makes another model, whose passes and streams compute layers in integers whose weights were
 * quantised by rows, as `mlnn quantize` does: faster, and with the same bits on every processor,
 * which are not those of floats (docs/integer-pass.md). They share the weights, which for an image
 * that is run from where it lies stay there; the model may be closed. `wide_inputs` is one of
 * MLNN_WIDE_INPUTS_NONE, MLNN_WIDE_INPUTS_FIRST and MLNN_WIDE_INPUTS_ALL. */
MLNN_API mlnn_status mlnn_model_to_integers(mlnn_model model, int32_t wide_inputs,
                                            mlnn_model* integers);

/** The values in an input vector. */
MLNN_API mlnn_status mlnn_model_inputs(mlnn_model model, size_t* inputs);

/** The values in an output vector. */
MLNN_API mlnn_status mlnn_model_outputs(mlnn_model model, size_t* outputs);

/** The number of layers. */
MLNN_API mlnn_status mlnn_model_layers(mlnn_model model, size_t* layers);

/** The outputs of layer `layer`, counted from 0. */
MLNN_API mlnn_status mlnn_model_layer_outputs(mlnn_model model, size_t layer, size_t* outputs);

/** Whether the outputs go through a softmax: 1 or 0. */
MLNN_API mlnn_status mlnn_model_softmax(mlnn_model model, int* softmax);

/** The name of an output, counted from 0: an entry of the property `labels`, where that has one for
 * each output, else its number. Its bytes are as they stand in the file. */
MLNN_API mlnn_status mlnn_model_label(mlnn_model model, size_t output, const char** label);

/** The value of a property; null where there is none of that name. An image has no properties. */
MLNN_API mlnn_status mlnn_model_property(mlnn_model model, const char* name, const char** value);

/** The number of properties. */
MLNN_API mlnn_status mlnn_model_properties(mlnn_model model, size_t* properties);

/** One of the properties, counted from 0 in the order of their names. */
MLNN_API mlnn_status mlnn_model_property_at(mlnn_model model, size_t index, const char** name,
                                            const char** value);

/** What a model's features are. */
typedef struct mlnn_features {
  int32_t window_left;       /**< frames of context before the current one */
  int32_t window_right;      /**< frames of context after it */
  int32_t bands;             /**< mel bands of one frame, 0 when not stated */
  int32_t deltas;            /**< 1 when deltas and delta-deltas follow the bands, else 0 */
  int32_t line_kernels;      /**< 1 when line kernels are asked for, which nothing applies */
  int32_t line_kernel_width; /**< their width */
  int32_t frame_width;       /**< values in a frame of a stream; 0 when the model does not tell */
} mlnn_features;

/** What the model's features are. */
MLNN_API mlnn_status mlnn_model_features(mlnn_model model, mlnn_features* features);

/** The same in words, as
 * "mel_deltas:bands=40,left=2,right=2,deltas=1,line_kernels=0,line_kernel_width=0". */
MLNN_API mlnn_status mlnn_model_feature_text(mlnn_model model, const char** text);

/* --- Passes: input vectors in, output vectors out --- */

/** A pass over a model. */
typedef struct mlnn_pass {
  uint64_t id; /**< 0 is no pass */
} mlnn_pass;

/** Makes a pass. Refused with MLNN_ERROR_MODEL where the model has no layers, or some that do not
 * fit each other. */
MLNN_API mlnn_status mlnn_pass_create(mlnn_model model, mlnn_pass* pass);

/** Ends the handle and frees the pass. */
MLNN_API mlnn_status mlnn_pass_close(mlnn_pass pass);

/** The most threads that a pass may have. */
#define MLNN_MOST_THREADS 256

/** Has the pass share its work among `threads` threads from now on, 1 to MLNN_MOST_THREADS: the one
 * that calls, and further ones that wait while the pass does not run. At first it has one. Output
 * vectors are the same to the bit with any number. Where the system gives fewer, there are fewer.
 * The further threads end before mlnn_pass_close or the next mlnn_pass_set_threads returns. A
 * forked child has none of them: a pass runs in the calling thread there. */
MLNN_API mlnn_status mlnn_pass_set_threads(mlnn_pass pass, int32_t threads);

/** Makes floats of the codes of an image that is run from where it lies, once for all further
 * calls, where one frame meets floats sooner: of layers in their order, and of none that would need
 * more than `most_bytes` bytes together with those that there are. The floats are the pass's own;
 * output vectors are the same to the bit. Puts the bytes that they take into `bytes`: 0 for any
 * other model, and where there are no such codes. mlnn_model_budget of mlnn_analysis.h tells how
 * many it would be without a limit. Where memory runs out, some may have been made. */
MLNN_API mlnn_status mlnn_pass_prepare(mlnn_pass pass, size_t most_bytes, size_t* bytes);

/** Computes `frames` output vectors. Value v of input vector f is inputs[f * input_stride + v],
 * value v of output vector f becomes outputs[f * output_stride + v]. The widths say how many values
 * a vector has, which must be what the model has; strides are in floats, and at least the widths.
 * Inputs and outputs may share memory. An output vector depends on the model and on its input
 * vector alone. */
MLNN_API mlnn_status mlnn_pass_run(mlnn_pass pass, size_t frames, const float* inputs,
                                   size_t input_width, size_t input_stride, float* outputs,
                                   size_t output_width, size_t output_stride);

/* --- Streams: frames in as they arrive, outputs when there are some --- */

/** A stream normalises each frame, puts the frames around it beside it as context, as the model's
 * features say, and runs the model over that. The outputs for a frame come when the frames that its
 * context reaches ahead have come: mlnn_stream_delay() frames later. */
typedef struct mlnn_stream {
  uint64_t id; /**< 0 is no stream */
} mlnn_stream;

/** Makes a stream for frames of `frame_width` values, of which a window makes the model's inputs; 0
 * takes what the model tells. Refused with MLNN_ERROR_MODEL where the model has no outputs. */
MLNN_API mlnn_status mlnn_stream_create(mlnn_model model, size_t frame_width, mlnn_stream* stream);

/** Ends the handle and frees the stream. */
MLNN_API mlnn_status mlnn_stream_close(mlnn_stream stream);

/** The values in a frame. */
MLNN_API mlnn_status mlnn_stream_frame_width(mlnn_stream stream, size_t* frame_width);

/** The frames by which the outputs are late. */
MLNN_API mlnn_status mlnn_stream_delay(mlnn_stream stream, size_t* frames);

/** Takes the next frame of `frame_width` values. When outputs are due, which are those of the frame
 * that came mlnn_stream_delay() frames ago, puts them into `outputs` and 1 into `has_outputs`; else
 * puts 0 there and leaves `outputs` alone. Refused with MLNN_ERROR_STATE from the first
 * mlnn_stream_finish that gave outputs to the one that has none. */
MLNN_API mlnn_status mlnn_stream_push(mlnn_stream stream, const float* frame, size_t frame_width,
                                      float* outputs, size_t output_width, int* has_outputs);

/** After the last frame: gives the next of the outputs that are still due, in the same way. Call it
 * until there are none; the stream then takes another recording. */
MLNN_API mlnn_status mlnn_stream_finish(mlnn_stream stream, float* outputs, size_t output_width,
                                        int* has_outputs);

/** Forgets the frames so far, and takes another recording. */
MLNN_API mlnn_status mlnn_stream_reset(mlnn_stream stream);

#ifdef __cplusplus
}
#endif

#endif
