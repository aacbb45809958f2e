#include "features/ContextWindow.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "features/EigenAssign.h"
#include "features/FrameRing.h"

namespace mlnn {
namespace {

using Eigen::Index;

// Whether the arrays leave every value as it is.
bool normalisesNothing(const MelDeltasNorm& norm) {
  return (norm.minvals.array() == 0).all() && (norm.normvals.array() == 1).all();
}

// The first `frameLen` values, or none where there is nothing to normalise.
Eigen::VectorXf firstValues(const Eigen::VectorXf& values, bool none, int frameLen) {
  return none ? Eigen::VectorXf() : Eigen::VectorXf(values.head(frameLen));
}

}  // namespace

std::optional<ContextWindow> ContextWindow::create(const DbnFeatureDescription& desc,
                                                   const MelDeltasNorm& norm, int frameLen,
                                                   std::string& whyNot) {
  if (frameLen <= 0) {
    whyNot = "a frame of " + std::to_string(frameLen) + " values is not possible";
    return std::nullopt;
  }
  if (desc.winSizeLeft < 0 || desc.winSizeRight < 0) {
    whyNot = "the window of " + std::to_string(desc.winSizeLeft) + " frames to the left and " +
             std::to_string(desc.winSizeRight) + " to the right is not possible";
    return std::nullopt;
  }
  const int64_t windows = int64_t{desc.winSizeLeft} + 1 + desc.winSizeRight;
  if (windows > std::numeric_limits<int>::max() / frameLen) {
    whyNot = std::to_string(windows) + " frames of " + std::to_string(frameLen) +
             " values are more than an input vector can hold";
    return std::nullopt;
  }
  const bool none = normalisesNothing(norm);
  const Index normLen = std::min(norm.minvals.size(), norm.normvals.size());
  if (!none && frameLen > normLen) {
    whyNot = "the normalisation has " + std::to_string(normLen) + " values, but a frame has " +
             std::to_string(frameLen);
    return std::nullopt;
  }
  return ContextWindow(desc.winSizeLeft, desc.winSizeRight, frameLen,
                       firstValues(norm.minvals, none, frameLen),
                       firstValues(norm.normvals, none, frameLen));
}

ContextWindow::ContextWindow(int left, int right, int frameLen, Eigen::VectorXf minvals,
                             Eigen::VectorXf normvals)
    : left_(left),
      right_(right),
      frameLen_(frameLen),
      inputLen_((left + 1 + right) * frameLen),
      minvals_(std::move(minvals)),
      normvals_(std::move(normvals)),
      ring_(frameLen, left + 1 + right) {}

void ContextWindow::normalise(const float* frame, float* out) const {
  const float* const minvals = minvals_.size() == 0 ? nullptr : minvals_.data();
  normaliseFrame(frame, static_cast<std::size_t>(frameLen_), minvals, normvals_.data(), out);
}

bool ContextWindow::stack(const Eigen::Ref<const Eigen::MatrixXf>& frames,
                          Eigen::MatrixXf& inputs) const {
  if (frames.rows() != frameLen_) return false;
  Eigen::MatrixXf normalised(frameLen_, frames.cols());
  for (Index t = 0; t < frames.cols(); ++t) {
    normalise(frames.col(t).data(), normalised.col(t).data());
  }
  reshape(inputs, inputLen_, frames.cols());
  const Index last = frames.cols() - 1;
  for (Index t = 0; t <= last; ++t) {
    for (Index offset = -left_; offset <= right_; ++offset) {
      const Index source = std::clamp<Index>(t + offset, 0, last);
      inputs.col(t).segment((left_ + offset) * frameLen_, frameLen_) = normalised.col(source);
    }
  }
  return true;
}

// Gives out the input vector of frame `emitted_` from the frames received so far.
void ContextWindow::emit(float* input) {
  FrameRing{ring_.data(), left_, right_, frameLen_}.copyWindow(emitted_, received_ - 1, input);
  ++emitted_;
}

float* ContextWindow::slot(int64_t frame) {
  return FrameRing{ring_.data(), left_, right_, frameLen_}.slot(frame);
}

bool ContextWindow::push(const float* frame, float* input) {
  normalise(frame, slot(received_));
  ++received_;
  if (received_ - emitted_ <= right_) return false;
  emit(input);
  return true;
}

bool ContextWindow::finish(float* input) {
  if (emitted_ == received_) {
    reset();
    return false;
  }
  emit(input);
  return true;
}

void ContextWindow::reset() {
  received_ = 0;
  emitted_ = 0;
}

}  // namespace mlnn
