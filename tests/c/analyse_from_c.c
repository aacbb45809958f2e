/* Uses the analyses as a C program does; compiled as C99, with every warning an error. */
#include <mlnn_analysis.h>
#include <stddef.h>

#include "tests/c/from_c.h"

typedef struct counts {
  size_t layers, sections, findings, arrays, steps;
} counts;

static void count_layer(size_t layer, const mlnn_layer_summary* summary, void* data) {
  counts* all = (counts*)data;
  if (layer == all->layers && summary->inputs > 0) ++all->layers;
}

static void count_section(const char* section, const char* digest, void* data) {
  if (section[0] != '\0' && digest[0] != '\0') ++((counts*)data)->sections;
}

static void count_finding(mlnn_severity severity, const char* text, void* data) {
  if (severity == MLNN_SEVERITY_WARNING && text[0] != '\0') ++((counts*)data)->findings;
}

static void count_array(size_t layer, const char* array, const mlnn_difference* difference,
                        void* data) {
  if (layer < 2 && array != NULL && difference->differing == 0) ++((counts*)data)->arrays;
}

static int count_steps(size_t steps, void* data) {
  ((counts*)data)->steps += steps;
  return 0;
}

const char* from_c_analyse(const void* file, size_t length) {
  counts all = {0, 0, 0, 0, 0};
  mlnn_budget budget;
  mlnn_model model;
  if (mlnn_model_open_memory(file, length, NULL, &model) != MLNN_OK) return "not opened";
  if (mlnn_check_memory(file, length, NULL, count_finding, NULL, &all) != MLNN_OK) return "check";
  if (mlnn_model_check(model, count_finding, NULL, &all) != MLNN_OK) return "model_check";
  if (mlnn_model_summary(model, count_layer, count_steps, &all) != MLNN_OK) return "summary";
  if (mlnn_model_digest(model, count_section, NULL, &all) != MLNN_OK) return "digest";
  if (mlnn_model_budget(model, NULL, NULL, &budget) != MLNN_OK) return "budget";
  if (mlnn_model_compare(model, model, count_array, NULL, &all) != MLNN_OK) return "compare";
  if (mlnn_model_close(model) != MLNN_OK) return "close";
  if (all.layers != 2 || all.steps != 2) return "layers";
  if (all.sections < 5 || all.findings == 0 || all.findings % 2 != 0) return "findings";
  if (all.arrays < 4 || budget.image_bytes != length) return "numbers";
  return NULL;
}
