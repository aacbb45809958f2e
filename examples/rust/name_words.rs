//! Names the word in each recording, as examples/c/name_words.c does.
//! Usage: name_words MODEL FRAMES.npy...      prints a line for each: the file and the word

use std::ffi::{c_void, CStr, CString};
use std::os::raw::{c_char, c_int};

/// What the program needs of mlnn.h.
mod ffi {
    use super::*;

    #[repr(C)]
    #[derive(Clone, Copy)]
    pub struct Model {
        id: u64,
    }

    #[repr(C)]
    #[derive(Clone, Copy)]
    pub struct Stream {
        id: u64,
    }

    impl Model {
        pub const NONE: Model = Model { id: 0 };
    }

    impl Stream {
        pub const NONE: Stream = Stream { id: 0 };
    }

    pub const OK: c_int = 0;
    pub const INFO: c_int = 2;

    pub type MessageFunction = extern "C" fn(c_int, *const c_char, *mut c_void);

    extern "C" {
        pub fn mlnn_last_error() -> *const c_char;
        pub fn mlnn_set_message_function(
            function: Option<MessageFunction>,
            data: *mut c_void,
        ) -> c_int;
        pub fn mlnn_model_open(
            path: *const c_char,
            hidden_act_fn: *const c_char,
            model: *mut Model,
        ) -> c_int;
        pub fn mlnn_model_close(model: Model) -> c_int;
        pub fn mlnn_model_outputs(model: Model, outputs: *mut usize) -> c_int;
        pub fn mlnn_model_label(model: Model, output: usize, label: *mut *const c_char) -> c_int;
        pub fn mlnn_stream_create(model: Model, frame_width: usize, stream: *mut Stream) -> c_int;
        pub fn mlnn_stream_close(stream: Stream) -> c_int;
        pub fn mlnn_stream_frame_width(stream: Stream, frame_width: *mut usize) -> c_int;
        pub fn mlnn_stream_push(
            stream: Stream,
            frame: *const f32,
            frame_width: usize,
            outputs: *mut f32,
            output_width: usize,
            has_outputs: *mut c_int,
        ) -> c_int;
        pub fn mlnn_stream_finish(
            stream: Stream,
            outputs: *mut f32,
            output_width: usize,
            has_outputs: *mut c_int,
        ) -> c_int;
    }
}

/// Turns a refusal into the library's words for it.
fn check(status: c_int) -> Result<(), String> {
    if status == ffi::OK {
        return Ok(());
    }
    let why = unsafe { CStr::from_ptr(ffi::mlnn_last_error()) };
    Err(why.to_string_lossy().into_owned())
}

struct Model(ffi::Model);

impl Model {
    fn open(path: &str) -> Result<Model, String> {
        let path = CString::new(path).map_err(|error| error.to_string())?;
        let mut model = ffi::Model::NONE;
        check(unsafe { ffi::mlnn_model_open(path.as_ptr(), std::ptr::null(), &mut model) })?;
        Ok(Model(model))
    }

    fn outputs(&self) -> Result<usize, String> {
        let mut outputs = 0;
        check(unsafe { ffi::mlnn_model_outputs(self.0, &mut outputs) })?;
        Ok(outputs)
    }

    fn label(&self, output: usize) -> Result<String, String> {
        let mut label = std::ptr::null();
        check(unsafe { ffi::mlnn_model_label(self.0, output, &mut label) })?;
        Ok(unsafe { CStr::from_ptr(label) }.to_string_lossy().into_owned())
    }
}

impl Drop for Model {
    fn drop(&mut self) {
        unsafe { ffi::mlnn_model_close(self.0) };
    }
}

struct Stream {
    handle: ffi::Stream,
    outputs: Vec<f32>,
}

impl Stream {
    fn over(model: &Model) -> Result<Stream, String> {
        let mut handle = ffi::Stream::NONE;
        check(unsafe { ffi::mlnn_stream_create(model.0, 0, &mut handle) })?;
        Ok(Stream { handle, outputs: vec![0.0; model.outputs()?] })
    }

