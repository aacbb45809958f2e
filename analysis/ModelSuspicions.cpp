#include "analysis/ModelSuspicions.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <string>
#include <utility>

#include "layers/FilledColumns.h"
#include "layers/LayerArrays.h"
#include "layers/RowCodes.h"
#include "model/LayerStack.h"
#include "text/Escape.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr Index kColumnsBetweenCalls = 64;

std::size_t sizeOf(Index index) { return static_cast<std::size_t>(index); }

std::string text(Index number) { return std::to_string(number); }

std::string numbered(std::size_t layer) { return "layer " + std::to_string(layer); }

// "1, 2 and 3", at most eight of them.
std::string list(const std::vector<Index>& numbers) {
  constexpr std::size_t kShown = 8;
  const std::size_t shown = numbers.size() <= kShown ? numbers.size() : kShown - 1;
  std::string out;
  for (std::size_t i = 0; i < shown; ++i) {
    const bool isLast = i + 1 == numbers.size();
    out += (i == 0 ? "" : isLast ? " and " : ", ") + text(numbers[i]);
  }
  if (shown == numbers.size()) return out;
  return out + " and " + std::to_string(numbers.size() - shown) + " more";
}

// How often each size of a code occurs in a row.
using CodeSizes = std::array<std::size_t, largestRowCode(8) + 1>;

// Counts them in some neighbouring rows together, column by column as the weights lie.
// REQUIRES: the scales are those of the weights.
std::vector<CodeSizes> codeSizes(const Eigen::MatrixXf& weights, const RowScales& scales,
                                 Index first, Index rows) {
  std::vector<CodeSizes> sizes(sizeOf(rows), CodeSizes{});
  for (Index c = 0; c < weights.cols(); ++c) {
    for (Index r = 0; r < rows; ++r) {
      const float scale = scales.values[sizeOf(first + r)];
      const float size = scale == 0 ? 0 : std::fabs(weights(first + r, c)) / scale;
      ++sizes[sizeOf(r)][static_cast<std::size_t>(size)];
    }
  }
  return sizes;
}

// Whether so many of a row's codes have the largest size that they must have been cut there. Of few
// sizes, or of few weights, that cannot be told.
bool isClipped(const CodeSizes& sizes, Index inputs) {
  constexpr std::size_t kFewestSizes = 3;
  constexpr std::size_t kFewestWeights = 16;
  std::size_t largest = sizes.size() - 1;
  while (largest > 0 && sizes[largest] == 0) --largest;
  const std::size_t notZero = sizeOf(inputs) - sizes[0];
  return largest >= kFewestSizes && notZero >= kFewestWeights && 2 * sizes[largest] >= notZero;
}

class Finder {
 public:
  // `file` is null for a model in memory.
  Finder(const ModelFile* file, const MultiLayerNNModel& model, const Watch& watch)
      : file_(file), model_(model), watch_(watch) {}

  std::vector<Suspicion> run() {
    features();
    normalisation();
    stack();
    for (number_ = 1; number_ <= model_.layers.size(); ++number_) {
      layer(layerOrEmpty(model_.layers[number_ - 1]));
      tell(watch_, 1);
    }
    number_ = 0;
    activations();
    softmax();
    return std::move(found_);
  }

 private:
  Suspicion& add(const char* kind, const std::string& text);

  void features();
  void featureLength();
  void unknownBands();
  void normalisation();
  void normvals();
  void stack();
  void layer(const NNLayer& layer);
  void lengths(const NNLayer& layer);
  void values(const NNLayer& layer);
  void notFinite(const std::string& array, const Eigen::Ref<const Eigen::MatrixXf>& values);
  void deadUnits(const NNLayer& layer);
  void clippedUnits(const NNLayer& layer);
  void batchNorm(const NNLayer& layer);
  void activations();
  void unrecordedActivations(std::size_t number);
  void softmax();

  const ModelFile* file_;
  const MultiLayerNNModel& model_;
  const Watch& watch_;
  std::size_t number_ = 0;  // of the layer that is looked at, from 1
  std::vector<Suspicion> found_;
};

// Adds a suspicion about the layer that is looked at, or about the whole model.
Suspicion& Finder::add(const char* kind, const std::string& text) {
  Suspicion suspicion;
  suspicion.kind = kind;
  suspicion.text = (number_ == 0 ? "" : numbered(number_) + ": ") + text;
  suspicion.layer = number_;
  found_.push_back(suspicion);
  return found_.back();
}

