/* What CInterfaceTest has checked in C99. */
#ifndef MLNN_TESTS_FROM_C_H
#define MLNN_TESTS_FROM_C_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What the checks work on. */
typedef struct from_c {
  const char* text_path;  /* of a text whose hidden layers record no activation */
  const char* image_path; /* of the image of the same model */
  const void* text;       /* both in memory */
  size_t text_length;
  const void* image;
  size_t image_length;
  const float* inputs; /* input vectors, one behind the other */
  size_t input_width;
  size_t count;
  const float* expected; /* what the model makes of them, to the bit */
  size_t output_width;
  const float* frames; /* a recording, and what a stream makes of it */
  size_t frame_width;
  size_t frame_count;
  const float* expected_stream;
  size_t delay;
} from_c;

/* Each returns null, or the line and the text of the first condition that does not hold. */
const char* from_c_open_and_run(const from_c* given);
const char* from_c_ask(const from_c* given);
const char* from_c_stream(const from_c* given);
const char* from_c_refusals(const from_c* given);
const char* from_c_messages(const from_c* given);

/* The same over the analyses, of the file of a model with two layers. */
const char* from_c_analyse(const void* file, size_t length);

#ifdef __cplusplus
}
#endif

#endif
