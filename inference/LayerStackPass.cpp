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

// Some frames in memory, one behind the other.
struct Frames {
  float* first;
  Index stride;
  Index count;
};

// The rows of weights that are unpacked at once: few enough to stay in the second-level cache,
// where that is possible. They are more than kFewRows, or all, so that blocks of rows have the
// layer's own order of additions.
std::size_t rowsAtOnce(const LayerView& layer) {
  constexpr std::size_t kFloats = std::size_t{1} << 16;
  constexpr std::size_t kAtLeast = 64;
  if (layer.cols == 0) return layer.rows;
  return std::min(std::max(kFloats / layer.cols, kAtLeast), layer.rows);
}

// The rows of the block that begins with row `first`.
std::size_t rowsFrom(const LayerView& layer, std::size_t first) {
  const std::size_t left = layer.rows - first;
  const std::size_t rows = std::min(rowsAtOnce(layer), left);
  return left - rows <= kFewRows ? left : rows;
}

bool isInMemory(const LayerView& layer) {
  return layer.weights != nullptr || layer.coded != nullptr;
}

// What the layers of a stack ask for together.
struct StackWidths {
  std::size_t layers;
  Index widest;
  Index outputs;   // of the last layer
  Index unpacked;  // floats of the largest block of rows that is unpacked
};

StackWidths widthsOf(const LayerSource& stack) {
  StackWidths widths{stack.count(), 0, 0, 0};
  std::size_t unpacked = 0;
  for (std::size_t i = 0; i < widths.layers; ++i) {
    const LayerView layer = stack.layer(i);
    widths.outputs = static_cast<Index>(layer.rows);
    widths.widest = std::max(widths.widest, widths.outputs);
    if (isInMemory(layer)) continue;
    unpacked = std::max(unpacked, std::min(rowsAtOnce(layer) + kFewRows, layer.rows) * layer.cols);
  }
  if (unpacked > 0) widths.unpacked = static_cast<Index>(unpacked) + kFloatsInCacheLine;
  return widths;
}

// The results of a layer for as many frames as `y` has room for.
void evaluateLayer(const LayerView& layer, const float* x, Index xStride, const Frames& y,
                   float* scratch) {
  if (layer.rows == 0) return;  // there is no memory for results either
  const Kernels& kernels = bestKernels();
  if (y.count == 1) return kernels.matrixVector(layer, x, y.first, scratch);
  kernels.matrixFrames(layer, x, static_cast<std::size_t>(xStride), y.first,
                       static_cast<std::size_t>(y.stride), static_cast<std::size_t>(y.count),
                       scratch);
}

// The same for layer `index` of the stack, whose weights may have to be unpacked.
void evaluateLayer(const LayerSource& stack, std::size_t index, const LayerView& layer,
                   const float* x, Index xStride, const Frames& y, PassMemory& memory) {
  float* const scratch = atCacheLine(memory.scratch.data());
  if (isInMemory(layer)) return evaluateLayer(layer, x, xStride, y, scratch);
  float* const unpacked = atCacheLine(memory.unpacked.data());
  for (std::size_t first = 0; first < layer.rows;) {
    const std::size_t rows = rowsFrom(layer, first);
    stack.unpack(index, first, rows, unpacked);
    const LayerView block{unpacked,
                          rows,
                          layer.cols,
                          layer.scale == nullptr ? nullptr : layer.scale + first,
                          layer.shift + first,
                          layer.actFn};
    evaluateLayer(block, x, xStride, {y.first + first, y.stride, y.count}, scratch);
    first += rows;
  }
}

// The same in two steps, keeping what is between them; frame `first` of `result` is the first.
void traceLayer(const LayerSource& stack, std::size_t index, const float* x, Index xStride,
                const Frames& y, PassMemory& memory, Index first, LayerResult& result) {
  LayerView layer = stack.layer(index);
  const ActFn::ActFn fn = layer.actFn;
  layer.actFn = ActFn::linear;
  evaluateLayer(stack, index, layer, x, xStride, y, memory);
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
void evaluateFrames(const LayerSource& stack, const StackWidths& widths,
                    const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                    Eigen::Ref<Eigen::MatrixXf> outputs, PassMemory& memory, Index first,
                    std::vector<LayerResult>* trace) {
  float* next = atCacheLine(memory.between.data());
  float* spare = next + strideFor(widths.widest) * inputs.cols();
  const float* x = inputs.data();
  Index xStride = inputs.outerStride();
  for (std::size_t i = 0; i < widths.layers; ++i) {
    const bool isLast = i + 1 == widths.layers;
    const LayerView layer = stack.layer(i);
    const Frames y{isLast ? outputs.data() : next,
                   isLast ? outputs.outerStride() : strideFor(static_cast<Index>(layer.rows)),
                   inputs.cols()};
    if (trace == nullptr) {
      evaluateLayer(stack, i, layer, x, xStride, y, memory);
    } else {
      traceLayer(stack, i, x, xStride, y, memory, first, (*trace)[i]);
    }
    x = y.first;
    xStride = y.stride;
    std::swap(next, spare);
  }
  if (!stack.endsInSoftmax()) return;
  const Kernels& kernels = bestKernels();
  for (Index frame = 0; frame < outputs.cols(); ++frame) {
    kernels.softmax(outputs.data() + frame * outputs.outerStride(),
                    static_cast<std::size_t>(outputs.rows()));
  }
}

}  // namespace

void LayerSource::unpack(std::size_t, std::size_t, std::size_t, float*) const {}

std::size_t passMemoryBytes(const LayerSource& stack, Index frames) {
  const StackWidths widths = widthsOf(stack);
  const Index together = std::min(frames, framesAtOnce(widths.widest));
  const Index length = scratchLength(widths.widest, together) +
                       betweenLength(widths.widest, together) + widths.unpacked;
  return static_cast<std::size_t>(length) * sizeof(float);
}

void evaluateStack(const LayerSource& stack, const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                   Eigen::MatrixXf& outputs, PassMemory& memory, std::vector<LayerResult>* trace) {
  const Index frames = inputs.cols();
  const StackWidths widths = widthsOf(stack);
  const Index atOnce = framesAtOnce(widths.widest);
  growTo(memory.scratch, scratchLength(widths.widest, std::min(frames, atOnce)));
  growTo(memory.between, betweenLength(widths.widest, std::min(frames, atOnce)));
  growTo(memory.unpacked, widths.unpacked);
  if (trace != nullptr) *trace = emptyTrace(stack, frames);
  const bool apart = !overlap(inputs, outputs);
  if (apart) reshape(outputs, widths.outputs, frames);
  if (!apart) growTo(memory.results, widths.outputs * frames);
  Eigen::Map<Eigen::MatrixXf> results(apart ? outputs.data() : memory.results.data(),
                                      widths.outputs, frames);
  for (Index first = 0; first < frames; first += atOnce) {
    const Index count = std::min(frames - first, atOnce);
    evaluateFrames(stack, widths, inputs.middleCols(first, count), results.middleCols(first, count),
                   memory, first, trace);
  }
  if (apart) return;
  reshape(outputs, widths.outputs, frames);
  outputs = results;
}

}  // namespace mlnn
