#include "python/Analysis.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "analysis/BehaviourDiff.h"
#include "analysis/ModelAverage.h"
#include "analysis/ModelBudget.h"
#include "analysis/ModelCopy.h"
#include "analysis/ModelDigest.h"
#include "analysis/ModelSuspicions.h"
#include "analysis/NumberDiff.h"
#include "analysis/PrecisionSweep.h"
#include "analysis/QuantizationDiff.h"
#include "analysis/QuantizationProof.h"
#include "analysis/Stage.h"
#include "analysis/StatementDiff.h"
#include "analysis/TraceComparison.h"
#include "analysis/diagnosis/Diagnosis.h"
#include "inference/Evaluation.h"
#include "inference/NNFwdPassFromFile.h"
#include "inference/RecordingInputs.h"
#include "python/Arrays.h"
#include "python/Core.h"

namespace mlnn::python {
namespace {

using Eigen::Index;
using Recording = std::pair<std::string, Frames>;  // its name, and frames x values

// Text from a file may hold any bytes.
py::bytes bytesOf(const std::string& text) { return py::bytes(text); }

py::object orNone(const std::optional<std::string>& text) {
  return text ? py::object(bytesOf(*text)) : py::object(py::none());
}
py::object textOrNone(const std::string& text) {
  return text.empty() ? py::object(py::none()) : py::object(bytesOf(text));
}
template <typename Number>
py::object numberOrNone(Number number) {
  return number == 0 ? py::object(py::none()) : py::object(py::int_(number));
}

template <typename Values, typename Make>
py::list listFrom(const Values& values, Make make) {
  py::list list;
  for (const auto& value : values) list.append(make(value));
  return list;
}

// A file with a copy of the model, for what looks at files.
ModelFile fileOf(const MultiLayerNNModel& model, ModelFormat format, const Watch& watch) {
  ModelFile file;
  file.model = copyOf(model, watch);
  file.format = format;
  file.textVersion = format == ModelFormat::kText ? 2 : 0;
  return file;
}

// Runs `action(a, b)` under the locks of both models, which may be one, without the interpreter's.
template <typename Action>
auto readBoth(Core& a, Core& b, Action action) {
  const py::gil_scoped_release othersRun;
  Reading first(a.mutex, std::defer_lock);
  Reading second(b.mutex, std::defer_lock);
  if (&a == &b) {
    first.lock();
  } else {
    std::lock(first, second);
  }
  return action(a.model, b.model);
}

// --- Whole models ---

py::dict dictOf(const Suspicion& found) {
  using namespace py::literals;
  return py::dict("kind"_a = bytesOf(found.kind), "text"_a = bytesOf(found.text),
                  "layer"_a = numberOrNone(found.layer), "array"_a = textOrNone(found.array),
                  "row"_a = numberOrNone(found.row), "column"_a = numberOrNone(found.column),
                  "count"_a = numberOrNone(found.count), "line"_a = numberOrNone(found.line));
}

py::list check(Core& core) {
  const std::vector<Suspicion> found = read(core, [&core](const MultiLayerNNModel& model) {
    return suspicionsOf(model, interruptedBySignals({&core}));
  });
  return listFrom(found, [](const Suspicion& suspicion) { return dictOf(suspicion); });
}

py::object diagnosis(const py::bytes& bytes) {
  const std::string_view file = bytes;
  const std::optional<Misfit> misfit = [file] {
    const py::gil_scoped_release othersRun;
    return diagnose(file, interruptedBySignals({}));
  }();
  if (!misfit) return py::none();
  using namespace py::literals;
  return py::dict("offset"_a = misfit->offset, "line"_a = numberOrNone(misfit->line),
                  "column"_a = numberOrNone(misfit->column), "field"_a = bytesOf(misfit->field),
                  "expected"_a = bytesOf(misfit->expected), "found"_a = bytesOf(misfit->found),
                  "hint"_a = textOrNone(misfit->hint), "text"_a = bytesOf(describe(*misfit)));
}

py::dict digest(Core& core, bool isImage) {
  const ModelDigest found = read(core, [&](const MultiLayerNNModel& model) {
    const ModelFormat format = isImage ? ModelFormat::kBinary : ModelFormat::kText;
    const Watch watch = interruptedBySignals({&core});
    return digestOf(fileOf(model, format, watch), watch);
  });
  py::dict sections;
  for (const DigestSection& section : found.sections) {
    sections[py::str(section.name)] = py::str(section.digest);
  }
  return sections;
}

ModelDigest digestFrom(bool isImage, const std::vector<std::pair<std::string, std::string>>& from) {
  ModelDigest made;
  made.format = isImage ? ModelFormat::kBinary : ModelFormat::kText;
  for (const auto& [name, value] : from) made.sections.push_back({name, value});
  return made;
}

py::list digestChanges(bool isImage, const std::vector<std::pair<std::string, std::string>>& now,
                       bool wasImage,
                       const std::vector<std::pair<std::string, std::string>>& before) {
  const DigestComparison found =
      compareDigests(digestFrom(isImage, now), digestFrom(wasImage, before));
  return listFrom(found.differences, [](const DigestComparison::Difference& difference) {
    return bytesOf(difference.text);
  });
}

py::object dictOf(const std::optional<IntegerSize>& size) {
  if (!size || size->integerLayers == 0) return py::none();
  using namespace py::literals;
  return py::dict("bytes"_a = size->bytes, "working_bytes"_a = size->workingBytes,
                  "integer_layers"_a = size->integerLayers);
}

py::dict budget(Core& core) {
  struct Found {
    ModelBudget budget;
    std::optional<IntegerSize> integers;
    FileSizes files;
  };
  const Found found = read(core, [&core](const MultiLayerNNModel& model) {
    const CollectedMessages silence;
    return Found{budgetOf(model), integerSizeOf(model),
                 fileSizesOf(model, interruptedBySignals({&core}))};
  });
  using namespace py::literals;
  return py::dict(
      "parameter_bytes"_a = found.budget.parameterBytes, "read_bytes"_a = found.budget.readBytes,
      "working_bytes"_a = found.budget.workingBytes, "multiply_adds"_a = found.budget.multiplyAdds,
      "activations"_a = found.budget.activations,
      "weight_forms"_a = textOrNone(found.budget.weightForms),
      "quantized"_a = textOrNone(found.budget.quantized), "integer_pass"_a = dictOf(found.integers),
      "image_bytes"_a = found.files.image, "text_bytes"_a = found.files.text);
}

// --- Recordings ---

// Decides what the frames of a recording are to a model.
RecordingInputs inputsOf(const MultiLayerNNModel& model, const std::string& name, Index width,
                         bool stacked) {
  std::string whyNot;
  const std::optional<RecordingInputs> inputs =
      RecordingInputs::forFrames(model, width, stacked, name, whyNot);
  if (!inputs) throw py::value_error(whyNot);
  return *inputs;
}

// The last error that was said, as an exception.
[[noreturn]] void refuse(const std::vector<Message>& messages) {
  throw py::value_error(messages.empty() ? std::string(kCannotBeRun) : messages.back().text);
}

// Returns the values of all stages for one recording.
py::list trace(Core& core, const Frames& frames, bool stacked) {
  const Columns columns = columnsOf(frames);
  std::vector<Eigen::MatrixXf> values;
  const std::vector<std::string> names = read(core, [&](const MultiLayerNNModel& model) {
    const CollectedMessages said;
    const RecordingInputs inputs = inputsOf(model, "the recording", columns.rows(), stacked);
    NNFwdPassFromFile pass(model);
    const Watch watch = interruptedBySignals({&core});
    RecordingInputs::Blocks blocks(inputs, columns);
    Index done = 0;
    while (const auto block = blocks.next(framesAtOnce(model))) {
      const std::optional<StageValues> stages = evaluateStages(pass, *block);
      if (!stages) refuse(said.messages());
      const std::vector<const Eigen::MatrixXf*> inOrder = stages->inOrder();
      if (values.empty()) {
        for (const Eigen::MatrixXf* one : inOrder) values.emplace_back(one->rows(), columns.cols());
      }
      for (std::size_t i = 0; i < inOrder.size(); ++i) {
        values[i].middleCols(done, block->cols()) = *inOrder[i];
      }
      done += block->cols();
      tell(watch, static_cast<std::size_t>(block->cols()));
    }
    return stageNames(model.layers.size());
  });
  py::list stages;
  for (std::size_t i = 0; i < values.size(); ++i) {
    stages.append(py::make_tuple(
        names[i], handOver(std::make_unique<Eigen::MatrixXf>(std::move(values[i])))));
  }
  return stages;
}

py::dict dictOf(const Difference& difference) {
  using namespace py::literals;
  return py::dict("count"_a = difference.count(), "differing"_a = difference.differing(),
                  "largest"_a = difference.largest(), "mean"_a = difference.mean(),
                  "root_mean_square"_a = difference.rootMeanSquare(),
                  "largest_ulps"_a = difference.largestUlps(), "cosine"_a = difference.cosine(),
                  "row"_a = difference.placeOfLargest().row,
                  "column"_a = difference.placeOfLargest().col);
}

py::list differencesInStatements(Core& a, Core& b) {
  const auto found = readBoth(a, b, [](const MultiLayerNNModel& one, const MultiLayerNNModel& two) {
    return compareStatements(one, two);
  });
  return listFrom(found, [](const StatementDifference& difference) {
    using namespace py::literals;
    return py::dict("what"_a = bytesOf(difference.what), "a"_a = orNone(difference.a),
                    "b"_a = orNone(difference.b));
  });
}

py::list differencesInNumbers(Core& a, Core& b) {
  const auto found =
      readBoth(a, b, [&a, &b](const MultiLayerNNModel& one, const MultiLayerNNModel& two) {
        return compareNumbers(one, two, interruptedBySignals({&a, &b}));
      });
  return listFrom(found, [](const LayerDifference& layer) {
    using namespace py::literals;
    return py::dict("layer"_a = layer.layer, "same_shape"_a = layer.sameShape,
                    "same_kind"_a = layer.sameKind, "is_same"_a = layer.isSame(),
                    "arrays"_a = listFrom(layer.arrays, [](const ArrayDifference& array) {
                      return py::make_tuple(array.array, dictOf(array.difference));
                    }));
  });
}

// Returns in words how `b` is `a`, quantised by rows; None where it is not.
py::object quantization(Core& a, Core& b) {
  const auto found =
      readBoth(a, b, [&a, &b](const MultiLayerNNModel& one, const MultiLayerNNModel& two) {
        return findQuantization(one, two, interruptedBySignals({&a, &b}));
      });
  return found ? py::object(py::str(describe(*found))) : py::object(py::none());
}

py::dict dictOf(const BehaviourDiff& diff, const StageDifference& stage, double tolerance) {
  const FramePlace place = diff.placeOfLargest(stage);
  using namespace py::literals;
  return py::dict(
      "stage"_a = stage.stage, "values_a"_a = stage.valuesA, "values_b"_a = stage.valuesB,
      "is_beyond"_a = stage.isBeyond(tolerance), "difference"_a = dictOf(stage.difference),
      "recording"_a = bytesOf(place.recording), "frame"_a = place.frame, "unit"_a = place.unit);
}

py::dict differencesInBehaviour(Core& a, Core& b, const std::vector<Recording>& recordings,
                                bool stacked, double tolerance) {
  std::vector<std::pair<const std::string*, Columns>> columns;
  for (const auto& [name, frames] : recordings) columns.emplace_back(&name, columnsOf(frames));
  const auto diff = readBoth(a, b, [&](MultiLayerNNModel& one, MultiLayerNNModel& two) {
    const CollectedMessages said;
    auto found = std::make_unique<BehaviourDiff>(one, two);
    for (const auto& [name, frames] : columns) {
      const RecordingInputs inputsA = inputsOf(one, *name, frames.rows(), stacked);
      const RecordingInputs inputsB = inputsOf(two, *name, frames.rows(), stacked);
      if (!found->addRecording(*name, frames, inputsA, inputsB, interruptedBySignals({&a, &b}))) {
        refuse(said.messages());
      }
    }
    return found;
  });
  using namespace py::literals;
  return py::dict("recordings"_a = diff->recordings(), "frames"_a = diff->frames(),
                  "same_decisions"_a = diff->sameDecisions(),
                  "stages"_a = listFrom(diff->stages(), [&](const StageDifference& stage) {
                    return dictOf(*diff, stage, tolerance);
                  }));
}

py::dict dictOf(const PrecisionLoss& loss) {
  using namespace py::literals;
  return py::dict("bits"_a = loss.bits, "largest_weight_error"_a = loss.largestWeightError,
                  "mean_weight_error"_a = loss.meanWeightError,
                  "largest_output_difference"_a = loss.largestOutputDifference,
                  "same_best_class"_a = loss.sameBestClass,
                  "right_recordings"_a = loss.rightRecordings);
}

// `classes` has the class of each recording, -1 where that is not known.
py::dict sweep(Core& core, const std::vector<Recording>& recordings,
               const std::vector<Index>& classes, const std::vector<int>& widths, bool stacked) {
  std::vector<Columns> columns;
  for (const auto& recording : recordings) columns.push_back(columnsOf(recording.second));
  std::vector<PrecisionLoss> losses;
  std::size_t frames = 0;
  std::size_t right = 0;
  read(core, [&](MultiLayerNNModel& model) {
    const CollectedMessages said;
    PrecisionSweep found(model);
    const Watch watch = interruptedBySignals({&core});
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const RecordingInputs inputs =
          inputsOf(model, recordings[i].first, columns[i].rows(), stacked);
      const std::optional<Index> known =
          classes[i] < 0 ? std::nullopt : std::optional<Index>(classes[i]);
      if (!found.addRecording(columns[i], inputs, known, watch)) refuse(said.messages());
    }
    for (const int bits : widths) losses.push_back(found.measure(bits, watch));
    frames = found.frames();
    right = found.rightRecordings();
  });
  using namespace py::literals;
  return py::dict(
      "recordings"_a = recordings.size(), "frames"_a = frames, "right_recordings"_a = right,
      "losses"_a = listFrom(losses, [](const PrecisionLoss& loss) { return dictOf(loss); }));
}

// --- Proofs of quantisation ---

// What to find out, and by what.
struct ProofOptions {
  RowQuantization quantization;
  std::optional<Columns> corrections;
  double keep;
  bool stacked;
};

py::dict dictOf(const QuantizationFindings& found, const DecisionLoss& loss) {
  using namespace py::literals;
  py::dict dict("same_best_class"_a = loss.sameBestClass,
                "same_best_class_share"_a = found.sameBestClassShare(loss),
                "right_recordings"_a = py::none(), "accuracy"_a = py::none());
  if (found.rightRecordings) {
    dict["right_recordings"] = loss.rightRecordings;
    dict["accuracy"] = found.accuracy(loss.rightRecordings);
  }
  return dict;
}

py::dict dictOf(const QuantizationFindings& found, const QuantizationLoss& loss) {
  using namespace py::literals;
  return py::dict("bits"_a = loss.bits, "keeps"_a = found.keeps(loss),
                  "image_bytes"_a = loss.imageBytes, "floats"_a = dictOf(found, loss.floats),
                  "integers"_a = dictOf(found, loss.integers),
                  "stages"_a = listFrom(loss.stages, [](const StageLoss& stage) {
                    return py::dict("stage"_a = stage.stage, "values"_a = stage.values,
                                    "largest"_a = stage.largest, "mean"_a = stage.mean);
                  }));
}

py::dict dictOf(const QuantizationFindings& found) {
  using namespace py::literals;
  py::dict dict("recordings"_a = found.recordings, "known_recordings"_a = found.knownRecordings,
                "frames"_a = found.frames, "keep"_a = found.keep,
                "right_recordings"_a = found.rightRecordings, "accuracy"_a = py::none(),
                "image_bytes"_a = found.imageBytes, "smallest_width"_a = found.smallestWidth(),
                "losses"_a = listFrom(found.losses, [&found](const QuantizationLoss& loss) {
                  return dictOf(found, loss);
                }));
  if (found.rightRecordings) dict["accuracy"] = found.accuracy(*found.rightRecordings);
  return dict;
}

// Measures each width. Returns why that cannot be done; "" where it is.
std::string measure(QuantizationProof& proof, const ProofOptions& options,
                    const std::vector<int>& widths, const Watch& watch) {
  const Eigen::MatrixXf none;
  const Eigen::Ref<const Eigen::MatrixXf> corrections =
      options.corrections ? Eigen::Ref<const Eigen::MatrixXf>(*options.corrections)
                          : Eigen::Ref<const Eigen::MatrixXf>(none);
  RowQuantization quantization = options.quantization;
  for (const int bits : widths) {
    quantization.bits = bits;
    const CollectedMessages said;
    std::string whyNot;
    if (proof.measure(quantization, corrections, whyNot, watch)) continue;
    return said.messages().empty() ? whyNot : said.messages().back().text;
  }
  return "";
}

// `classes` are those of sweep(). Returns what was found, and why that cannot be all; "" where it
// is.
std::pair<py::dict, py::bytes> proveQuantization(Core& core,
                                                 const std::vector<Recording>& recordings,
                                                 const std::vector<Index>& classes,
                                                 const std::vector<int>& widths,
                                                 const ProofOptions& options) {
  std::vector<Columns> columns;
  for (const auto& recording : recordings) columns.push_back(columnsOf(recording.second));
  std::string refusal;
  const QuantizationFindings found = read(core, [&](const MultiLayerNNModel& model) {
    QuantizationProof proof(model, options.keep);
    const Watch watch = interruptedBySignals({&core});
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const std::string& name = recordings[i].first;
      const RecordingInputs inputs = inputsOf(model, name, columns[i].rows(), options.stacked);
      const auto known = classes[i] < 0 ? std::nullopt : std::optional<Index>(classes[i]);
      const CollectedMessages said;
      std::string whyNot;
      if (!proof.addRecording(name, columns[i], inputs, known, whyNot, watch)) {
        throw py::value_error(said.messages().empty() ? whyNot : said.messages().back().text);
      }
    }
    refusal = measure(proof, options, widths, watch);
    return proof.found();
  });
  return {dictOf(found), bytesOf(refusal)};
}

