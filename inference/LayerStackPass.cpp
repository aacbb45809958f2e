#include "inference/LayerStackPass.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "features/EigenAssign.h"
#include "inference/FrameMemory.h"
#include "inference/StackThreads.h"
#include "inference/kernels/Activation.h"
#include "inference/kernels/KernelChoice.h"
#include "inference/kernels/Kernels.h"
#include "inference/kernels/TableKernels.h"
#include "layers/BuiltForSize.h"

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
  if (widest < 0) return 0;
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

using Frames = StackFrames;

// The rows of the block that begins with row `first`.
std::size_t rowsFrom(const LayerView& layer, std::size_t first) {
  const std::size_t left = layer.rows - first;
  const std::size_t rows = std::min(rowsUnpackedAtOnce(layer), left);
  return left - rows <= kFewRows ? left : rows;
}

bool isInMemory(const LayerView& layer) {
  return layer.weights != nullptr || layer.coded != nullptr;
}

// What the layers of a stack ask for together.
struct StackWidths {
  std::size_t layers;
  Index widest;    // that goes through the memory between layers
  Index outputs;   // of the last layer
  Index swept;     // the widest layer that takes scratch memory; -1 for none
  Index unpacked;  // floats of the largest block of rows that is unpacked
};

// One frame meets codes where they lie; built for size each frame does.
bool isReadInPlace(const LayerView& layer, Index frames) {
  return (layer.rowCodes != nullptr || layer.tableCodes != nullptr) &&
         (kBuiltForSize || frames == 1);
}

void evaluateInPlace(const LayerView& layer, const float* x, float* y) {
  const Kernels& kernels = bestKernels();
  if (layer.rowCodes != nullptr) return kernels.rowCodesVector(layer, x, y);
  bestTableKernels().multiply(layer, x, y);
  if (layer.actFn != ActFn::linear) kernels.activate(layer.actFn, y, layer.rows);
}

void evaluateInPlace(const LayerView& layer, const float* x, Index xStride, const Frames& y) {
  for (Index f = 0; f < y.count; ++f) {
    evaluateInPlace(layer, x + f * xStride, y.first + f * y.stride);
  }
}

