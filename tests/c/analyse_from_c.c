/* Uses the analyses as a C program does; compiled as C99, with every warning an error. */
#include <mlnn_analysis.h>
#include <stddef.h>

#include "tests/c/from_c.h"

typedef struct counts {
  size_t layers, sections, findings, arrays, steps;
  size_t statements, bytes, stages, same, losses, traces;
  size_t changes, quantized, proofs;
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

static void count_statement(const char* what, const char* text, const char* other_text,
                            void* data) {
  if (what != NULL || text != NULL || other_text != NULL) ++((counts*)data)->statements;
}

static void count_file(const void* bytes, size_t length, void* data) {
  if (bytes != NULL) ((counts*)data)->bytes += length;
}

static void count_stage(const char* stage, const mlnn_frames* values, void* data) {
  if (stage[0] != '\0' && values->count == 2) ++((counts*)data)->stages;
}

static void count_same(const char* stage, const mlnn_stage_difference* difference, void* data) {
  if (stage[0] != '\0' && difference->difference.differing == 0) ++((counts*)data)->same;
}

static void count_loss(const mlnn_precision_loss* loss, void* data) {
  if (loss->bits == 4 && loss->same_best_class <= 2) ++((counts*)data)->losses;
}

static void count_trace(const char* stage, const mlnn_frames* values,
                        const mlnn_frames* other_values, const mlnn_difference* difference,
                        void* data) {
  if (stage[0] != '\0' && values != NULL && other_values != NULL && difference != NULL)
    ++((counts*)data)->traces;
}

static void count_change(const char* section, const char* text, void* data) {
  if (section[0] != '\0' && text != NULL) ++((counts*)data)->changes;
}

static void count_quantization(size_t layer, const mlnn_layer_quantization* quantization,
                               void* data) {
  if (layer < 2 && quantization->bits > 0) ++((counts*)data)->quantized;
}

static void count_proof(const mlnn_quantization_loss* loss, void* data) {
  if (loss->bits == 4 && loss->keeps == 1 && loss->stage_count == 5) ++((counts*)data)->proofs;
}

static int count_steps(size_t steps, void* data) {
  ((counts*)data)->steps += steps;
  return 0;
}

static const char* run_from_c(mlnn_model model, counts* all) {
  static const float values[64] = {1, 2, 3};
  static const int32_t bits[1] = {4};
  size_t width = 0;
  uint64_t number = 0;
  mlnn_frames frames = {values, 2, 0, 0};
  const mlnn_quantization_options options = {MLNN_ROW_SCALE_LARGEST, 1.0, 0.0, {NULL, 0, 0, 0}};
  mlnn_quantization_proof proof;
  mlnn_stage stage = {"inputs", {NULL, 0, 0, 0}};
  mlnn_model_inputs(model, &width);
  if (width > 32) return "width";
  frames.width = frames.stride = width;
  stage.values = frames;
  if (mlnn_model_trace(model, &frames, 1, count_stage, NULL, all) != MLNN_OK) return "trace";
  if (mlnn_model_compare_behaviour(model, model, &frames, 1, 1, count_same, NULL, all, &number) !=
      MLNN_OK) {
    return "behaviour";
  }
  if (number != 2) return "decisions";
  if (mlnn_model_sweep(model, &frames, 1, NULL, 1, bits, 1, count_loss, NULL, all, &number) !=
      MLNN_OK) {
    return "sweep";
  }
  if (mlnn_model_prove_quantization(model, &frames, 1, NULL, 1, &options, bits, 1, count_proof,
                                    NULL, all, &proof) != MLNN_OK) {
    return "proof";
  }
  if (proof.frames != 2 || proof.smallest_width != 4) return "width";
  if (mlnn_compare_traces(&stage, 1, &stage, 1, count_trace, NULL, all) != MLNN_OK) return "traces";
  if (all->proofs != 1 || all->stages != 6 || all->same != 6 || all->losses != 1) return "stages";
  return NULL;
}

static const char* ask_from_c(mlnn_model model, counts* all) {
  static const mlnn_section earlier = {"layer 1", "0"};
  static const mlnn_section now = {"layer 1", "1"};
  mlnn_frame_time time;
  mlnn_pass pass;
  size_t bytes = 1;
  if (mlnn_compare_digests(MLNN_FORMAT_TEXT, &now, 1, MLNN_FORMAT_IMAGE, &earlier, 1, count_change,
                           all) != MLNN_OK) {
    return "digests";
  }
  if (mlnn_model_find_quantization(model, model, count_quantization, NULL, all) != MLNN_OK) {
    return "quantization";
  }
  if (mlnn_model_time(model, 0.001, NULL, NULL, &time) != MLNN_OK) return "time";
  if (mlnn_pass_create(model, &pass) != MLNN_OK) return "pass";
  if (mlnn_pass_prepare(pass, 1000, &bytes) != MLNN_OK) return "prepare";
  if (mlnn_pass_close(pass) != MLNN_OK) return "close the pass";
  if (all->changes != 1 || all->quantized != 0 || time.frames == 0 || bytes != 0) return "answers";
  return NULL;
}

const char* from_c_analyse(const void* file, size_t length) {
  counts all = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  mlnn_budget budget;
  mlnn_histogram histogram;
  static const float values[3] = {1, 2, 3};
  uint64_t bins[2];
  mlnn_model model, mean;
  const char* wrong;
  if (mlnn_model_open_memory(file, length, NULL, &model) != MLNN_OK) return "not opened";
  if (mlnn_check_memory(file, length, NULL, count_finding, NULL, &all) != MLNN_OK) return "check";
  if (mlnn_model_check(model, count_finding, NULL, &all) != MLNN_OK) return "model_check";
  if (mlnn_model_summary(model, count_layer, count_steps, &all) != MLNN_OK) return "summary";
  if (mlnn_model_digest(model, count_section, NULL, &all) != MLNN_OK) return "digest";
  if (mlnn_model_budget(model, NULL, NULL, &budget) != MLNN_OK) return "budget";
  if (mlnn_model_compare(model, model, count_array, NULL, &all) != MLNN_OK) return "compare";
  if (mlnn_model_compare_statements(model, model, count_statement, &all) != MLNN_OK) {
    return "statements";
  }
  if (mlnn_model_fit(model, MLNN_FORMAT_IMAGE, 9, count_finding, count_file, NULL, &all) !=
      MLNN_OK) {
    return "fit";
  }
  if (mlnn_model_average(&model, 1, NULL, NULL, NULL, &mean) != MLNN_OK) return "average";
  if (mlnn_count_values(values, 3, 2, NULL, NULL, bins, &histogram) != MLNN_OK) return "values";
  wrong = ask_from_c(model, &all);
  if (wrong != NULL) return wrong;
  wrong = run_from_c(mean, &all);
  if (wrong != NULL) return wrong;
  if (mlnn_model_close(mean) != MLNN_OK) return "close the mean";
  if (mlnn_model_close(model) != MLNN_OK) return "close";
  if (all.statements != 0 || all.bytes != length || all.traces != 1) return "statements";
  if (bins[0] != 1 || bins[1] != 2 || histogram.high != 3) return "bins";
  if (all.layers != 2 || all.steps != 2) return "layers";
  if (all.sections < 5 || all.findings == 0 || all.findings % 2 != 0) return "findings";
  if (all.arrays < 4 || budget.image_bytes != length) return "numbers";
  return NULL;
}
