// The analyses through the C interface, of a file of either format: none ends the process, stops
// but by its watch, or differs from itself. A file that is written is read again with the same
// digests, and the mean of a model with itself is that model.
#include <array>
#include <cmath>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "c/mlnn_analysis.h"
#include "fuzz/Support.h"

namespace {

using mlnn::fuzz::require;

constexpr std::size_t kMostValues = 4096;
constexpr std::size_t kFrames = 2;

void ignoreText(mlnn_severity, const char* text, void*) {
  require(text != nullptr && text[0] != '\0', "a finding without words");
}

void addDigest(const char* section, const char* digest, void* data) {
  *static_cast<std::string*>(data) += std::string(section) + " " + digest + "\n";
}

void keepFile(const void* bytes, std::size_t length, void* data) {
  static_cast<std::string*>(data)->assign(static_cast<const char*>(bytes), length);
}

void requireFinite(std::size_t, const mlnn_layer_summary* layer, void*) {
  require(layer->act_fn != nullptr && layer->image_weights != nullptr, "a layer without words");
}

void requireSame(std::size_t, const char* array, const mlnn_difference* difference, void*) {
  require(array != nullptr, "a model has another shape than itself");
  require(difference->differing == 0 && difference->largest == 0, "a model differs from itself");
}

void refuseStatement(const char*, const char*, const char*, void*) {
  require(false, "a model says something else than itself");
}

void requireSameStage(const char*, const mlnn_stage_difference* stage, void*) {
  require(stage->values == stage->other_values && stage->difference.differing == 0 &&
              stage->recording < kFrames,
          "a model behaves otherwise than itself");
}

void keepStage(const char* stage, const mlnn_frames* values, void* data) {
  require(values->count <= kFrames && values->stride == values->width, "frames that lie apart");
  if (std::strcmp(stage, "outputs") != 0) return;
  auto& outputs = *static_cast<std::vector<float>*>(data);
  outputs.insert(outputs.end(), values->values, values->values + values->count * values->width);
}

void countLoss(const mlnn_precision_loss* loss, void* data) {
  require(loss->same_best_class <= kFrames, "more decisions than frames");
  ++*static_cast<int*>(data);
}

void refuseSection(const char*, const char*, void*) {
  require(false, "digests differ from themselves");
}

void refuseQuantization(std::size_t, const mlnn_layer_quantization*, void*) {
  require(false, "a model is itself, quantised");
}

void requireSameTrace(const char*, const mlnn_frames*, const mlnn_frames*,
                      const mlnn_difference* difference, void*) {
  require(difference != nullptr && difference->differing == 0, "a trace differs from itself");
}

void checkLoss(const mlnn_quantization_loss* loss, void* data) {
  require(loss->same_best_class <= kFrames && loss->integers_same_best_class <= kFrames,
          "more decisions than frames");
  require(loss->right_recordings == 0 && loss->integers_right_recordings == 0,
          "a recording of no known class is right");
  for (std::size_t i = 0; i < loss->stage_count; ++i) {
    const mlnn_stage_loss& stage = loss->stages[i];  // neither is a number beside infinity
    require(!(stage.mean < 0) && !(stage.mean > stage.largest * 1.001),
            "a mean above the largest difference");
  }
  ++*static_cast<int*>(data);
}

// Stops after so many calls.
int stopLater(std::size_t, void* data) { return --*static_cast<int*>(data) < 0 ? 1 : 0; }

std::string digestOf(mlnn_model model) {
  std::string digest;
  require(mlnn_model_digest(model, addDigest, nullptr, &digest) == MLNN_OK, "no digest");
  return digest;
}

std::string fileOf(mlnn_model model, std::int32_t format) {
  // What is found goes nowhere, so the file is all that comes.
  std::string file;
  const auto ignore = [](mlnn_severity, const char*, void*) {};
  mlnn_model_fit(model, format, 9, ignore, keepFile, nullptr, &file);
  return file;
}

// What is written again is read, and written as the same bytes.
void checkFiles(mlnn_model model) {
  for (const std::int32_t format : {MLNN_FORMAT_TEXT, MLNN_FORMAT_IMAGE}) {
    const std::string file = fileOf(model, format);
    if (file.empty()) continue;
    mlnn_model again{0};
    require(mlnn_model_open_memory(file.data(), file.size(), nullptr, &again) == MLNN_OK,
            "a file that was written is not read");
    require(fileOf(again, format) == file, "a file is written otherwise again");
    mlnn_model_close(again);
  }
}

void checkDigests(mlnn_model model) {
  std::vector<std::string> texts;  // a name, its digest, and so on
  const auto add = [](const char* section, const char* digest, void* data) {
    auto& found = *static_cast<std::vector<std::string>*>(data);
    found.emplace_back(section);
    found.emplace_back(digest);
  };
  require(mlnn_model_digest(model, add, nullptr, &texts) == MLNN_OK, "no digest");
  std::vector<mlnn_section> all;
  for (std::size_t i = 0; i < texts.size(); i += 2) {
    all.push_back({texts[i].c_str(), texts[i + 1].c_str()});
  }
  require(mlnn_compare_digests(MLNN_FORMAT_TEXT, all.data(), all.size(), MLNN_FORMAT_TEXT,
                               all.data(), all.size(), refuseSection, nullptr) == MLNN_OK,
          "digests are not compared");
}

void checkMean(mlnn_model model) {
  const mlnn_model models[] = {model, model, model};
  const double weights[] = {1, 3, 0.1};
  mlnn_model mean{0};
  require(mlnn_model_average(models, 3, weights, nullptr, nullptr, &mean) == MLNN_OK,
          "a model has no mean with itself");
  require(digestOf(mean) == digestOf(model), "the mean of a model with itself is another one");
  mlnn_model_close(mean);
}

void checkHistogram(const std::vector<float>& values, std::size_t bins) {
  std::vector<std::uint64_t> counts(bins);
  mlnn_histogram histogram;
  require(mlnn_count_values(values.data(), values.size(), bins, nullptr, nullptr, counts.data(),
                            &histogram) == MLNN_OK,
          "values are not counted");
  require(std::accumulate(counts.begin(), counts.end(), histogram.not_finite) == values.size(),
          "a value is in no bin, or in two");
}

void checkTraceOf(const std::vector<float>& outputs, std::size_t height) {
  const mlnn_stage stage = {"outputs", {outputs.data(), kFrames, height, height}};
  require(mlnn_compare_traces(&stage, 1, &stage, 1, requireSameTrace, nullptr, nullptr) == MLNN_OK,
          "a trace is not compared");
}

void checkProof(mlnn_model model, const mlnn_frames& frames, bool hasClasses, std::size_t some) {
  const std::array<int32_t, 2> bits = {static_cast<int32_t>(2 + some % 7), 8};
  const int32_t unknown = -1;
  const mlnn_quantization_options options = {
      some % 2 == 0 ? MLNN_ROW_SCALE_LARGEST : MLNN_ROW_SCALE_LEAST_SQUARES,
      some % 3 == 0 ? 0.01 : HUGE_VAL,
      static_cast<double>(some % 5) / 4,
      {frames.values, some % 4 < 2 ? 0 : frames.count, frames.width, frames.stride}};
  mlnn_quantization_proof proof;
  int losses = 0;
  const mlnn_status status =
      mlnn_model_prove_quantization(model, &frames, 1, hasClasses ? &unknown : nullptr, 1, &options,
                                    bits.data(), bits.size(), checkLoss, nullptr, &losses, &proof);
  require(status == MLNN_OK || mlnn_last_error()[0] != '\0', "refused without a reason");
  if (status != MLNN_OK) return;
  require(losses == 2 && proof.frames == kFrames, "a width is not measured");
  require(proof.smallest_width == 0 || proof.smallest_width == bits[0] || proof.smallest_width == 8,
          "a width is recommended that was not measured");
}

void checkRuns(mlnn_model model, const uint8_t* data, std::size_t size) {
  std::size_t width = 0;
  std::size_t height = 0;
  mlnn_model_inputs(model, &width);
  mlnn_model_outputs(model, &height);
  if (width > kMostValues || height > kMostValues) return;
  mlnn::fuzz::Bytes bytes(data + size - size % 97, size % 97);
  std::vector<float> values(kFrames * width);
  for (float& value : values) value = bytes.value();
  const mlnn_frames frames = {values.data(), kFrames, width, width};
  std::vector<float> traced;
  const mlnn_status status = mlnn_model_trace(model, &frames, 1, keepStage, nullptr, &traced);
  require(status == MLNN_OK || mlnn_last_error()[0] != '\0', "refused without a reason");
  if (status != MLNN_OK) return;
  mlnn_pass pass{0};
  std::vector<float> outputs(kFrames * height);
  require(mlnn_pass_create(model, &pass) == MLNN_OK, "traced, but not run");
  mlnn_pass_run(pass, kFrames, values.data(), width, width, outputs.data(), height, height);
  mlnn_pass_close(pass);
  require(traced.size() == outputs.size() &&
              (outputs.empty() ||
               std::memcmp(traced.data(), outputs.data(), outputs.size() * sizeof(float)) == 0),
          "a trace ends in other bits than a pass");
  std::uint64_t count = 0;
  require(mlnn_model_compare_behaviour(model, model, &frames, 1, 1, requireSameStage, nullptr,
                                       nullptr, &count) == MLNN_OK &&
              count == kFrames,
          "a model decides otherwise than itself");
  const std::int32_t bits[] = {static_cast<std::int32_t>(size % 32), 31};
  int losses = 0;
  require(mlnn_model_sweep(model, &frames, 1, nullptr, 1, bits, 2, countLoss, nullptr, &losses,
                           &count) == MLNN_OK &&
              losses == 2,
          "a width is not measured");
  checkTraceOf(outputs, height);
  checkHistogram(outputs, 1 + size % 9);
  checkProof(model, frames, size % 2 == 0, size);
}

void ask(mlnn_model model, const uint8_t* data, std::size_t size) {
  mlnn_budget budget;
  require(mlnn_model_check(model, ignoreText, nullptr, nullptr) == MLNN_OK, "not checked");
  require(mlnn_model_summary(model, requireFinite, nullptr, nullptr) == MLNN_OK, "no summary");
  require(mlnn_model_budget(model, nullptr, nullptr, &budget) == MLNN_OK, "no budget");
  require(mlnn_model_compare(model, model, requireSame, nullptr, nullptr) == MLNN_OK,
          "not compared");
  require(mlnn_model_compare_statements(model, model, refuseStatement, nullptr) == MLNN_OK,
          "statements are not compared");
  require(
      mlnn_model_find_quantization(model, model, refuseQuantization, nullptr, nullptr) == MLNN_OK,
      "not asked for a quantisation");
  int calls = static_cast<int>(size % 5);
  const mlnn_status stopped = mlnn_model_budget(model, stopLater, &calls, &budget);
  require(stopped == MLNN_OK || stopped == MLNN_STOPPED, "a watch does more than stop");
  checkFiles(model);
  checkDigests(model);
  checkMean(model);
  checkRuns(model, data, size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  constexpr std::size_t kTail = 2;  // of the mutator's, for another target
  const mlnn::fuzz::Diagnostics diagnostics;
  size -= size < kTail ? size : kTail;
  const mlnn::fuzz::Limits limits(size, 1024, std::size_t{32} << 20);
  mlnn_model model{0};
  const mlnn_status opened = mlnn_model_open_memory(data, size, nullptr, &model);
  const mlnn_status checked = mlnn_check_memory(data, size, nullptr, ignoreText, nullptr, nullptr);
  require(opened == checked, "what opens is what check takes");
  if (opened == MLNN_OK) {
    ask(model, data, size);
    require(mlnn_model_close(model) == MLNN_OK, "a model does not close");
  }
  limits.check();
  return 0;
}
