// The functions of mlnn_analysis.h that look at frames.
#include <Eigen/Core>
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "analysis/BehaviourDiff.h"
#include "analysis/PrecisionSweep.h"
#include "analysis/QuantizationProof.h"
#include "analysis/Stage.h"
#include "analysis/TraceComparison.h"
#include "c/AnalysisCalls.h"
#include "inference/Evaluation.h"
#include "inference/NNFwdPassFromFile.h"
#include "inference/Pace.h"
#include "inference/RecordingInputs.h"
#include "layers/Report.h"

namespace {

using Eigen::Index;
using mlnn::ModelFile;
using mlnn::RecordingInputs;
using mlnn::refuse;
using mlnn::report;
using mlnn::told;
using mlnn::Watch;
using Columns = Eigen::Map<const Eigen::MatrixXf, 0, Eigen::OuterStride<>>;

mlnn_status check(const char* function, const mlnn_frames& frames) {
  if (frames.values == nullptr && frames.count > 0) return mlnn::refuseNull(function);
  if (!mlnn::fitsMemory(frames.count, frames.stride) || !mlnn::fitsMemory(1, frames.width)) {
    return mlnn::refuseTooMany(function);
  }
  if (frames.count > 1 && frames.stride < frames.width) return mlnn::refuseStride(function);
  return MLNN_OK;
}

mlnn_status check(const char* function, const mlnn_frames* recordings, std::size_t count) {
  mlnn_status status = MLNN_OK;
  for (std::size_t i = 0; i < count && status == MLNN_OK; ++i) {
    status = check(function, recordings[i]);
  }
  return status;
}

// REQUIRES: they were checked.
Columns columnsOf(const mlnn_frames& frames) {
  return {frames.values, static_cast<Index>(frames.width), static_cast<Index>(frames.count),
          Eigen::OuterStride<>(static_cast<Index>(std::max(frames.stride, frames.width)))};
}

mlnn_frames framesOf(const Eigen::MatrixXf& values) {
  const auto width = static_cast<std::size_t>(values.rows());
  return {values.data(), static_cast<std::size_t>(values.cols()), width, width};
}

// Decides what the frames of a recording are to a model; else says why `function` refuses them.
std::optional<RecordingInputs> inputsOf(const char* function, const MultiLayerNNModel& model,
                                        const mlnn_frames& frames, std::size_t number,
                                        int stacked) {
  std::string whyNot;
  auto inputs = RecordingInputs::forFrames(model, static_cast<Index>(frames.width), stacked != 0,
                                           "recording " + std::to_string(number), whyNot);
  if (!inputs) refuse(MLNN_ERROR_SIZE, function, whyNot.c_str());
  return inputs;
}

// The stages of a trace in the order in which they are computed, and without those that stand
// twice.
using Stages = std::vector<const mlnn_stage*>;

mlnn_status sortStages(const char* function, const mlnn_stage* given, std::size_t count,
                       Stages& stages) {
  for (const mlnn_stage* stage = given; stage != given + count; ++stage) {
    if (stage->name == nullptr) return mlnn::refuseNull(function);
    if (!mlnn::isStageName(stage->name)) {
      report({"ERROR: ", function, ": no stage is called '", stage->name, "'"});
      return MLNN_ERROR_ARGUMENT;
    }
    const mlnn_status status = check(function, stage->values);
    if (status != MLNN_OK) return status;
    stages.push_back(stage);
  }
  const auto isBefore = [](const mlnn_stage* a, const mlnn_stage* b) {
    return mlnn::comesBefore(a->name, b->name);
  };
  std::sort(stages.begin(), stages.end(), isBefore);
  const auto twice =
      std::adjacent_find(stages.begin(), stages.end(),
                         [&](const mlnn_stage* a, const mlnn_stage* b) { return !isBefore(a, b); });
  if (twice == stages.end()) return MLNN_OK;
  report({"ERROR: ", function, ": the stage '", (*twice)->name, "' stands twice"});
  return MLNN_ERROR_ARGUMENT;
}

const mlnn_frames* find(const Stages& stages, const std::string& name) {
  const auto found = std::find_if(stages.begin(), stages.end(),
                                  [&](const mlnn_stage* stage) { return stage->name == name; });
  return found == stages.end() ? nullptr : &(*found)->values;
}

mlnn::Trace traceOf(const Stages& stages) {
  mlnn::Trace trace;
  for (const mlnn_stage* stage : stages) trace.stages.emplace_back(stage->name);
  trace.values = [&stages](const std::string& name) -> Eigen::MatrixXf {
    return columnsOf(*find(stages, name));
  };
  return trace;
}

mlnn_stage_difference told(const mlnn::BehaviourDiff& diff, const mlnn::StageDifference& stage) {
  const mlnn::FramePlace place = diff.placeOfLargest(stage);
  mlnn_difference difference = told(stage.difference);
  difference.row = static_cast<std::size_t>(place.unit);
  difference.column = static_cast<std::size_t>(place.frame);
  const std::size_t recording = place.recording.empty() ? 0 : std::stoul(place.recording);
  return {static_cast<std::size_t>(stage.valuesA), static_cast<std::size_t>(stage.valuesB),
          difference, recording};
}

mlnn_precision_loss told(const mlnn::PrecisionLoss& loss) {
  return {loss.bits,
          loss.largestWeightError,
          loss.meanWeightError,
          loss.largestOutputDifference,
          loss.sameBestClass,
          loss.rightRecordings};
}

bool areBits(const int32_t* bits, std::size_t widths, int least, int most) {
  return std::all_of(bits, bits + widths, [=](int32_t one) { return one >= least && one <= most; });
}

// Refuses classes that the model does not have.
mlnn_status checkClasses(const char* function, const MultiLayerNNModel& model,
                         const int32_t* classes, std::size_t count) {
  const Index outputs = model.layers.empty() ? 0 : model.layers.back()->weights.rows();
  for (std::size_t i = 0; i < count; ++i) {
    if (classes[i] == -1 || (classes[i] >= 0 && classes[i] < outputs)) continue;
    report({"ERROR: ", function, ": there is no output ", classes[i]});
    return MLNN_ERROR_ARGUMENT;
  }
  return MLNN_OK;
}

// The class of a recording, where it is known.
std::optional<Index> classOf(const int32_t* classes, std::size_t recording) {
  if (classes == nullptr || classes[recording] < 0) return std::nullopt;
  return classes[recording];
}

// Calls `take` with the number of each recording, its frames and its inputs, until it returns
// another status than MLNN_OK.
template <typename Take>
mlnn_status forEach(const char* function, const MultiLayerNNModel& model,
                    const mlnn_frames* recordings, std::size_t count, int stacked,
                    const Take& take) {
  for (std::size_t i = 0; i < count; ++i) {
    const auto inputs = inputsOf(function, model, recordings[i], i, stacked);
    if (!inputs) return MLNN_ERROR_SIZE;
    const mlnn_status status = take(i, columnsOf(recordings[i]), *inputs);
    if (status != MLNN_OK) return status;
  }
  return MLNN_OK;
}

// Takes in the recordings. `classes` has the class of each, or is null.
mlnn_status add(const char* function, const MultiLayerNNModel& model, const mlnn_frames* recordings,
                std::size_t count, const int32_t* classes, int stacked, const Watch& watch,
                mlnn::PrecisionSweep& sweep) {
  return forEach(function, model, recordings, count, stacked,
                 [&](std::size_t i, const Columns& frames, const RecordingInputs& inputs) {
                   const bool isAdded =
                       sweep.addRecording(frames, inputs, classOf(classes, i), watch);
                   return isAdded ? MLNN_OK : MLNN_ERROR_MODEL;
                 });
}

// --- Proofs of quantisation ---

// Says why `function` refuses, unless the library has told the reason.
mlnn_status refuseProof(const char* function, const std::string& whyNot) {
  if (whyNot == mlnn::kCannotBeRun || whyNot == mlnn::kCannotBeQuantized) return MLNN_ERROR_MODEL;
  return refuse(MLNN_ERROR_MODEL, function, whyNot.c_str());
}

mlnn_status add(const char* function, const MultiLayerNNModel& model, const mlnn_frames* recordings,
                std::size_t count, const int32_t* classes, int stacked, const Watch& watch,
                mlnn::QuantizationProof& proof) {
  return forEach(function, model, recordings, count, stacked,
                 [&](std::size_t i, const Columns& frames, const RecordingInputs& inputs) {
                   std::string whyNot;
                   const bool isAdded =
                       proof.addRecording("recording " + std::to_string(i), frames, inputs,
                                          classOf(classes, i), whyNot, watch);
                   return isAdded ? MLNN_OK : refuseProof(function, whyNot);
                 });
}

mlnn_status check(const char* function, const MultiLayerNNModel& model,
                  const mlnn_quantization_options& options) {
  if (options.scale != MLNN_ROW_SCALE_LARGEST && options.scale != MLNN_ROW_SCALE_LEAST_SQUARES) {
    return refuse(MLNN_ERROR_ARGUMENT, function, "scale is no value that there is");
  }
  if (!(options.largest_error >= 0)) {
    return refuse(MLNN_ERROR_ARGUMENT, function, "largest_error must be at least 0");
  }
  if (!(options.keep >= 0 && options.keep <= 1)) {
    return refuse(MLNN_ERROR_ARGUMENT, function, "keep must be 0 to 1");
  }
  if (options.corrections.count == 0) return MLNN_OK;
  const mlnn_status status = check(function, options.corrections);
  if (status != MLNN_OK) return status;
  if (static_cast<Index>(options.corrections.width) == model.numInputs()) return MLNN_OK;
  report({"ERROR: ", function, ": corrections of ", options.corrections.width,
          " values, but the model has ", model.numInputs(), " inputs"});
  return MLNN_ERROR_SIZE;
}

void hand(const mlnn::QuantizationFindings& findings, const mlnn::QuantizationLoss& loss,
          mlnn_quantization_loss_function found, void* data) {
  std::vector<mlnn_stage_loss> stages;
  for (const mlnn::StageLoss& stage : loss.stages) {
    stages.push_back({stage.stage.c_str(), stage.values, stage.largest, stage.mean});
  }
  const mlnn_quantization_loss told = {loss.bits,
                                       findings.keeps(loss) ? 1 : 0,
                                       loss.imageBytes,
                                       loss.floats.sameBestClass,
                                       loss.floats.rightRecordings,
                                       loss.integers.sameBestClass,
                                       loss.integers.rightRecordings,
                                       stages.data(),
                                       stages.size()};
  found(&told, data);
}

// Measures a width, and hands on what is lost.
mlnn_status measure(const char* function, mlnn::QuantizationProof& proof,
                    const mlnn_quantization_options& options, int bits, const Watch& watch,
                    mlnn_quantization_loss_function found, void* data) {
  mlnn::RowQuantization quantization;
  quantization.bits = bits;
  quantization.scale = static_cast<mlnn::RowScale>(options.scale);
  quantization.largestError = options.largest_error;
  const Eigen::MatrixXf none;
  const bool isCorrected = options.corrections.count > 0;
  const Eigen::Ref<const Eigen::MatrixXf> corrections =
      isCorrected ? Eigen::Ref<const Eigen::MatrixXf>(columnsOf(options.corrections))
                  : Eigen::Ref<const Eigen::MatrixXf>(none);
  std::string whyNot;
  if (!proof.measure(quantization, corrections, whyNot, watch)) {
    return refuseProof(function, whyNot);
  }
  hand(proof.found(), proof.found().losses.back(), found, data);
  return MLNN_OK;
}

}  // namespace

