/* Names the word in each recording: pushes its frames through a stream, as a microphone would bring
 * them, and takes the output with the largest sum of log posteriors.
 * Usage: name_words MODEL FRAMES.npy...      prints a line for each: the file and the word */
#include <math.h>
#include <mlnn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Says why a call was refused, and returns 1. */
static int fail(const char* what) {
  fprintf(stderr, "%s: %s\n", what, mlnn_last_error());
  return 1;
}

/* Warnings and errors go to the standard error stream, what is merely found and done nowhere. */
static void show(mlnn_severity severity, const char* text, void* data) {
  (void)data;
  if (severity != MLNN_SEVERITY_INFO) fprintf(stderr, "%s\n", text);
}

/* Puts the file behind the header of a .npy file with 32-bit floats, frames x values. */
static FILE* open_frames(const char* name) {
  unsigned char head[10];
  FILE* const file = fopen(name, "rb");
  if (file == NULL) return NULL;
  if (fread(head, 1, sizeof head, file) == sizeof head && memcmp(head, "\x93NUMPY\x01", 7) == 0 &&
      fseek(file, 10L + head[8] + 256L * head[9], SEEK_SET) == 0) {
    return file;
  }
  fclose(file);
  return NULL;
}

/* What a stream works with. */
struct word {
  mlnn_stream stream;
  size_t width, outputs;
  float* frame;
  float* posteriors;
  double* sums; /* of the logs of the posteriors */
};

static void add_posteriors(struct word* word) {
  size_t i;
  for (i = 0; i < word->outputs; ++i) word->sums[i] += log(fmax(word->posteriors[i], 1e-30));
}

/* Hears one recording, and leaves the sums. */
static int hear(struct word* word, FILE* file) {
  int has_outputs;
  size_t i;
  for (i = 0; i < word->outputs; ++i) word->sums[i] = 0;
  while (fread(word->frame, sizeof(float), word->width, file) == word->width) {
    if (mlnn_stream_push(word->stream, word->frame, word->width, word->posteriors, word->outputs,
                         &has_outputs) != MLNN_OK) {
      return fail("a frame");
    }
    if (has_outputs) add_posteriors(word);
  }
  do {
    if (mlnn_stream_finish(word->stream, word->posteriors, word->outputs, &has_outputs) !=
        MLNN_OK) {
      return fail("the end");
    }
    if (has_outputs) add_posteriors(word);
  } while (has_outputs);
  return 0;
}

static int name_word(struct word* word, mlnn_model model, const char* name) {
  const char* label;
  size_t i, best = 0;
  int result;
  FILE* const file = open_frames(name);
  if (file == NULL) {
    fprintf(stderr, "cannot read frames from %s\n", name);
    return 1;
  }
  result = hear(word, file);
  fclose(file);
  if (result != 0) return 1;
  for (i = 1; i < word->outputs; ++i) {
    if (word->sums[i] > word->sums[best]) best = i;
  }
  if (mlnn_model_label(model, best, &label) != MLNN_OK) return fail("the label");
  printf("%s %s\n", name, label);
  return 0;
}

int main(int argc, char** argv) {
  mlnn_model model;
  struct word word;
  int result = 0, i;
  if (argc < 3) return 2;
  mlnn_set_message_function(show, NULL);
  if (mlnn_model_open(argv[1], NULL, &model) != MLNN_OK) return fail(argv[1]);
  if (mlnn_stream_create(model, 0, &word.stream) != MLNN_OK) return fail(argv[1]);
  mlnn_stream_frame_width(word.stream, &word.width);
  mlnn_model_outputs(model, &word.outputs);
  word.frame = malloc(word.width * sizeof(float));
  word.posteriors = malloc(word.outputs * sizeof(float));
  word.sums = malloc(word.outputs * sizeof(double));
  if (word.frame == NULL || word.posteriors == NULL || word.sums == NULL) return 1;
  for (i = 2; i < argc && result == 0; ++i) result = name_word(&word, model, argv[i]);
  free(word.frame);
  free(word.posteriors);
  free(word.sums);
  mlnn_stream_close(word.stream);
  mlnn_model_close(model);
  return result;
}