// --- Traces ---

py::dict dictOf(const StageComparison::Side& side) {
  using namespace py::literals;
  return py::dict("is_present"_a = side.isPresent, "frames"_a = side.frames,
                  "values"_a = side.values, "value_at_largest"_a = side.valueAtLargest);
}

using Stages = std::vector<std::pair<std::string, Frames>>;

Trace traceOf(const std::vector<std::pair<std::string, Columns>>& stages) {
  Trace made;
  for (const auto& stage : stages) made.stages.push_back(stage.first);
  made.values = [&stages](const std::string& name) -> Eigen::MatrixXf {
    const auto found = std::find_if(stages.begin(), stages.end(),
                                    [&name](const auto& stage) { return stage.first == name; });
    return found->second;
  };
  return made;
}

// In the order in which stages are computed.
std::vector<std::pair<std::string, Columns>> inOrder(Stages stages) {
  for (const auto& stage : stages) {
    if (!isStageName(stage.first))
      throw py::value_error("no stage is called '" + stage.first + "'");
  }
  std::sort(stages.begin(), stages.end(),
            [](const auto& a, const auto& b) { return comesBefore(a.first, b.first); });
  std::vector<std::pair<std::string, Columns>> columns;
  for (const auto& [name, frames] : stages) columns.emplace_back(name, columnsOf(frames));
  return columns;
}

