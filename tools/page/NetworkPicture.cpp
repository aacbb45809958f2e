#include "tools/page/NetworkPicture.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "model/ClassLabels.h"
#include "text/Numbers.h"
#include "tools/page/PageParts.h"

namespace mlnn {
namespace {

// All lengths are in the picture's units, pixels at its own size.
constexpr double kWidth = 720;
constexpr double kMiddle = 150;  // of the shapes
constexpr double kNarrowest = 20;
constexpr double kWidest = 270;
constexpr double kHeight = 44;  // of a shape
constexpr double kGap = 20;     // to the next one
constexpr double kText = 320;   // where words begin
constexpr std::size_t kMostLayers = 24;
constexpr std::int64_t kMostFrames = 31;  // of a window, which are drawn

std::string length(double value) { return fixedNumber(value, 1); }

std::string point(double x, double y) { return length(x) + "," + length(y); }

// What a frame is made of, in words.
std::string frameWords(const DbnFeatureDescription& desc) {
  if (desc.numBands <= 0) return "of how many values is not said";
  return counted(static_cast<std::size_t>(desc.numBands), "mel band") +
         (desc.useDeltas ? ", their deltas and delta-deltas" : "") +
         (desc.useLineKernels ? ", line kernels of width " + std::to_string(desc.lineKernelWidth)
                              : "");
}

std::string normalisationWords(const MelDeltasNorm& norm) {
  if (norm.minvals.size() == 0 && norm.normvals.size() == 0)
    return "none: frames go in as they are";
  const bool isIdle = (norm.minvals.array() == 0).all() && (norm.normvals.array() == 1).all();
  return isIdle ? "changes nothing" : "(x - minvals) * normvals, value by value";
}

std::string windowWords(const DbnFeatureDescription& desc) {
  return std::to_string(desc.winSizeLeft) + " before, the frame itself, " +
         std::to_string(desc.winSizeRight) + " after";
}

std::string classWords(const MultiLayerNNModel& model) {
  constexpr std::size_t kShown = 12;
  constexpr std::size_t kBytesShown = 60;
  const auto outputs = static_cast<std::size_t>(std::max(model.numOutputs(), 0));
  if (outputs > kShown) return "";
  std::string words;
  for (const std::string& label : classLabels(model)) words += (words.empty() ? "" : ", ") + label;
  return words.size() > kBytesShown ? "" : words;
}

class Picture {
 public:
  Picture(Markup& page, const MultiLayerNNModel& model) : page_(page), model_(model) {
    const DbnFeatureDescription& desc = model.featureDesc;
    largest_ = static_cast<double>(std::max(model.numInputs(), desc.frameLen()));
    for (const NNLayer* layer : model.layers) {
      largest_ = std::max(largest_, static_cast<double>(layer->weights.rows()));
    }
  }

  void write() {
    const double height = heightOfAll();
    const auto svg =
        page_.open("svg", {{"xmlns", "http://www.w3.org/2000/svg"},
                           {"class", "network"},
                           {"width", length(kWidth)},
                           {"height", length(height)},
                           {"viewBox", "0 0 " + length(kWidth) + " " + length(height)},
                           {"role", "img"},
                           {"aria-label",
                            "The network from its frames to its outputs; the table of the "
                            "layers says the same in numbers"}});
    writeInputs();
    writeLayers();
    writeOutputs();
  }

 private:
  std::size_t drawnLayers() const { return std::min(model_.layers.size(), kMostLayers + 1); }

  double heightOfAll() const {
    const std::size_t steps = 4 + drawnLayers() + (model_.useSoftmax ? 1 : 0);
    return static_cast<double>(steps) * (kHeight + kGap) + 8;
  }

  // How wide a number of values is drawn: each doubling adds as much.
  double widthOf(double values) const {
    const double share = std::log2(1 + std::max(values, 0.0)) / std::log2(2 + largest_);
    return kNarrowest + (kWidest - kNarrowest) * share;
  }

  void words(const std::string& title, const std::string& text) {
    page_.element("text", {{"class", "title"}, {"x", length(kText)}, {"y", length(y_ + 18)}},
                  title);
    page_.element("text", {{"class", "muted"}, {"x", length(kText)}, {"y", length(y_ + 35)}}, text);
  }

  void arrow() {
    const double top = y_ - kGap + 3;
    const double bottom = y_ - 3;
    page_.empty("path", {{"class", "arrow"},
                         {"d", "M" + point(kMiddle, top) + " L" + point(kMiddle, bottom) + " M" +
                                   point(kMiddle - 4, bottom - 5) + " L" + point(kMiddle, bottom) +
                                   " L" + point(kMiddle + 4, bottom - 5)}});
  }

