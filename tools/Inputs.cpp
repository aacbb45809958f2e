#include "tools/Inputs.h"

#include <algorithm>
#include <utility>

#include "tools/Failure.h"

namespace mlnn {
namespace {

using Eigen::Index;
using Block = Eigen::Ref<const Eigen::MatrixXf>;

constexpr Index kBlock = 256;

int64_t windowOf(const DbnFeatureDescription& desc) {
  return int64_t{desc.winSizeLeft} + 1 + desc.winSizeRight;
}

// Whether single frames of that width make input vectors of the model's width.
bool makesInputs(const MultiLayerNNModel& model, int width) {
  const DbnFeatureDescription& desc = model.featureDesc;
  const bool possible = width > 0 && desc.winSizeLeft >= 0 && desc.winSizeRight >= 0;
  return possible && width * windowOf(desc) == model.numInputs();
}

std::string expectedWidths(const MultiLayerNNModel& model) {
  const std::string inputs = std::to_string(model.numInputs()) + " (input vectors)";
  const int width = frameWidth(model);
  if (width == 0) {
    return inputs + "; the model does not tell the width of single frames";
  }
  const std::string single = std::to_string(width) + " (single frames)";
  if (makesInputs(model, width)) return single + " or " + inputs;
  return inputs + "; " + single + " in a window of " + std::to_string(windowOf(model.featureDesc)) +
         " do not make as many";
}

ContextWindow makeWindow(const MultiLayerNNModel& model, int width, const std::string& what) {
  std::string whyNot;
  std::optional<ContextWindow> window =
      ContextWindow::create(model.featureDesc, model.deltasNorm, width, whyNot);
  if (!window) throw Failure(what + " cannot be stacked: " + whyNot);
  if (model.featureDesc.useLineKernels) {
    printWarning("the feature description asks for line kernels, which are not applied to " + what);
  }
  return *std::move(window);
}

}  // namespace

int frameWidth(const MultiLayerNNModel& model) {
  if (model.featureDesc.numBands != 0) return model.featureDesc.frameLen();
  constexpr int kUnstated = static_cast<int>(MelDeltasNorm::kLength);
  return makesInputs(model, kUnstated) ? kUnstated : 0;
}

Inputs Inputs::forFrames(const MultiLayerNNModel& model, Index width, bool stacked,
                         const std::string& what) {
  const int single = frameWidth(model);
  // The window is as long as the model's inputs, so a file cannot ask for more memory with it.
  if (!stacked && width == single && makesInputs(model, single)) {
    return Inputs(makeWindow(model, single, what));
  }
  if (width == model.numInputs()) return Inputs(std::nullopt);
  const std::string expected =
      stacked ? std::to_string(model.numInputs()) + " (input vectors)" : expectedWidths(model);
  throw Failure(what + " has " + std::to_string(width) + " values in a frame; expected " +
                expected);
}

void Inputs::forEachBlock(const Eigen::MatrixXf& frames,
                          const std::function<void(const Block&)>& use) const {
  if (areStacked()) {
    for (Index first = 0; first < frames.cols(); first += kBlock) {
      use(frames.middleCols(first, std::min(kBlock, frames.cols() - first)));
    }
    return;
  }
  ContextWindow window = *window_;
  Eigen::MatrixXf block(window.inputLen(), std::min(kBlock, frames.cols()));
  Index filled = 0;
  const auto advance = [&] {
    if (++filled < block.cols()) return;
    use(block);
    filled = 0;
  };
  for (Index f = 0; f < frames.cols(); ++f) {
    if (window.push(frames.col(f).data(), block.col(filled).data())) advance();
  }
  while (window.finish(block.col(filled).data())) advance();
  if (filled > 0) use(block.leftCols(filled));
}

}  // namespace mlnn