mlnn_status mlnn_model_trace(mlnn_model model, const mlnn_frames* recording, int stacked,
                             mlnn_stage_function found, mlnn_watch_function watch, void* data) {
  const char* const function = __func__;
  const bool hasAll = recording != nullptr && found != nullptr;
  return mlnn::withFile(
      function, model, hasAll, watch, data, [&](const ModelFile& file, const Watch& watching) {
        const mlnn_status status = check(function, *recording);
        if (status != MLNN_OK) return status;
        const auto inputs = inputsOf(function, file.model, *recording, 0, stacked);
        if (!inputs) return MLNN_ERROR_SIZE;
        const Columns columns = columnsOf(*recording);
        const std::vector<std::string> names = mlnn::stageNames(file.model.layers.size());
        NNFwdPassFromFile pass(file.model);
        RecordingInputs::Blocks blocks(*inputs, columns);
        mlnn::Pace pace(watching, std::min(blocks.maxLength(), mlnn::framesAtOnce(file.model)));
        while (const auto block = blocks.next(pace.frames())) {
          std::optional<mlnn::StageValues> values;
          pace.run([&] { values = mlnn::evaluateStages(pass, *block); });
          if (!values) return MLNN_ERROR_MODEL;
          mlnn::tell(watching, static_cast<std::size_t>(block->cols()));
          const std::vector<const Eigen::MatrixXf*> stages = values->inOrder();
          for (std::size_t i = 0; i < stages.size(); ++i) {
            const mlnn_frames frames = framesOf(*stages[i]);
            found(names[i].c_str(), &frames, data);
          }
        }
        return MLNN_OK;
      });
}