    fn frame_width(&self) -> Result<usize, String> {
        let mut width = 0;
        check(unsafe { ffi::mlnn_stream_frame_width(self.handle, &mut width) })?;
        Ok(width)
    }

    /// The outputs that are due after another frame.
    fn push(&mut self, frame: &[f32]) -> Result<Option<&[f32]>, String> {
        let mut has_outputs = 0;
        check(unsafe {
            ffi::mlnn_stream_push(
                self.handle,
                frame.as_ptr(),
                frame.len(),
                self.outputs.as_mut_ptr(),
                self.outputs.len(),
                &mut has_outputs,
            )
        })?;
        Ok(if has_outputs != 0 { Some(&self.outputs) } else { None })
    }

    /// The next of the outputs that are due after the last frame.
    fn finish(&mut self) -> Result<Option<&[f32]>, String> {
        let mut has_outputs = 0;
        check(unsafe {
            ffi::mlnn_stream_finish(
                self.handle,
                self.outputs.as_mut_ptr(),
                self.outputs.len(),
                &mut has_outputs,
            )
        })?;
        Ok(if has_outputs != 0 { Some(&self.outputs) } else { None })
    }
}

impl Drop for Stream {
    fn drop(&mut self) {
        unsafe { ffi::mlnn_stream_close(self.handle) };
    }
}

/// The values of a .npy file with 32-bit floats.
fn read_frames(path: &str) -> Result<Vec<f32>, String> {
    let bytes = std::fs::read(path).map_err(|error| format!("{}: {}", path, error))?;
    if bytes.len() < 10 || !bytes.starts_with(b"\x93NUMPY\x01") {
        return Err(format!("{}: no frames", path));
    }
    let start = 10 + bytes[8] as usize + 256 * bytes[9] as usize;
    let values = bytes.get(start..).ok_or_else(|| format!("{}: no frames", path))?;
    Ok(values
        .chunks_exact(4)
        .map(|value| f32::from_le_bytes([value[0], value[1], value[2], value[3]]))
        .collect())
}

fn add_logs(sums: &mut [f64], posteriors: &[f32]) {
    for (sum, posterior) in sums.iter_mut().zip(posteriors) {
        *sum += f64::from(*posterior).max(1e-30).ln();
    }
}

fn name_word(model: &Model, stream: &mut Stream, path: &str) -> Result<String, String> {
    let width = stream.frame_width()?;
    let mut sums = vec![0.0; model.outputs()?];
    for frame in read_frames(path)?.chunks_exact(width) {
        if let Some(posteriors) = stream.push(frame)? {
            add_logs(&mut sums, posteriors);
        }
    }
    while let Some(posteriors) = stream.finish()? {
        add_logs(&mut sums, posteriors);
    }
    let mut best = 0;
    for (i, sum) in sums.iter().enumerate() {
        if *sum > sums[best] {
            best = i;
        }
    }
    model.label(best)
}

/// Warnings and errors go to the standard error stream, what is merely found and done nowhere.
extern "C" fn show(severity: c_int, text: *const c_char, _data: *mut c_void) {
    if severity != ffi::INFO {
        eprintln!("{}", unsafe { CStr::from_ptr(text) }.to_string_lossy());
    }
}

fn main() -> Result<(), String> {
    let arguments: Vec<String> = std::env::args().collect();
    if arguments.len() < 3 {
        return Err("usage: name_words MODEL FRAMES.npy...".to_string());
    }
    check(unsafe { ffi::mlnn_set_message_function(Some(show), std::ptr::null_mut()) })?;
    let model = Model::open(&arguments[1])?;
    let mut stream = Stream::over(&model)?;
    for path in &arguments[2..] {
        println!("{} {}", path, name_word(&model, &mut stream, path)?);
    }
    Ok(())
}