// --- What goes into the model ---

void Finder::features() {
  const DbnFeatureDescription& desc = model_.featureDesc;
  if (desc.featType != DbnFeatureDescription::MelDeltas) {
    add("feature_type_unknown", "the feature description is of type " +
                                    std::to_string(int{desc.featType}) + ", which is unknown");
  }
  if (desc.winSizeLeft < 0 || desc.winSizeRight < 0) {
    add("window_negative", "the window has " + std::to_string(desc.winSizeLeft) +
                               " frames to the left and " + std::to_string(desc.winSizeRight) +
                               " to the right");
  }
  if (desc.useLineKernels && desc.lineKernelWidth <= 0) {
    add("line_kernel_width",
        "line kernels are on, with a width of " + std::to_string(desc.lineKernelWidth));
  }
  featureLength();
}

void Finder::featureLength() {
  const DbnFeatureDescription& desc = model_.featureDesc;
  const int length = desc.featLen();
  if (length != 0 && length != model_.numInputs()) {
    add("feature_length", "the feature description implies " + std::to_string(length) +
                              " inputs, the model takes " + std::to_string(model_.numInputs()));
  } else if (desc.numBands == 0) {
    unknownBands();
  } else if (length == 0) {
    std::string said;
    desc.serialize(said);
    add("feature_length", "the feature description implies no possible length: " + said);
  }
  const Index normalised = model_.deltasNorm.normvals.size();
  if (normalised != 0 && desc.frameLen() > normalised) {
    add("frame_length", "a frame has " + std::to_string(desc.frameLen()) +
                            " values, the normalisation " + text(normalised));
  }
}

void Finder::unknownBands() {
  const DbnFeatureDescription& desc = model_.featureDesc;
  const int64_t frames = int64_t{desc.winSizeLeft} + 1 + desc.winSizeRight;
  const int inputs = model_.numInputs();
  std::string said = "the feature description states no number of bands";
  if (desc.winSizeLeft >= 0 && desc.winSizeRight >= 0) {
    said +=
        inputs % frames == 0
            ? "; the inputs have room for frames of " + std::to_string(inputs / frames) + " values"
            : ", and its " + std::to_string(frames) + " frames do not share the " +
                  std::to_string(inputs) + " inputs evenly";
  }
  add("bands_unknown", said);
}

void Finder::normalisation() {
  const MelDeltasNorm& norm = model_.deltasNorm;
  if (norm.minvals.size() == 0 && norm.normvals.size() == 0) {
    add("normalisation_absent", "there is no normalisation: frames go in as they are");
    return;
  }
  for (const auto& [name, values] :
       {std::pair("minvals", &norm.minvals), std::pair("normvals", &norm.normvals)}) {
    if (values->size() != MelDeltasNorm::kLength) {
      add("normalisation_length", "the normalisation has " + text(values->size()) + " " + name +
                                      " instead of " + text(MelDeltasNorm::kLength));
    }
    notFinite(name, *values);
  }
  normvals();
}

void Finder::normvals() {
  const Eigen::VectorXf& values = model_.deltasNorm.normvals;
  if (values.size() > 0 && (values.array() == 1).all()) {
    const bool isIdle = (model_.deltasNorm.minvals.array() == 0).all();
    add("normalisation_divides_nothing",
        std::string("the normalisation divides nothing: all normvals are 1") +
            (isIdle ? ", and all minvals 0" : ""));
  }
  const Index zeros = (values.array() == 0).count();
  if (zeros == 0) return;
  const Index first = std::find(values.data(), values.data() + values.size(), 0.0f) - values.data();
  Suspicion& suspicion =
      add("normvals_zero",
          counted(sizeOf(zeros), "normval") + " of " + text(values.size()) +
              (zeros == 1 ? " is" : " are") +
              " 0, so that these values of a frame are always 0; the first is number " +
              text(first + 1));
  suspicion.array = "normvals";
  suspicion.row = sizeOf(first) + 1;
  suspicion.count = sizeOf(zeros);
}

// --- The layers ---