mlnn_status mlnn_compare_traces(const mlnn_stage* trace, size_t stages,
                                const mlnn_stage* other_trace, size_t other_stages,
                                mlnn_trace_function found, mlnn_watch_function watch, void* data) {
  const char* const function = __func__;
  const bool hasAll = (trace != nullptr || stages == 0) &&
                      (other_trace != nullptr || other_stages == 0) && found != nullptr;
  return mlnn::watched(function, hasAll, watch, data, [&](const Watch& watching) {
    Stages a;
    Stages b;
    mlnn_status status = sortStages(function, trace, stages, a);
    if (status == MLNN_OK) status = sortStages(function, other_trace, other_stages, b);
    if (status != MLNN_OK) return status;
    for (const auto& stage : mlnn::compareTraces(traceOf(a), traceOf(b), false, watching)) {
      const bool isCompared = stage.isInBoth() && stage.sameShape();
      const mlnn_difference difference = told(stage.difference);
      found(stage.stage.c_str(), find(a, stage.stage), find(b, stage.stage),
            isCompared ? &difference : nullptr, data);
    }
    return MLNN_OK;
  });
}

mlnn_status mlnn_model_compare_behaviour(mlnn_model model, mlnn_model other,
                                         const mlnn_frames* recordings, size_t count, int stacked,
                                         mlnn_behaviour_function found, mlnn_watch_function watch,
                                         void* data, uint64_t* same_decisions) {
  const char* const function = __func__;
  const bool hasAll =
      (recordings != nullptr || count == 0) && found != nullptr && same_decisions != nullptr;
  return mlnn::withFiles(
      function, model, other, hasAll, watch, data,
      [&](const ModelFile& a, const ModelFile& b, const Watch& watching) {
        const mlnn_status status = check(function, recordings, count);
        if (status != MLNN_OK) return status;
        mlnn::BehaviourDiff diff(a.model, b.model);
        for (std::size_t i = 0; i < count; ++i) {
          const auto inputsA = inputsOf(function, a.model, recordings[i], i, stacked);
          if (!inputsA) return MLNN_ERROR_SIZE;
          const auto inputsB = inputsOf(function, b.model, recordings[i], i, stacked);
          if (!inputsB) return MLNN_ERROR_SIZE;
          if (!diff.addRecording(std::to_string(i), columnsOf(recordings[i]), *inputsA, *inputsB,
                                 watching)) {
            return MLNN_ERROR_MODEL;
          }
        }
        for (const mlnn::StageDifference& stage : diff.stages()) {
          const mlnn_stage_difference difference = told(diff, stage);
          found(stage.stage.c_str(), &difference, data);
        }
        *same_decisions = diff.sameDecisions();
        return MLNN_OK;
      });
}