py::list traceDifferences(const Stages& a, const Stages& b, bool commonOnly, double tolerance) {
  const auto columnsA = inOrder(a);
  const auto columnsB = inOrder(b);
  const std::vector<StageComparison> found = [&] {
    const py::gil_scoped_release othersRun;
    return compareTraces(traceOf(columnsA), traceOf(columnsB), commonOnly,
                         interruptedBySignals({}));
  }();
  return listFrom(found, [tolerance](const StageComparison& stage) {
    using namespace py::literals;
    return py::dict("stage"_a = stage.stage, "a"_a = dictOf(stage.a), "b"_a = dictOf(stage.b),
                    "is_beyond"_a = stage.isBeyond(tolerance),
                    "difference"_a = dictOf(stage.difference));
  });
}

// --- Means ---

// REQUIRES: as many weights as models, and one at least; all are finite and above 0.
std::shared_ptr<Core> average(const std::vector<std::shared_ptr<Core>>& models,
                              const std::vector<double>& weights) {
  const std::vector<float> shares = sharesOf(weights);
  ModelAverage mean;
  for (std::size_t i = 0; i < models.size(); ++i) {
    read(*models[i], [&](const MultiLayerNNModel& model) {
      const std::string why = i == 0 ? std::string() : whyNoMean(mean.first(), model);
      if (!why.empty()) throw py::value_error("model " + std::to_string(i + 1) + ": " + why);
      const CollectedMessages silence;
      const Watch watch = interruptedBySignals({models[i].get()});
      mean.add(copyOf(model, watch), shares[i], watch);
    });
  }
  auto made = std::make_shared<Core>();
  made->model = mean.take();
  return made;
}

}  // namespace