void Finder::stack() {
  if (model_.layers.empty()) add("no_layers", "the model has no layers");
  for (std::size_t i = 1; i < model_.layers.size(); ++i) {
    const Index outputs = layerOrEmpty(model_.layers[i - 1]).weights.rows();
    const Index inputs = layerOrEmpty(model_.layers[i]).weights.cols();
    if (inputs == outputs) continue;
    number_ = i + 1;
    add("layers_do_not_fit", "takes " + text(inputs) + " inputs, but " + numbered(i) + " has " +
                                 text(outputs) + " outputs");
  }
  number_ = 0;
}

void Finder::layer(const NNLayer& layer) {
  if (layer.weights.size() == 0) {
    add("layer_empty",
        "has no weights (" + text(layer.weights.rows()) + " x " + text(layer.weights.cols()) + ")");
  }
  lengths(layer);
  values(layer);
  deadUnits(layer);
  clippedUnits(layer);
  if (layer.isBatchNorm) batchNorm(layer);
}

// An array that the kind of layer uses has a value for each output; others may be empty.
void Finder::lengths(const NNLayer& layer) {
  const Index rows = layer.weights.rows();
  for (const LayerVector& vector : kLayerVectors) {
    const Index size = vector.of(layer).size();
    if (size == rows || (!vector.isUsedBy(layer) && size == 0)) continue;
    add("array_length", std::string(vector.name) + " has " + text(size) + " values for " +
                            counted(sizeOf(rows), "output"))
        .array = vector.name;
  }
}

void Finder::values(const NNLayer& layer) {
  forEachArray(layer,
               [this](const char* name, const auto& values) { this->notFinite(name, values); });
}

void Finder::notFinite(const std::string& array, const Eigen::Ref<const Eigen::MatrixXf>& values) {
  std::size_t count = 0;
  Index row = values.rows();  // of the first one in the order in which a text has them
  Index column = 0;
  for (Index c = 0; c < filledColumns(values); ++c) {
    if (c % kColumnsBetweenCalls == 0) tell(watch_, 0);
    for (Index r = 0; r < values.rows(); ++r) {
      if (std::isfinite(values(r, c))) continue;
      ++count;
      if (r >= row) continue;
      row = r;
      column = c;
    }
  }
  if (count == 0) return;
  const bool isMatrix = array == kWeightsName;
  const std::string place = isMatrix ? "row " + text(row + 1) + ", column " + text(column + 1)
                                     : "number " + text(row + 1);
  Suspicion& suspicion =
      add("values_not_finite",
          array + " holds " + counted(count, "value") + (count == 1 ? " that is" : " that are") +
              " not finite, the first at " + place + " (" +
              generalNumber(static_cast<double>(values(row, column)), kExactDigits) + ")");
  suspicion.array = array;
  suspicion.row = sizeOf(row) + 1;
  suspicion.column = isMatrix ? sizeOf(column) + 1 : 0;
  suspicion.count = count;
}

// A unit without weights gives the same whatever comes in.
void Finder::deadUnits(const NNLayer& layer) {
  if (layer.weights.cols() == 0) return;
  std::vector<Index> units(sizeOf(layer.weights.rows()));  // those without weights so far
  std::iota(units.begin(), units.end(), Index{1});
  for (Index c = 0; c < layer.weights.cols() && !units.empty(); ++c) {
    if (c % kColumnsBetweenCalls == 0) tell(watch_, 0);
    const auto fires = [&layer, c](Index unit) { return layer.weights(unit - 1, c) != 0; };
    units.erase(std::remove_if(units.begin(), units.end(), fires), units.end());
  }
  if (units.empty()) return;
  Suspicion& suspicion =
      add("units_without_weights", text(static_cast<Index>(units.size())) + " of " +
                                       counted(sizeOf(layer.weights.rows()), "unit") +
                                       " can never fire, all weights are 0: " + list(units));
  suspicion.array = kWeightsName;
  suspicion.row = sizeOf(units.front());
  suspicion.count = units.size();
}

