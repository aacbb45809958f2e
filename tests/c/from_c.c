/* Uses the C interface as a C program does; compiled as C99, with every warning an error. */
#include "tests/c/from_c.h"

#include <mlnn.h>
#include <stdlib.h>
#include <string.h>

#define TEXT_OF(value) #value
#define LINE_AND_TEXT(line, text) LINE_AND_TEXT_(line, text)
#define LINE_AND_TEXT_(line, text) "line " TEXT_OF(line) ": " text
#define CHECK(condition) \
  do { \
    if (!(condition)) return LINE_AND_TEXT(__LINE__, #condition); \
  } while (0)

/* A refusal: the status and the words. */
#define CHECK_REFUSED(call, status, text) \
  do { \
    CHECK((call) == (status)); \
    CHECK(strcmp(mlnn_last_error(), text) == 0); \
  } while (0)

/* Room for what the tests compute; each starts with other values than any result. */
static float results[4096];

static void forget_results(void) {
  size_t i;
  for (i = 0; i < sizeof results / sizeof results[0]; ++i) results[i] = -7.0f;
}

static int same(const float* found, const float* expected, size_t values) {
  return memcmp(found, expected, values * sizeof(float)) == 0;
}

/* --- Passes --- */

static const char* run(const from_c* given, mlnn_model model) {
  const size_t outputs = given->output_width, inputs = given->input_width;
  const size_t stride = outputs + 3;
  mlnn_pass pass;
  size_t i;
  CHECK(mlnn_pass_create(model, &pass) == MLNN_OK);
  forget_results();
  CHECK(mlnn_pass_run(pass, given->count, given->inputs, inputs, inputs, results, outputs,
                      outputs) == MLNN_OK);
  CHECK(same(results, given->expected, given->count * outputs));

  forget_results(); /* rows apart, of which the gaps stay */
  CHECK(mlnn_pass_run(pass, given->count, given->inputs, inputs, inputs, results, outputs,
                      stride) == MLNN_OK);
  for (i = 0; i < given->count; ++i) {
    CHECK(same(results + i * stride, given->expected + i * outputs, outputs));
    CHECK(results[i * stride + outputs] == -7.0f);
  }

  forget_results(); /* every second one */
  CHECK(mlnn_pass_run(pass, given->count / 2, given->inputs, inputs, 2 * inputs, results, outputs,
                      outputs) == MLNN_OK);
  for (i = 0; i < given->count / 2; ++i) {
    CHECK(same(results + i * outputs, given->expected + 2 * i * outputs, outputs));
  }

  forget_results();
  CHECK(mlnn_pass_run(pass, 0, NULL, inputs, inputs, NULL, outputs, outputs) == MLNN_OK);
  CHECK(mlnn_pass_close(pass) == MLNN_OK);
  return NULL;
}

static const char* run_and_close(const from_c* given, mlnn_model model) {
  const char* const wrong = run(given, model);
  if (wrong != NULL) return wrong;
  CHECK(mlnn_model_close(model) == MLNN_OK);
  return NULL;
}

const char* from_c_open_and_run(const from_c* given) {
  mlnn_model model;
  const char* wrong;
  CHECK(mlnn_model_open(given->text_path, NULL, &model) == MLNN_OK);
  if ((wrong = run_and_close(given, model)) != NULL) return wrong;
  CHECK(mlnn_model_open(given->image_path, NULL, &model) == MLNN_OK);
  if ((wrong = run_and_close(given, model)) != NULL) return wrong;
  CHECK(mlnn_model_open_memory(given->text, given->text_length, NULL, &model) == MLNN_OK);
  if ((wrong = run_and_close(given, model)) != NULL) return wrong;
  CHECK(mlnn_model_open_memory(given->image, given->image_length, NULL, &model) == MLNN_OK);
  if ((wrong = run_and_close(given, model)) != NULL) return wrong;
  CHECK(mlnn_model_open_image(given->image, given->image_length, &model) == MLNN_OK);
  if ((wrong = run_and_close(given, model)) != NULL) return wrong;
  CHECK(mlnn_model_map_image(given->image_path, &model) == MLNN_OK);
  return run_and_close(given, model);
}

/* --- What can be asked --- */

const char* from_c_ask(const from_c* given) {
  mlnn_model model;
  mlnn_features features;
  size_t count;
  int softmax;
  const char *name, *value;
  CHECK(mlnn_model_open(given->text_path, NULL, &model) == MLNN_OK);
  CHECK(mlnn_model_inputs(model, &count) == MLNN_OK && count == given->input_width);
  CHECK(mlnn_model_outputs(model, &count) == MLNN_OK && count == given->output_width);
  CHECK(mlnn_model_layers(model, &count) == MLNN_OK && count == 3);
  CHECK(mlnn_model_layer_outputs(model, 0, &count) == MLNN_OK && count == 5);
  CHECK(mlnn_model_layer_outputs(model, 2, &count) == MLNN_OK && count == given->output_width);
  CHECK(mlnn_model_softmax(model, &softmax) == MLNN_OK && softmax == 1);
  CHECK(mlnn_model_label(model, 1, &value) == MLNN_OK && strcmp(value, "right") == 0);
  CHECK(mlnn_model_property(model, "hidden_act_fn", &value) == MLNN_OK);
  CHECK(strcmp(value, "tanh") == 0);
  CHECK(mlnn_model_property(model, "none", &value) == MLNN_OK && value == NULL);
  CHECK(mlnn_model_properties(model, &count) == MLNN_OK && count == 2);
  CHECK(mlnn_model_property_at(model, 1, &name, &value) == MLNN_OK);
  CHECK(strcmp(name, "labels") == 0 && strcmp(value, "left,right") == 0);
  CHECK(mlnn_model_features(model, &features) == MLNN_OK);
  CHECK(features.window_left == 1 && features.window_right == 2 && features.bands == 4);
  CHECK(features.deltas == 0 && features.line_kernels == 0 && features.line_kernel_width == 0);
  CHECK(features.frame_width == 4);
  CHECK(mlnn_model_feature_text(model, &value) == MLNN_OK);
  CHECK(strcmp(value, "mel_deltas:bands=4,left=1,right=2,deltas=0,line_kernels=0,"
                      "line_kernel_width=0") == 0);
  CHECK(mlnn_model_close(model) == MLNN_OK);

  CHECK(mlnn_model_open_image(given->image, given->image_length, &model) == MLNN_OK);
  CHECK(mlnn_model_layers(model, &count) == MLNN_OK && count == 3);
  CHECK(mlnn_model_label(model, 1, &value) == MLNN_OK && strcmp(value, "1") == 0);
  CHECK(mlnn_model_properties(model, &count) == MLNN_OK && count == 0);
  CHECK(mlnn_model_property(model, "labels", &value) == MLNN_OK && value == NULL);
  CHECK(mlnn_model_close(model) == MLNN_OK);
  CHECK(strcmp(mlnn_version(), MLNN_VERSION_STRING) == 0);
  return NULL;
}

/* --- Streams --- */

/* Pushes the recording, and checks that each output comes when it is due. */
static const char* push_all(const from_c* given, mlnn_stream stream) {
  const size_t width = given->frame_width, outputs = given->output_width;
  size_t i;
  int has;
  for (i = 0; i < given->frame_count; ++i) {
    forget_results();
    has = -1;
    CHECK(mlnn_stream_push(stream, given->frames + i * width, width, results, outputs, &has) ==
          MLNN_OK);
    CHECK(has == (i >= given->delay));
    if (has) {
      CHECK(same(results, given->expected_stream + (i - given->delay) * outputs, outputs));
    } else {
      CHECK(results[0] == -7.0f);
    }
  }
  for (i = given->frame_count - given->delay; i < given->frame_count; ++i) {
    CHECK(mlnn_stream_finish(stream, results, outputs, &has) == MLNN_OK && has == 1);
    CHECK(same(results, given->expected_stream + i * outputs, outputs));
    CHECK_REFUSED(mlnn_stream_push(stream, given->frames, width, results, outputs, &has),
                  MLNN_ERROR_STATE,
                  "ERROR: mlnn_stream_push: the stream is being finished; call mlnn_stream_finish "
                  "until it has no outputs");
  }
  forget_results();
  CHECK(mlnn_stream_finish(stream, results, outputs, &has) == MLNN_OK && has == 0);
  CHECK(results[0] == -7.0f);
  return NULL;
}

const char* from_c_stream(const from_c* given) {
  mlnn_model model;
  mlnn_stream stream;
  size_t count;
  int has;
  const char* wrong;
  CHECK(mlnn_model_open(given->text_path, NULL, &model) == MLNN_OK);
  CHECK(mlnn_stream_create(model, 0, &stream) == MLNN_OK);
  CHECK(mlnn_model_close(model) == MLNN_OK); /* the stream goes on */
  CHECK(mlnn_stream_frame_width(stream, &count) == MLNN_OK && count == given->frame_width);
  CHECK(mlnn_stream_delay(stream, &count) == MLNN_OK && count == given->delay);
  if ((wrong = push_all(given, stream)) != NULL) return wrong;
  if ((wrong = push_all(given, stream)) != NULL) return wrong; /* another recording */
  CHECK(mlnn_stream_push(stream, given->frames, given->frame_width, results, given->output_width,
                         &has) == MLNN_OK);
  CHECK(mlnn_stream_reset(stream) == MLNN_OK);
  if ((wrong = push_all(given, stream)) != NULL) return wrong;
  CHECK(mlnn_stream_push(stream, given->frames, given->frame_width, results, given->output_width,
                         &has) == MLNN_OK);
  CHECK(mlnn_stream_finish(stream, results, given->output_width, &has) == MLNN_OK && has == 1);
  CHECK(mlnn_stream_reset(stream) == MLNN_OK); /* while it is being finished */
  if ((wrong = push_all(given, stream)) != NULL) return wrong;
  CHECK(mlnn_stream_close(stream) == MLNN_OK);
  return NULL;
}

/* --- Refusals --- */

static const char* refuse_models(const from_c* given) {
  static const char kNull[] = "ERROR: mlnn_model_open: a pointer is null";
  mlnn_model model = {12345};
  CHECK_REFUSED(mlnn_model_open(NULL, NULL, &model), MLNN_ERROR_ARGUMENT, kNull);
  CHECK_REFUSED(mlnn_model_open(given->text_path, NULL, NULL), MLNN_ERROR_ARGUMENT, kNull);
  CHECK_REFUSED(mlnn_model_open(given->text_path, "none", &model), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_model_open: no activation is called 'none'");
  CHECK_REFUSED(mlnn_model_open("no/such/file", NULL, &model), MLNN_ERROR_MODEL,
                "ERROR: MultiLayerNNModel: could not read file: no/such/file");
  CHECK_REFUSED(mlnn_model_map_image("no/such/file", &model), MLNN_ERROR_MODEL,
                "ERROR: ImageFwdPass: could not map file: no/such/file: No such file or directory");
  CHECK_REFUSED(mlnn_model_map_image(NULL, &model), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_model_map_image: a pointer is null");
  CHECK_REFUSED(mlnn_model_open_memory(NULL, 5, NULL, &model), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_model_open_memory: a pointer is null");
  CHECK_REFUSED(mlnn_model_open_memory("MLNN", 4, NULL, &model), MLNN_ERROR_MODEL,
                "ERROR: openModel: image of 4 bytes is shorter than its head (1004)");
  CHECK_REFUSED(mlnn_model_open_image(NULL, 5, &model), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_model_open_image: a pointer is null");
  CHECK_REFUSED(mlnn_model_open_image("MLNN", 4, &model), MLNN_ERROR_MODEL,
                "ERROR: ImageFwdPass: image of 4 bytes is shorter than its head (1004)");
  CHECK_REFUSED(mlnn_model_open_image(given->text, given->text_length, &model), MLNN_ERROR_MODEL,
                "ERROR: MultiLayerNNModel::deserializeBinary: could not find header 'MLNN'");
  CHECK(model.id == 12345); /* what it was */
  return NULL;
}

static const char* refuse_questions(mlnn_model model) {
  size_t count = 77;
  const char* text = "as it was";
  CHECK_REFUSED(mlnn_model_inputs(model, NULL), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_model_inputs: a pointer is null");
  CHECK_REFUSED(mlnn_model_layer_outputs(model, 3, &count), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_model_layer_outputs: there is no layer 3");
  CHECK_REFUSED(mlnn_model_label(model, 2, &text), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_model_label: there is no output 2");
  CHECK_REFUSED(mlnn_model_property(model, NULL, &text), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_model_property: a pointer is null");
  CHECK_REFUSED(mlnn_model_property_at(model, 0, &text, NULL), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_model_property_at: a pointer is null");
  CHECK_REFUSED(mlnn_model_property_at(model, 2, &text, &text), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_model_property_at: there is no property 2");
  CHECK(count == 77 && strcmp(text, "as it was") == 0);
  return NULL;
}

static const char* refuse_runs(const from_c* given, mlnn_pass pass) {
  const size_t inputs = given->input_width, outputs = given->output_width;
  forget_results();
  CHECK_REFUSED(mlnn_pass_run(pass, 1, NULL, inputs, inputs, results, outputs, outputs),
                MLNN_ERROR_ARGUMENT, "ERROR: mlnn_pass_run: a pointer is null");
  CHECK_REFUSED(mlnn_pass_run(pass, 1, given->inputs, inputs, inputs, NULL, outputs, outputs),
                MLNN_ERROR_ARGUMENT, "ERROR: mlnn_pass_run: a pointer is null");
  CHECK_REFUSED(mlnn_pass_run(pass, 1, given->inputs, 15, 15, results, outputs, outputs),
                MLNN_ERROR_SIZE, "ERROR: mlnn_pass_run: expected 16 inputs but got 15");
  CHECK_REFUSED(mlnn_pass_run(pass, 1, given->inputs, inputs, inputs, results, 3, 3),
                MLNN_ERROR_SIZE, "ERROR: mlnn_pass_run: expected 2 outputs but got 3");
  CHECK_REFUSED(mlnn_pass_run(pass, 2, given->inputs, inputs, inputs - 1, results, outputs,
                              outputs),
                MLNN_ERROR_SIZE, "ERROR: mlnn_pass_run: a stride is less than a width");
  CHECK_REFUSED(mlnn_pass_run(pass, 2, given->inputs, inputs, inputs, results, outputs,
                              outputs - 1),
                MLNN_ERROR_SIZE, "ERROR: mlnn_pass_run: a stride is less than a width");
  CHECK_REFUSED(mlnn_pass_run(pass, (size_t)-1, given->inputs, inputs, inputs, results, outputs,
                              outputs),
                MLNN_ERROR_SIZE, "ERROR: mlnn_pass_run: more frames than memory can hold");
  CHECK_REFUSED(mlnn_pass_run(pass, 2, given->inputs, inputs, (size_t)-1, results, outputs,
                              outputs),
                MLNN_ERROR_SIZE, "ERROR: mlnn_pass_run: more frames than memory can hold");
  CHECK(results[0] == -7.0f);
  return NULL;
}

static const char* refuse_streams(const from_c* given, mlnn_model model, mlnn_stream stream) {
  const size_t width = given->frame_width, outputs = given->output_width;
  mlnn_stream none = {54321};
  int has = 9;
  forget_results();
  CHECK_REFUSED(mlnn_stream_create(model, 5, &none), MLNN_ERROR_SIZE,
                "ERROR: mlnn_stream_create: frames of 5 values in a window of 4 do not make the "
                "model's 16 inputs");
  CHECK_REFUSED(mlnn_stream_create(model, (size_t)-1, &none), MLNN_ERROR_SIZE,
                sizeof(size_t) == 8
                    ? "ERROR: mlnn_stream_create: frames of 18446744073709551615 values in a "
                      "window of 4 do not make the model's 16 inputs"
                    : "ERROR: mlnn_stream_create: frames of 4294967295 values in a window of 4 do "
                      "not make the model's 16 inputs");
  CHECK_REFUSED(mlnn_stream_create(model, 0, NULL), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_stream_create: a pointer is null");
  CHECK_REFUSED(mlnn_stream_push(stream, NULL, width, results, outputs, &has), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_stream_push: a pointer is null");
  CHECK_REFUSED(mlnn_stream_push(stream, given->frames, width, NULL, outputs, &has),
                MLNN_ERROR_ARGUMENT, "ERROR: mlnn_stream_push: a pointer is null");
  CHECK_REFUSED(mlnn_stream_push(stream, given->frames, width, results, outputs, NULL),
                MLNN_ERROR_ARGUMENT, "ERROR: mlnn_stream_push: a pointer is null");
  CHECK_REFUSED(mlnn_stream_push(stream, given->frames, 3, results, outputs, &has),
                MLNN_ERROR_SIZE,
                "ERROR: mlnn_stream_push: expected 4 values in a frame but got 3");
  CHECK_REFUSED(mlnn_stream_push(stream, given->frames, width, results, 1, &has), MLNN_ERROR_SIZE,
                "ERROR: mlnn_stream_push: expected 2 outputs but got 1");
  CHECK_REFUSED(mlnn_stream_finish(stream, NULL, outputs, &has), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_stream_finish: a pointer is null");
  CHECK_REFUSED(mlnn_stream_finish(stream, results, 1, &has), MLNN_ERROR_SIZE,
                "ERROR: mlnn_stream_finish: expected 2 outputs but got 1");
  CHECK_REFUSED(mlnn_stream_delay(stream, NULL), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_stream_delay: a pointer is null");
  CHECK(none.id == 54321 && has == 9 && results[0] == -7.0f);
  return push_all(given, stream); /* nothing of it has been taken */
}

/* Handles that are closed, of other kinds, made up. */
static const char* refuse_handles(const from_c* given, mlnn_model model, mlnn_pass pass,
                                  mlnn_stream stream) {
  const mlnn_model no_models[] = {{0}, {1}, {model.id}, {pass.id}, {(uint64_t)-1}, {1ull << 62}};
  size_t i, count = 3;
  int has = 9;
  const char* text;
  mlnn_features features;
  mlnn_pass new_pass;
  mlnn_stream new_stream;
  for (i = 0; i < sizeof no_models / sizeof no_models[0]; ++i) {
    CHECK_REFUSED(mlnn_model_inputs(no_models[i], &count), MLNN_ERROR_HANDLE,
                  "ERROR: mlnn_model_inputs: the handle is closed, or is not one");
    CHECK(mlnn_model_outputs(no_models[i], &count) == MLNN_ERROR_HANDLE);
    CHECK(mlnn_model_layers(no_models[i], &count) == MLNN_ERROR_HANDLE);
    CHECK(mlnn_model_layer_outputs(no_models[i], 0, &count) == MLNN_ERROR_HANDLE);
    CHECK(mlnn_model_softmax(no_models[i], &has) == MLNN_ERROR_HANDLE);
    CHECK(mlnn_model_label(no_models[i], 0, &text) == MLNN_ERROR_HANDLE);
    CHECK(mlnn_model_property(no_models[i], "labels", &text) == MLNN_ERROR_HANDLE);
    CHECK(mlnn_model_properties(no_models[i], &count) == MLNN_ERROR_HANDLE);
    CHECK(mlnn_model_property_at(no_models[i], 0, &text, &text) == MLNN_ERROR_HANDLE);
    CHECK(mlnn_model_features(no_models[i], &features) == MLNN_ERROR_HANDLE);
    CHECK(mlnn_model_feature_text(no_models[i], &text) == MLNN_ERROR_HANDLE);
    CHECK(mlnn_pass_create(no_models[i], &new_pass) == MLNN_ERROR_HANDLE);
    CHECK(mlnn_stream_create(no_models[i], 0, &new_stream) == MLNN_ERROR_HANDLE);
    CHECK_REFUSED(mlnn_model_close(no_models[i]), MLNN_ERROR_HANDLE,
                  "ERROR: mlnn_model_close: the handle is closed, or is not one");
  }
  forget_results();
  CHECK_REFUSED(mlnn_pass_run(pass, 1, given->inputs, given->input_width, given->input_width,
                              results, given->output_width, given->output_width),
                MLNN_ERROR_HANDLE, "ERROR: mlnn_pass_run: the handle is closed, or is not one");
  CHECK(mlnn_pass_close(pass) == MLNN_ERROR_HANDLE);
  CHECK_REFUSED(mlnn_stream_push(stream, given->frames, given->frame_width, results,
                                 given->output_width, &has),
                MLNN_ERROR_HANDLE, "ERROR: mlnn_stream_push: the handle is closed, or is not one");
  CHECK(mlnn_stream_finish(stream, results, given->output_width, &has) == MLNN_ERROR_HANDLE);
  CHECK(mlnn_stream_frame_width(stream, &count) == MLNN_ERROR_HANDLE);
  CHECK(mlnn_stream_delay(stream, &count) == MLNN_ERROR_HANDLE);
  CHECK(mlnn_stream_reset(stream) == MLNN_ERROR_HANDLE);
  CHECK(mlnn_stream_close(stream) == MLNN_ERROR_HANDLE);
  CHECK(count == 3 && has == 9 && results[0] == -7.0f);
  return NULL;
}

const char* from_c_refusals(const from_c* given) {
  mlnn_model model, other;
  mlnn_pass pass;
  mlnn_stream stream;
  const char* wrong;
  size_t count;
  if ((wrong = refuse_models(given)) != NULL) return wrong;
  CHECK(mlnn_model_open(given->text_path, NULL, &model) == MLNN_OK);
  if ((wrong = refuse_questions(model)) != NULL) return wrong;
  CHECK_REFUSED(mlnn_pass_create(model, NULL), MLNN_ERROR_ARGUMENT,
                "ERROR: mlnn_pass_create: a pointer is null");
  CHECK(mlnn_pass_create(model, &pass) == MLNN_OK);
  if ((wrong = refuse_runs(given, pass)) != NULL) return wrong;
  CHECK(mlnn_stream_create(model, 4, &stream) == MLNN_OK);
  if ((wrong = refuse_streams(given, model, stream)) != NULL) return wrong;
  CHECK(mlnn_pass_close(pass) == MLNN_OK);
  CHECK(mlnn_stream_close(stream) == MLNN_OK);
  CHECK(mlnn_model_close(model) == MLNN_OK);
  CHECK(mlnn_model_open(given->text_path, NULL, &other) == MLNN_OK); /* in the same place */
  CHECK(other.id != model.id);
  if ((wrong = refuse_handles(given, model, pass, stream)) != NULL) return wrong;
  CHECK(mlnn_model_inputs(other, &count) == MLNN_OK && count == given->input_width);
  CHECK(mlnn_model_close(other) == MLNN_OK);
  CHECK(strcmp(mlnn_status_name(MLNN_ERROR_HANDLE), "MLNN_ERROR_HANDLE") == 0);
  CHECK(strcmp(mlnn_status_name((mlnn_status)99), "unknown") == 0);
  return NULL;
}

/* --- Messages --- */

struct heard {
  int errors, warnings, infos;
  char last[200];
};

static void listen(mlnn_severity severity, const char* text, void* data) {
  struct heard* const heard = data;
  heard->errors += severity == MLNN_SEVERITY_ERROR;
  heard->warnings += severity == MLNN_SEVERITY_WARNING;
  heard->infos += severity == MLNN_SEVERITY_INFO;
  strncpy(heard->last, text, sizeof heard->last - 1);
}

const char* from_c_messages(const from_c* given) {
  static const char kUntold[] = "MultiLayerNNModel\nnum_layers 2\nlayer 1 size 1 2\n0 1\n"
                                "layer 2 size 1 2\n0 1\n";
  struct heard heard;
  mlnn_model model;
  memset(&heard, 0, sizeof heard);
  CHECK(mlnn_set_message_function(listen, &heard) == MLNN_OK);
  CHECK(mlnn_model_open(given->text_path, NULL, &model) == MLNN_OK);
  CHECK(heard.errors == 0 && heard.warnings == 0 && heard.infos > 0);
  CHECK(strcmp(heard.last,
               "info: activation of 2 hidden layers set to tanh (property hidden_act_fn)") == 0);
  CHECK(mlnn_model_close(model) == MLNN_OK);
  CHECK(mlnn_model_open_memory(kUntold, sizeof kUntold - 1, NULL, &model) == MLNN_OK);
  CHECK(heard.warnings == 1);
  CHECK(strcmp(heard.last,
               "Warning: the model does not record the activation of 1 hidden layer and has no "
               "property hidden_act_fn; they are taken as linear (see hidden_act_fn)") == 0);
  CHECK(mlnn_model_close(model) == MLNN_OK);
  CHECK(mlnn_model_open_memory(kUntold, sizeof kUntold - 1, "relu", &model) == MLNN_OK);
  CHECK(strcmp(heard.last, "info: activation of 1 hidden layer set to relu (hidden_act_fn)") == 0);
  CHECK(mlnn_model_close(model) == MLNN_OK);
  CHECK(mlnn_model_close(model) == MLNN_ERROR_HANDLE);
  CHECK(heard.errors == 1 && strcmp(heard.last, mlnn_last_error()) == 0);
  CHECK(mlnn_set_message_function(NULL, NULL) == MLNN_OK);
  return NULL;
}