mlnn_status mlnn_model_sweep(mlnn_model model, const mlnn_frames* recordings, size_t count,
                             const int32_t* classes, int stacked, const int32_t* bits,
                             size_t widths, mlnn_precision_function found,
                             mlnn_watch_function watch, void* data, uint64_t* right_recordings) {
  const char* const function = __func__;
  const bool hasAll = (recordings != nullptr || count == 0) && (bits != nullptr || widths == 0) &&
                      found != nullptr && right_recordings != nullptr;
  return mlnn::withFile(
      function, model, hasAll, watch, data, [&](const ModelFile& file, const Watch& watching) {
        if (!areBits(bits, widths, 0, 31)) {
          return refuse(MLNN_ERROR_ARGUMENT, function, "bits must be 0 to 31");
        }
        mlnn_status status = check(function, recordings, count);
        if (status == MLNN_OK && classes != nullptr) {
          status = checkClasses(function, file.model, classes, count);
        }
        if (status != MLNN_OK) return status;
        mlnn::PrecisionSweep sweep(file.model);
        status = add(function, file.model, recordings, count, classes, stacked, watching, sweep);
        if (status != MLNN_OK) return status;
        for (std::size_t i = 0; i < widths; ++i) {
          const mlnn_precision_loss loss = told(sweep.measure(bits[i], watching));
          found(&loss, data);
        }
        *right_recordings = sweep.rightRecordings();
        return MLNN_OK;
      });
}