// Of weights that were quantised by rows, those whose scale was too small for them.
void Finder::clippedUnits(const NNLayer& layer) {
  constexpr Index kRows = 16;  // at a time, so that each column is read a cache line at once
  const Eigen::MatrixXf& weights = layer.weights;
  const auto scales =
      findRowScales(weights.data(), sizeOf(weights.rows()), sizeOf(weights.cols()), watch_);
  if (!scales) return;
  std::vector<Index> units;
  for (Index first = 0; first < weights.rows(); first += kRows) {
    tell(watch_, 0);
    Index unit = first;
    const Index rows = std::min(kRows, weights.rows() - first);
    for (const CodeSizes& sizes : codeSizes(weights, *scales, first, rows)) {
      ++unit;
      if (isClipped(sizes, weights.cols())) units.push_back(unit);
    }
  }
  if (units.empty()) return;
  Suspicion& suspicion =
      add("units_clipped", text(static_cast<Index>(units.size())) + " of " +
                               counted(sizeOf(weights.rows()), "unit") +
                               " have half of their weights or more at the largest value, as a "
                               "scale that is too small leaves them: " +
                               list(units));
  suspicion.array = kWeightsName;
  suspicion.row = sizeOf(units.front());
  suspicion.count = units.size();
}

void Finder::batchNorm(const NNLayer& layer) {
  const Eigen::VectorXf& gamma = layer.gamma_inf;
  if (gamma.size() == 0) return;
  std::vector<Index> zeros;
  for (Index i = 0; i < gamma.size(); ++i) {
    if (gamma[i] == 0) zeros.push_back(i + 1);
  }
  if (zeros.size() == sizeOf(gamma.size())) {
    add("batch_norm_not_filled",
        "the inference values of the batch normalisation were never filled: gamma_inf is all 0");
    return;
  }
  if (gamma.sum() == 0) {
    add("batch_norm_sums_to_zero",
        "gamma_inf sums to 0, so that the layer cannot be folded into a plain one");
  }
  if (zeros.empty()) return;
  Suspicion& suspicion =
      add("units_scaled_to_zero", text(static_cast<Index>(zeros.size())) + " of " +
                                      counted(sizeOf(gamma.size()), "unit") +
                                      " can never fire, gamma_inf is 0: " + list(zeros));
  suspicion.array = "gamma_inf";
  suspicion.row = sizeOf(zeros.front());
  suspicion.count = zeros.size();
}

// --- What comes out ---

void Finder::activations() {
  const auto isLinear = [](const NNLayer* layer) {
    return layerOrEmpty(layer).actFn == ActFn::linear;
  };
  const std::vector<NNLayer*> unrecorded =
      file_ == nullptr ? std::vector<NNLayer*>() : layersWithoutActivation(*file_);
  const auto linear = std::count_if(unrecorded.begin(), unrecorded.end(), isLinear);
  if (linear > 0) {
    unrecordedActivations(static_cast<std::size_t>(linear));
    return;
  }
  const std::vector<NNLayer*>& layers = model_.layers;
  if (layers.size() > 1 && std::all_of(layers.begin(), layers.end() - 1, isLinear)) {
    add("hidden_layers_linear",
        "all hidden layers are linear, so that the model computes no more than one layer could");
  }
}

// The property would have set them, were it there and right.
void Finder::unrecordedActivations(std::size_t number) {
  const std::string property = model_.getProp(kHiddenActFnProperty);
  ActFn::ActFn actFn;
  if (ActFn::stringToActFn(property, actFn) == 0) return;
  add("activation_not_recorded",
      "the file does not record the activation of " + counted(number, "hidden layer") + " and " +
          (property.empty() ? std::string("has no property ") + kHiddenActFnProperty
                            : std::string("its property ") + kHiddenActFnProperty + " of " +
                                  inQuotes(property) + " is no activation") +
          "; they are taken as linear");
}

void Finder::softmax() {
  if (!model_.useSoftmax || model_.layers.empty()) return;
  const std::string unsaid = file_ != nullptr && file_->format == ModelFormat::kBinary
                                 ? " (an image does not record the softmax; it is taken as on)"
                                 : "";
  const NNLayer& last = layerOrEmpty(model_.layers.back());
  number_ = model_.layers.size();
  if (last.actFn != ActFn::linear) {
    add("softmax_after_activation", "the output layer has the activation " +
                                        ActFn::actFnToString(last.actFn) +
                                        " under a softmax, which wants linear" + unsaid);
  }
  if (last.weights.rows() == 1) {
    add("softmax_of_one_output", "the only output is always 1, since a softmax is on" + unsaid);
  }
}

}  // namespace

std::vector<Suspicion> suspicionsOf(const ModelFile& file, const Watch& watch) {
  return Finder(&file, file.model, watch).run();
}

std::vector<Suspicion> suspicionsOf(const MultiLayerNNModel& model, const Watch& watch) {
  return Finder(nullptr, model, watch).run();
}

}  // namespace mlnn
