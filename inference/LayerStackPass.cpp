#include "inference/LayerStackPass.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>

#include "features/EigenAssign.h"
#include "inference/Activation.h"
#include "inference/Kernels.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr Index kFloatsInCacheLine = 16;

// From one frame to the next in the memory between layers: whole cache lines, and an odd number
// of them, so that frames do not compete for the same places of a cache.
Index strideFor(Index width) {
  const Index lines = (width + kFloatsInCacheLine - 1) / kFloatsInCacheLine;
  return (lines | 1) * kFloatsInCacheLine;
}

// The frames that go through all layers before the next ones. More make the weights pay off no
// better, but need more memory; very wide layers get less than 128 MiB.
Index framesAtOnce(Index widest) {
  constexpr Index kFrames = 256;
  constexpr Index kFloats = Index{1} << 24;
  return std::clamp<Index>(kFloats / (strideFor(widest) + 1), 1, kFrames);
}

// What the two parts of the memory take for some frames at once, with room to start at a cache
// line.
Index scratchLength(Index widest, Index frames) {
  return static_cast<Index>(
             scratchFloats(static_cast<std::size_t>(widest), static_cast<std::size_t>(frames))) +
         kFloatsInCacheLine;
}

Index betweenLength(Index widest, Index frames) {
  return 2 * strideFor(widest) * frames + kFloatsInCacheLine;
}

float* atCacheLine(float* values) {
  constexpr auto kBytes = std::uintptr_t{kFloatsInCacheLine * sizeof(float)};
  const auto past = reinterpret_cast<std::uintptr_t>(values) % kBytes;
  return past == 0 ? values : values + (kBytes - past) / sizeof(float);
}

void growTo(Eigen::VectorXf& values, Index length) {
  if (values.size() < length) reshape(values, length, 1);
}

// Whether the matrix shares memory with the inputs.
bool overlap(const Eigen::Ref<const Eigen::MatrixXf>& inputs, const Eigen::MatrixXf& outputs) {
  if (inputs.size() == 0 || outputs.size() == 0) return false;
  const float* inputsEnd =
      inputs.data() + (inputs.cols() - 1) * inputs.outerStride() + inputs.rows();
  const std::less<const float*> before;
  return before(inputs.data(), outputs.data() + outputs.size()) &&
         before(outputs.data(), inputsEnd);
}

Index widestOf(const LayerSource& stack) {
  std::size_t widest = 0;
  for (std::size_t i = 0; i < stack.count(); ++i) widest = std::max(widest, stack.layer(i).rows);
  return static_cast<Index>(widest);
}

// Some frames in memory, one behind the other.
struct Frames {
  float* first;
  Index stride;
  Index count;
};

// The results of a layer for as many frames as `y` has room for.
void evaluateLayer(const LayerView& layer, const float* x, Index xStride, const Frames& y,
                   float* scratch) {
  const Kernels& kernels = bestKernels();
  if (y.count == 1) return kernels.matrixVector(layer, x, y.first, scratch);
  kernels.matrixFrames(layer, x, static_cast<std::size_t>(xStride), y.first,
                       static_cast<std::size_t>(y.stride), static_cast<std::size_t>(y.count),
                       scratch);
}

// The same in two steps, keeping what is between them; frame `first` of `result` is the first.
void traceLayer(LayerView layer, const float* x, Index xStride, const Frames& y, float* scratch,
                Index first, LayerResult& result) {
  const ActFn::ActFn fn = layer.actFn;
  layer.actFn = ActFn::linear;
  evaluateLayer(layer, x, xStride, y, scratch);
  const auto rows = static_cast<Index>(layer.rows);
  for (Index frame = 0; frame < y.count; ++frame) {
    Eigen::Map<Eigen::VectorXf> values(y.first + frame * y.stride, rows);
    result.affine.col(first + frame) = values;
    applyActivation(fn, values);
    result.activated.col(first + frame) = values;
  }
}

std::vector<LayerResult> emptyTrace(const LayerSource& stack, Index frames) {
  std::vector<LayerResult> trace(stack.count());
  for (std::size_t i = 0; i < trace.size(); ++i) {
    const auto rows = static_cast<Index>(stack.layer(i).rows);
    trace[i].affine.resize(rows, frames);
    trace[i].activated.resize(rows, frames);
  }
  return trace;
}

// Takes all of `inputs` through the stack together; the first of them is frame `first` of the
// trace.
void evaluateFrames(const LayerSource& stack, Index widest,
                    const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                    Eigen::Ref<Eigen::MatrixXf> outputs, PassMemory& memory, Index first,
                    std::vector<LayerResult>* trace) {
  float* const scratch = atCacheLine(memory.scratch.data());
  float* next = atCacheLine(memory.between.data());
  float* spare = next + strideFor(widest) * inputs.cols();
  const float* x = inputs.data();
  Index xStride = inputs.outerStride();
  for (std::size_t i = 0; i < stack.count(); ++i) {
    const bool isLast = i + 1 == stack.count();
    const LayerView layer = stack.layer(i);
    const Frames y{isLast ? outputs.data() : next,
                   isLast ? outputs.outerStride() : strideFor(static_cast<Index>(layer.rows)),
                   inputs.cols()};
    if (trace == nullptr) {
      evaluateLayer(layer, x, xStride, y, scratch);
    } else {
      traceLayer(layer, x, xStride, y, scratch, first, (*trace)[i]);
    }
    x = y.first;
    xStride = y.stride;
    std::swap(next, spare);
  }
  if (!stack.endsInSoftmax()) return;
  for (Index frame = 0; frame < outputs.cols(); ++frame) applySoftmax(outputs.col(frame));
}

}  // namespace

std::size_t passMemoryBytes(const LayerSource& stack, Index frames) {
  const Index widest = widestOf(stack);
  const Index together = std::min(frames, framesAtOnce(widest));
  const Index length = scratchLength(widest, together) + betweenLength(widest, together);
  return static_cast<std::size_t>(length) * sizeof(float);
}

void evaluateStack(const LayerSource& stack, const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                   Eigen::MatrixXf& outputs, PassMemory& memory, std::vector<LayerResult>* trace) {
  const Index frames = inputs.cols();
  const Index widest = widestOf(stack);
  const auto numOutputs = static_cast<Index>(stack.layer(stack.count() - 1).rows);
  const Index atOnce = framesAtOnce(widest);
  growTo(memory.scratch, scratchLength(widest, std::min(frames, atOnce)));
  growTo(memory.between, betweenLength(widest, std::min(frames, atOnce)));
  if (trace != nullptr) *trace = emptyTrace(stack, frames);
  const bool apart = !overlap(inputs, outputs);
  if (apart) reshape(outputs, numOutputs, frames);
  if (!apart) growTo(memory.results, numOutputs * frames);
  Eigen::Map<Eigen::MatrixXf> results(apart ? outputs.data() : memory.results.data(), numOutputs,
                                      frames);
  for (Index first = 0; first < frames; first += atOnce) {
    const Index count = std::min(frames - first, atOnce);
    evaluateFrames(stack, widest, inputs.middleCols(first, count), results.middleCols(first, count),
                   memory, first, trace);
  }
  if (apart) return;
  reshape(outputs, numOutputs, frames);
  outputs = results;
}

}  // namespace mlnn
