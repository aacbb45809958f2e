#include "inference/RecordingInputs.h"

#include <algorithm>
#include <utility>

#include "features/FrameWidth.h"
#include "model/StackOutputs.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

using Eigen::Index;
using Block = Eigen::Ref<const Eigen::MatrixXf>;

// How many input vectors are handed out at once: no more than these, and no more than make
// this many values, unless it is one.
constexpr Index kMaxBlock = 256;
constexpr Index kMaxBlockValues = Index{1} << 22;

Index blockLength(Index inputLen, Index frames) {
  const Index fitting = std::max<Index>(kMaxBlockValues / inputLen, 1);
  return std::min({kMaxBlock, fitting, frames});
}

// Whether single frames of that width make input vectors of the model's width.
bool makesInputs(const InputSide& network, int width) {
  return framesMakeInputs(network.featureDesc, width, network.numInputs);
}

int widthOfFrames(const InputSide& network) {
  return frameWidth(network.featureDesc, network.numInputs);
}

std::string expectedWidths(const InputSide& network) {
  const std::string inputs = std::to_string(network.numInputs) + " (input vectors)";
  const int width = widthOfFrames(network);
  if (width == 0) {
    return inputs + "; the model does not tell the width of single frames";
  }
  const std::string single = std::to_string(width) + " (single frames)";
  if (makesInputs(network, width)) return single + " or " + inputs;
  return inputs + "; " + single + " in a window of " +
         std::to_string(windowLength(network.featureDesc)) + " do not make as many";
}

}  // namespace

int frameWidth(const MultiLayerNNModel& model) { return widthOfFrames(InputSide::of(model)); }

InputSide InputSide::of(const MultiLayerNNModel& model) {
  return {model.featureDesc, model.deltasNorm, model.numInputs(), mlnn::hasOutputs(model.layers)};
}

std::optional<RecordingInputs> RecordingInputs::forFrames(const InputSide& network, Index width,
                                                          bool stacked, const std::string& what,
                                                          std::string& whyNot) {
  if (!network.hasOutputs) {
    whyNot = kNoOutputs;
    return std::nullopt;
  }
  const int single = widthOfFrames(network);
  // The window is as long as a row of weights, so a file cannot ask for more memory with it
  // than it fills itself.
  if (!stacked && width == single && makesInputs(network, single)) {
    auto window = ContextWindow::create(network.featureDesc, network.deltasNorm, single, whyNot);
    if (window) return RecordingInputs(std::move(window), network.featureDesc.useLineKernels);
    whyNot = what + " cannot be stacked: " + whyNot;
    return std::nullopt;
  }
  if (width == network.numInputs) return RecordingInputs(std::nullopt, false);
  const std::string expected =
      stacked ? std::to_string(network.numInputs) + " (input vectors)" : expectedWidths(network);
  whyNot = what + " has " + counted(static_cast<std::size_t>(width), "value") +
           " in a frame; expected " + expected;
  return std::nullopt;
}

void RecordingInputs::forEachBlock(const Eigen::Ref<const Eigen::MatrixXf>& frames,
                                   const std::function<void(const Block&)>& use) const {
  Blocks blocks(*this, frames);
  while (const std::optional<Block> block = blocks.next(blocks.maxLength())) use(*block);
}

RecordingInputs::Blocks::Blocks(const RecordingInputs& inputs,
                                const Eigen::Ref<const Eigen::MatrixXf>& frames)
    : frames_(frames), window_(inputs.window_) {
  if (!window_) return;
  const Index inputLen = window_->inputLen();
  block_.resize(inputLen, blockLength(inputLen, frames.cols()));
}

Index RecordingInputs::Blocks::maxLength() const { return window_ ? block_.cols() : kMaxBlock; }

std::optional<Block> RecordingInputs::Blocks::next(Index most) {
  const Index length = std::min(most, maxLength());
  if (!window_) {
    const Index first = done_;
    done_ = std::min(first + length, frames_.cols());
    if (first == done_) return std::nullopt;
    return frames_.middleCols(first, done_ - first);
  }
  Index filled = 0;
  while (filled < length && nextVector(block_.col(filled).data())) ++filled;
  if (filled == 0) return std::nullopt;
  return block_.leftCols(filled);
}

bool RecordingInputs::Blocks::nextVector(float* vector) {
  while (done_ < frames_.cols()) {
    if (window_->push(frames_.col(done_++).data(), vector)) return true;
  }
  return window_->finish(vector);
}

RecordingInputs::Arriving::Arriving(const RecordingInputs& inputs)
    : window_(inputs.window_),
      maxLength_(window_ ? blockLength(window_->inputLen(), kMaxBlock) : kMaxBlock) {}

void RecordingInputs::Arriving::take(Eigen::MatrixXf frames) {
  frames_ = std::move(frames);
  done_ = 0;
}

std::optional<Block> RecordingInputs::Arriving::next(Index most) {
  const Index length = std::min(most, maxLength_);
  if (!window_) {
    const Index first = done_;
    done_ = std::min(first + length, frames_.cols());
    if (first == done_) return std::nullopt;
    return frames_.middleCols(first, done_ - first);
  }
  if (block_.size() == 0) block_.resize(window_->inputLen(), maxLength_);
  Index filled = 0;
  while (filled < length && nextVector(block_.col(filled).data())) ++filled;
  if (filled == 0) return std::nullopt;
  return block_.leftCols(filled);
}

bool RecordingInputs::Arriving::nextVector(float* vector) {
  while (done_ < frames_.cols()) {
    if (window_->push(frames_.col(done_++).data(), vector)) return true;
  }
  return isOver_ && window_->finish(vector);
}

}  // namespace mlnn