mlnn_status mlnn_model_prove_quantization(mlnn_model model, const mlnn_frames* recordings,
                                          size_t count, const int32_t* classes, int stacked,
                                          const mlnn_quantization_options* options,
                                          const int32_t* bits, size_t widths,
                                          mlnn_quantization_loss_function found,
                                          mlnn_watch_function watch, void* data,
                                          mlnn_quantization_proof* proof) {
  const char* const function = __func__;
  const bool hasAll = (recordings != nullptr || count == 0) && (bits != nullptr || widths == 0) &&
                      options != nullptr && found != nullptr && proof != nullptr;
  return mlnn::withFile(
      function, model, hasAll, watch, data, [&](const ModelFile& file, const Watch& watching) {
        using mlnn::RowQuantization;
        if (!areBits(bits, widths, RowQuantization::kMinBits, RowQuantization::kMaxBits)) {
          return refuse(MLNN_ERROR_ARGUMENT, function, "bits must be 2 to 8");
        }
        mlnn_status status = check(function, file.model, *options);
        if (status == MLNN_OK) status = check(function, recordings, count);
        if (status == MLNN_OK && classes != nullptr) {
          status = checkClasses(function, file.model, classes, count);
        }
        if (status != MLNN_OK) return status;
        mlnn::QuantizationProof trial(file.model, options->keep);
        status = add(function, file.model, recordings, count, classes, stacked, watching, trial);
        for (std::size_t i = 0; i < widths && status == MLNN_OK; ++i) {
          status = measure(function, trial, *options, bits[i], watching, found, data);
        }
        if (status != MLNN_OK) return status;
        const mlnn::QuantizationFindings& all = trial.found();
        *proof = {all.frames, all.rightRecordings.value_or(0), all.imageBytes,
                  all.smallestWidth().value_or(0)};
        return MLNN_OK;
      });
}
