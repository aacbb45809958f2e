/* Asks the analyses, out of an installation, about a file that is cut off, and about one that is whole. */
#include <mlnn_analysis.h>
#include <stdio.h>
#include <string.h>

static void keep(mlnn_severity severity, const char* text, void* data) {
  if (severity == MLNN_SEVERITY_ERROR) strncpy((char*)data, text, 99);
}

static void print(mlnn_severity severity, const char* text, void* data) {
  (void)severity;
  (void)data;
  puts(text);
}

static void print_stage(const char* stage, const mlnn_frames* values, void* data) {
  (void)data;
  printf("%s %g\n", stage, (double)values->values[0]);
}

/* The mean of a model and itself is that model. Returns what goes wrong, or null. */
static const char* run_mean(void) {
  static const char file[] =
      "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nlayer 1 size 1 3\nact_fn linear\n1 2 3\n";
  static const float values[2] = {10, 20};
  const mlnn_frames recording = {values, 1, 2, 2};
  mlnn_model models[2], mean;
  if (mlnn_model_open_memory(file, sizeof file - 1, NULL, &models[0]) != MLNN_OK) return "open";
  models[1] = models[0];
  if (mlnn_model_average(models, 2, NULL, NULL, NULL, &mean) != MLNN_OK) return "average";
  if (mlnn_model_close(models[0]) != MLNN_OK) return "close";
  if (mlnn_model_trace(mean, &recording, 1, print_stage, NULL, NULL) != MLNN_OK) return "trace";
  if (mlnn_model_fit(mean, MLNN_FORMAT_IMAGE, 9, print, NULL, NULL, NULL) != MLNN_OK) return "fit";
  return mlnn_model_close(mean) == MLNN_OK ? NULL : "close the mean";
}

int main(void) {
  static const char file[] = "MultiLayerNNModel_v2\nsoftmax 1\nnum_lay";
  char found[100] = "";
  if (mlnn_check_memory(file, sizeof file - 1, NULL, keep, NULL, found) != MLNN_ERROR_MODEL)
    return 1;
  puts(found);
  if (strncmp(found, "line 3, column 1: ", 18) != 0) return 1;
  return run_mean() == NULL ? 0 : 1;
}