void bindAnalysis(py::module_& module) {
  module.def("check", &check);
  module.def("diagnose", &diagnosis);
  module.def("digest", &digest);
  module.def("digest_changes", &digestChanges);
  module.attr("DIGEST_VERSION") = kDigestVersion;
  module.def("budget", &budget);
  module.def("trace", &trace);
  module.def("statement_differences", &differencesInStatements);
  module.def("number_differences", &differencesInNumbers);
  module.def("quantization", &quantization);
  module.def("behaviour_differences", &differencesInBehaviour);
  module.def("sweep", &sweep);
  module.attr("ROW_BITS") = py::make_tuple(RowQuantization::kMinBits, RowQuantization::kMaxBits);
  module.def(
      "prove_quantization",
      [](Core& core, const std::vector<Recording>& recordings, const std::vector<Index>& classes,
         const std::vector<int>& widths, bool leastSquares, double largestError,
         const std::optional<Frames>& corrections, double keep, bool stacked) {
        ProofOptions options{{}, std::nullopt, keep, stacked};
        if (leastSquares) options.quantization.scale = RowScale::kLeastSquares;
        options.quantization.largestError = largestError;
        if (corrections) options.corrections.emplace(columnsOf(*corrections));
        return proveQuantization(core, recordings, classes, widths, options);
      });
  module.def("trace_differences", &traceDifferences);
  module.def("average", &average);
}

}  // namespace mlnn::python