  // A shape that is as wide as its values at both ends, and the arrow to the next.
  void trapezoid(double above, double below) {
    const double top = widthOf(above) / 2;
    const double bottom = widthOf(below) / 2;
    page_.empty("polygon", {{"class", "shape"},
                            {"points", point(kMiddle - top, y_) + " " + point(kMiddle + top, y_) +
                                           " " + point(kMiddle + bottom, y_ + kHeight) + " " +
                                           point(kMiddle - bottom, y_ + kHeight)}});
  }

  void next(bool isLast = false) {
    y_ += kHeight + kGap;
    if (!isLast) arrow();
  }

  void box(double x, double y, double width, double height) {
    page_.empty("rect", {{"class", "shape"},
                         {"x", length(x)},
                         {"y", length(y)},
                         {"width", length(width)},
                         {"height", length(height)}});
  }

  void writeInputs() {
    const DbnFeatureDescription& desc = model_.featureDesc;
    const double frame = widthOf(desc.frameLen());
    box(kMiddle - frame / 2, y_ + 12, frame, kHeight - 24);
    words("frame of " + (desc.frameLen() > 0
                             ? counted(static_cast<std::size_t>(desc.frameLen()), "value")
                             : std::string("features")),
          frameWords(desc));
    next();
    box(kMiddle - frame / 2, y_ + 12, frame, kHeight - 24);
    words("normalisation", normalisationWords(model_.deltasNorm));
    next();
    writeWindow();
    words("context window", windowWords(desc));
    next();
  }

  // A column for each frame; the one that the outputs are for stands out.
  void writeWindow() {
    const DbnFeatureDescription& desc = model_.featureDesc;
    const std::int64_t frames = std::int64_t{desc.winSizeLeft} + 1 + desc.winSizeRight;
    if (desc.winSizeLeft < 0 || desc.winSizeRight < 0 || frames > kMostFrames) {
      box(kMiddle - kWidest / 2, y_ + 6, kWidest, kHeight - 12);
      return;
    }
    const double step = std::min(kWidest / static_cast<double>(frames), 18.0);
    const double left = kMiddle - step * static_cast<double>(frames) / 2;
    for (std::int64_t i = 0; i < frames; ++i) {
      const bool isCurrent = i == desc.winSizeLeft;
      const double x = left + step * static_cast<double>(i);
      box(x + 1, y_ + (isCurrent ? 0 : 8), step - 2, kHeight - (isCurrent ? 0 : 16));
    }
  }

  void writeLayers() {
    const std::size_t count = model_.layers.size();
    if (count <= kMostLayers) {
      for (std::size_t i = 0; i < count; ++i) writeLayer(i);
      return;
    }
    for (std::size_t i = 0; i < kMostLayers / 2; ++i) writeLayer(i);
    words("and " + counted(count - kMostLayers, "layer") + " more", "not drawn");
    next();
    for (std::size_t i = count - kMostLayers / 2; i < count; ++i) writeLayer(i);
  }

  void writeLayer(std::size_t index) {
    const NNLayer& layer = *model_.layers[index];
    trapezoid(static_cast<double>(layer.weights.cols()), static_cast<double>(layer.weights.rows()));
    words("layer " + std::to_string(index + 1) + ": " +
              grouped(static_cast<std::size_t>(layer.weights.cols())) + " to " +
              grouped(static_cast<std::size_t>(layer.weights.rows())) + ", " +
              ActFn::actFnToString(layer.actFn),
          (layer.isBatchNorm ? "batch norm, " : "plain, ") +
              grouped(static_cast<std::size_t>(layer.weights.size())) + " weights");
    next();
  }

  void writeOutputs() {
    const double width = widthOf(model_.numOutputs());
    if (model_.useSoftmax) {
      box(kMiddle - width / 2, y_ + 12, width, kHeight - 24);
      words("softmax", "over the outputs, which become posteriors");
      next();
    }
    box(kMiddle - width / 2, y_ + 12, width, kHeight - 24);
    words(counted(static_cast<std::size_t>(std::max(model_.numOutputs(), 0)), "output"),
          classWords(model_));
    next(true);
  }

  Markup& page_;
  const MultiLayerNNModel& model_;
  double largest_ = 0;
  double y_ = 4;  // the upper edge of what is drawn next
};

}  // namespace

void writeNetwork(Markup& page, const MultiLayerNNModel& model) { Picture(page, model).write(); }

}  // namespace mlnn