StackWidths widthsOf(const LayerSource& stack, Index frames) {
  StackWidths widths{stack.count(), 0, 0, -1, 0};
  std::size_t unpacked = 0;
  for (std::size_t i = 0; i < widths.layers; ++i) {
    const LayerView layer = stack.layer(i);
    widths.outputs = static_cast<Index>(layer.rows);
    widths.widest = std::max(widths.widest, widths.outputs);
    if (isReadInPlace(layer, frames)) continue;
    widths.swept = std::max(widths.swept, widths.outputs);
    if (isInMemory(layer)) continue;
    unpacked =
        std::max(unpacked, std::min(rowsUnpackedAtOnce(layer) + kFewRows, layer.rows) * layer.cols);
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

// The whole of a layer.
void evaluateLayer(const LayerCall& call, const LayerView& layer, PassMemory& memory) {
  evaluateRows(call, layer, 0, memory);
}

// The same in two steps, keeping what is between them; frame `first` of `result` is the first.
void traceLayer(const LayerCall& call, LayerView layer, PassMemory& memory, Index first,
                LayerResult& result) {
  const ActFn::ActFn fn = layer.actFn;
  layer.actFn = ActFn::linear;
  evaluateLayer(call, layer, memory);
  const auto rows = static_cast<Index>(layer.rows);
  for (Index frame = 0; frame < call.y.count; ++frame) {
    Eigen::Map<Eigen::VectorXf> values(call.y.first + frame * call.y.stride, rows);
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

// Whether the last vector of a frame of results touches the next frame. A processor does not read a
// vector of which a part is still on its way to the cache, so such frames would wait for each
// other.
bool shareVectors(const Frames& frames, Index width) {
  if (kBuiltForSize || frames.count == 1) return false;
  const auto lanes = static_cast<Index>(bestKernels().lanes);
  return (width + lanes - 1) / lanes * lanes > frames.stride;
}

void applySoftmaxes(const Frames& frames, Index width) {
  const Kernels& kernels = bestKernels();
  for (Index frame = 0; frame < frames.count; ++frame) {
    kernels.softmax(frames.first + frame * frames.stride, static_cast<std::size_t>(width));
  }
}

void copyFrames(const Frames& from, const Frames& to, Index width) {
  for (Index frame = 0; frame < from.count; ++frame) {
    std::copy_n(from.first + frame * from.stride, width, to.first + frame * to.stride);
  }
}

// Takes all of `inputs` through the stack together; the first of them is frame `first` of the
// trace.
void evaluateTogether(const LayerSource& stack, const StackWidths& widths,
                      const InputFrames& inputs, const Frames& outputs, PassMemory& memory,
                      Index first, std::vector<LayerResult>* trace, StackThreads* byRows) {
  float* next = atCacheLine(memory.between.data());
  float* spare = next + strideFor(widths.widest) * inputs.frames;
  const float* x = inputs.values;
  Index xStride = inputs.frameStride;
  if (mustBeGathered(inputs)) {
    xStride = strideFor(inputs.width);
    gather(inputs, spare, xStride);
    x = spare;
  }
  const bool isApart = shareVectors(outputs, widths.outputs);
  for (std::size_t i = 0; i < widths.layers; ++i) {
    const bool isLast = i + 1 == widths.layers;
    const LayerView layer = stack.layer(i);
    const Frames y = isLast && !isApart
                         ? outputs
                         : Frames{next, strideFor(static_cast<Index>(layer.rows)), inputs.frames};
    const LayerCall call{stack, i, x, xStride, y};
    if (trace != nullptr) {
      traceLayer(call, layer, memory, first, (*trace)[i]);
    } else if (byRows != nullptr) {
      byRows->evaluateLayer(call, memory);
    } else {
      evaluateLayer(call, layer, memory);
    }
    x = y.first;
    xStride = y.stride;
    std::swap(next, spare);
  }
  const Frames results = isApart ? Frames{spare, xStride, outputs.count} : outputs;
  if (stack.endsInSoftmax()) applySoftmaxes(results, widths.outputs);
  if (isApart) copyFrames(results, outputs, widths.outputs);
}

// What evaluateAll needs for so many frames of `inputs`.
StackWidths widthsFor(const LayerSource& stack, const InputFrames& inputs, Index frames) {
  StackWidths widths = widthsOf(stack, frames);
  if (mustBeGathered(inputs)) widths.widest = std::max(widths.widest, inputs.width);
  return widths;
}

// Makes room for what evaluateAll needs, and returns the widths with which it finds it.
StackWidths prepare(const LayerSource& stack, const InputFrames& inputs, Index frames,
                    PassMemory& memory) {
  const StackWidths widths = widthsFor(stack, inputs, frames);
  const Index together = std::min(frames, framesAtOnce(widths.widest));
  growTo(memory.scratch, scratchLength(widths.swept, together));
  growTo(memory.between, betweenLength(widths.widest, together));
  growTo(memory.unpacked, widths.unpacked);
  return widths;
}

// Takes all of `inputs` through the stack, some at a time. They do not overlap `outputs`.
void evaluateAll(const LayerSource& stack, const StackWidths& widths, const InputFrames& inputs,
                 const OutputFrames& outputs, PassMemory& memory, std::vector<LayerResult>* trace,
                 StackThreads* byRows) {
  const Index atOnce = framesAtOnce(widths.widest);
  for (Index first = 0; first < inputs.frames; first += atOnce) {
    const Index count = std::min(inputs.frames - first, atOnce);
    const Frames results{outputs.values + first * outputs.frameStride, outputs.frameStride, count};
    evaluateTogether(stack, widths, someOf(inputs, first, count), results, memory, first, trace,
                     byRows);
  }
}

// One evaluation, by the calling thread or by several.
class Evaluation {
 public:
  // Makes room for it, so that it allocates nothing later.
  Evaluation(const LayerSource& stack, const InputFrames& inputs, PassMemory& memory,
             std::vector<LayerResult>* trace, Threads* threads)
      : stack_(stack),
        inputs_(inputs),
        memory_(memory),
        trace_(trace),
        threads_(trace == nullptr ? stackThreads(threads) : nullptr),
        widths_(widthsFor(stack, inputs, inputs.frames)) {
    if (threads_ != nullptr) {
      threads_->prepare(stack, inputs, memory);
    } else {
      prepare(stack, inputs, inputs.frames, memory);
    }
  }

  Index numOutputs() const { return widths_.outputs; }

  // REQUIRES: the inputs do not overlap `outputs`.
  void run(const OutputFrames& outputs) const {
    if (threads_ != nullptr) return threads_->evaluate(stack_, inputs_, outputs, memory_);
    evaluateAll(stack_, widths_, inputs_, outputs, memory_, trace_, nullptr);
  }

  // Into memory of the pass's own. Returns where the results are, without gaps.
  OutputFrames runApart() const {
    growTo(memory_.results, widths_.outputs * inputs_.frames);
    const OutputFrames results(memory_.results.data(), widths_.outputs, inputs_.frames);
    run(results);
    return results;
  }

 private:
  const LayerSource& stack_;
  const InputFrames inputs_;
  PassMemory& memory_;
  std::vector<LayerResult>* trace_;
  StackThreads* threads_;
  StackWidths widths_;
};

}  // namespace

void LayerSource::unpack(std::size_t, std::size_t, std::size_t, float*) const {}

void evaluateRows(const LayerCall& call, const LayerView& layer, std::size_t row,
                  PassMemory& memory) {
  const Frames y{call.y.first + row, call.y.stride, call.y.count};
  if (isReadInPlace(layer, y.count)) return evaluateInPlace(layer, call.x, call.xStride, y);
  float* const scratch = atCacheLine(memory.scratch.data());
  if (isInMemory(layer)) return evaluateLayer(layer, call.x, call.xStride, y, scratch);
  float* const unpacked = atCacheLine(memory.unpacked.data());
  for (std::size_t first = 0; first < layer.rows;) {
    const std::size_t rows = rowsFrom(layer, first);
    call.stack.unpack(call.index, row + first, rows, unpacked);
    const LayerView block{unpacked,
                          rows,
                          layer.cols,
                          layer.scale == nullptr ? nullptr : layer.scale + first,
                          layer.shift + first,
                          layer.actFn};
    evaluateLayer(block, call.x, call.xStride, {y.first + first, y.stride, y.count}, scratch);
    first += rows;
  }
}

void preparePart(const LayerSource& stack, const InputFrames& inputs, Index frames,
                 PassMemory& memory) {
  prepare(stack, inputs, frames, memory);
}

void evaluatePart(const LayerSource& stack, const InputFrames& inputs, const OutputFrames& outputs,
                  PassMemory& memory, StackThreads* byRows) {
  evaluateAll(stack, widthsFor(stack, inputs, inputs.frames), inputs, outputs, memory, nullptr,
              byRows);
}

std::size_t passMemoryBytes(const LayerSource& stack, Index frames) {
  const StackWidths widths = widthsOf(stack, frames);
  const Index together = std::min(frames, framesAtOnce(widths.widest));
  const Index length = scratchLength(widths.swept, together) +
                       betweenLength(widths.widest, together) + widths.unpacked;
  return static_cast<std::size_t>(length) * sizeof(float);
}

void evaluateStack(const LayerSource& stack, const InputFrames& inputs, const OutputFrames& outputs,
                   PassMemory& memory, Threads* threads) {
  if (outputs.width == 0) return;  // nor is there any memory for them
  const Evaluation evaluation(stack, inputs, memory, nullptr, threads);
  if (!overlap(inputs, outputs)) return evaluation.run(outputs);
  copyFrames(evaluation.runApart(), outputs);
}

void evaluateStack(const LayerSource& stack, const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                   Eigen::MatrixXf& outputs, PassMemory& memory, std::vector<LayerResult>* trace,
                   Threads* threads) {
  const Index frames = inputs.cols();
  const Evaluation evaluation(stack, inputs, memory, trace, threads);
  if (trace != nullptr) *trace = emptyTrace(stack, frames);
  if (!overlap(inputs, outputs)) {
    reshape(outputs, evaluation.numOutputs(), frames);
    return evaluation.run(outputs);
  }
  const OutputFrames results = evaluation.runApart();
  reshape(outputs, evaluation.numOutputs(), frames);
  copyFrames(results, outputs);
}

}  // namespace mlnn
