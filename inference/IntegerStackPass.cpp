#include "inference/IntegerStackPass.h"

#include <algorithm>
#include <utility>

#include "features/EigenAssign.h"
#include "inference/FrameMemory.h"
#include "inference/StackThreads.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr std::size_t kCacheLine = 64;  // bytes

// From one frame to the next: whole cache lines, and an odd number of them, so that frames do not
// compete for the same places of a cache.
std::size_t strideOf(std::size_t bytes) {
  const std::size_t lines = (bytes + kCacheLine - 1) / kCacheLine;
  return (lines | 1) * kCacheLine;
}

std::size_t floatStride(std::size_t width) {
  return strideOf(width * sizeof(float)) / sizeof(float);
}

// A frame's integers fill whole groups.
std::size_t wholeGroups(std::size_t width) {
  return static_cast<std::size_t>(rowCodeGroups(width)) * kRowCodeGroup;
}

// The frames that go through all layers before the next ones. Weights that stay in the second-level
// cache leave room there for few frames, and those that come from the third-level one leave room
// for some; the memory is worth reading for many only.
std::size_t framesAtOnce(std::size_t widest, std::size_t weightBytes) {
  constexpr std::size_t kFloats = std::size_t{1} << 24;
  const std::size_t most = weightBytes <= kSecondLevelBytes ? 48
                           : weightBytes < kThirdLevelBytes ? 64
                                                            : 256;
  return std::clamp<std::size_t>(kFloats / floatStride(widest + 1), 1, most);
}

bool hasCodes(const IntegerLayerView& view) { return view.codes.codes != nullptr; }

bool isUnpacked(const IntegerLayerView& view) {
  return !hasCodes(view) && view.layer.weights == nullptr && view.layer.rows * view.layer.cols > 0;
}

// Integers of 16 bits are two frames of bytes.
std::size_t byteFramesOf(const IntegerLayerView& view) { return view.takesWords ? 2 : 1; }

// The rows of weights that are unpacked at once: few enough to stay in the second-level cache,
// where that is possible.
std::size_t rowsAtOnce(const LayerView& layer) {
  constexpr std::size_t kFloats = std::size_t{1} << 14;
  return std::min(std::max(kFloats / layer.cols, kRowCodePanel), layer.rows);
}

// What the layers of a stack ask for together, for some frames at once.
struct StackNeeds {
  std::size_t outputs = 0;  // of the last layer
  std::size_t widest = 0;   // outputs of a layer
  std::size_t halves = 1;   // of what is between layers: floats must not replace their inputs
  std::size_t frames = 0;   // at once
  std::size_t bytes = 0;    // of integers
  std::size_t byteFrames = 0;
  std::size_t unpacked = 0;  // floats
  bool streams = false;      // weights, through the second-level cache

  std::size_t half() const { return frames * floatStride(widest); }
};

StackNeeds needsOf(const IntegerSource& stack, std::size_t bytesPerInput, std::size_t frames) {
  StackNeeds needs;
  for (std::size_t i = 0; i < stack.count(); ++i) {
    const IntegerLayerView view = stack.layer(i);
    needs.outputs = view.layer.rows;
    needs.widest = std::max(needs.widest, view.layer.rows);
    if (isUnpacked(view)) {
      needs.unpacked = std::max(needs.unpacked, rowsAtOnce(view.layer) * view.layer.cols);
    }
    if (!hasCodes(view)) {
      needs.halves = 2;
      continue;
    }
    needs.byteFrames = std::max(needs.byteFrames, byteFramesOf(view));
    needs.bytes = std::max(
        needs.bytes, byteFramesOf(view) * strideOf(wholeGroups(view.layer.cols) * bytesPerInput));
  }
  needs.streams = stack.bytes() > kSecondLevelBytes;
  needs.frames = std::min(frames, framesAtOnce(needs.widest, stack.bytes()));
  needs.bytes *= needs.frames;
  needs.byteFrames *= needs.frames;
  return needs;
}

template <typename Values>
void growTo(Values& values, std::size_t length) {
  const auto size = static_cast<Index>(length);
  if (values.size() < size) reshape(values, size, 1);
}

void growTo(IntegerMemory& memory, const StackNeeds& needs) {
  growTo(memory.between, needs.halves * needs.half());
  growTo(memory.bytes, needs.bytes);
  growTo(memory.sums, needs.byteFrames);
  growTo(memory.scales, needs.frames);
  growTo(memory.unpacked, needs.unpacked);
}

// Some frames in memory.
template <typename Value>
struct Frames {
  Value* first;
  std::size_t stride;
  std::size_t count;

  Value* at(std::size_t frame) const { return first + frame * stride; }
};

Frames<const float> framesOf(const InputFrames& frames) {
  return {frames.values, static_cast<std::size_t>(frames.frameStride),
          static_cast<std::size_t>(frames.frames)};
}

Frames<float> framesOf(const OutputFrames& frames) {
  return {frames.values, static_cast<std::size_t>(frames.frameStride),
          static_cast<std::size_t>(frames.frames)};
}

bool haveNoSign(const int8_t* bytes, std::size_t count) {
  int8_t all = 0;
  for (std::size_t i = 0; i < count; ++i) all |= bytes[i];
  return all >= 0;
}

// What one layer is evaluated with.
class LayerPass {
 public:
  // Streams: whether the weights do not stay in the second-level cache from call to call.
  LayerPass(const IntegerLayerView& view, const IntegerKernels& kernels, bool streams,
            std::size_t frames, IntegerMemory& memory)
      : view_(view),
        kernels_(kernels),
        memory_(memory),
        byteFrames_(byteFramesOf(view)),
        tile_(frames * byteFrames_ <= kernels.dots.few.frames ? kernels.dots.few
                                                              : kernels.dots.many),
        streams_(streams) {}

  // The results may stand in place of the inputs.
  void run(const Frames<const float>& x, const Frames<float>& y) {
    areNonNegative_ = !view_.takesWords;
    for (std::size_t f = 0; f < x.count; ++f) takeInputs(x.at(f), f);
    const auto panels = static_cast<std::size_t>(rowCodePanels(view_.layer.rows));
    const std::size_t atOnce = x.count * byteFrames_ == 1 ? kLinePanels : tile_.panels;
    for (std::size_t p = 0; p < panels; p += atOnce) {
      const std::size_t next = std::min(p + atOnce, panels);
      runPanels(p, next - p, std::min(atOnce, panels - next), y);
    }
  }

 private:
  static constexpr std::size_t kLinePanels = 16;  // for one frame

  std::size_t byteStride() const {
    return strideOf(wholeGroups(view_.layer.cols) * kernels_.dots.bytesPerInput);
  }

  // Rounds the inputs of a frame.
  void takeInputs(const float* x, std::size_t frame) {
    const std::size_t cols = view_.layer.cols;
    const std::size_t place = frame * byteFrames_;
    int8_t* const bytes = memory_.bytes.data() + place * byteStride();
    int32_t* const sums = memory_.sums.data() + place;
    float& scale = memory_.scales[static_cast<Index>(frame)];
    if (view_.takesWords) {
      scale = kernels_.unfused.toWords(x, cols, bytes, bytes + byteStride(), sums);
    } else {
      scale = kernels_.unfused.toBytes(x, cols, bytes, sums);
      areNonNegative_ = areNonNegative_ && haveNoSign(bytes, cols);
    }
    for (std::size_t b = 0; b < byteFrames_; ++b) {
      int8_t* const part = bytes + b * byteStride();
      std::fill(part + cols, part + wholeGroups(cols), int8_t{0});
      kernels_.dots.arrange(part, wholeGroups(cols));
    }
  }

  // Some panels for all frames, in tiles of about as many frames each. Each of them fetches its
  // part of the `ahead` panels behind these.
  void runPanels(std::size_t first, std::size_t panels, std::size_t ahead, const Frames<float>& y) {
    const std::size_t most = std::max<std::size_t>(tile_.frames / byteFrames_, 1);
    const std::size_t tiles = (y.count + most - 1) / most;
    std::size_t frame = 0;
    std::size_t fetched = 0;
    for (std::size_t t = 0; t < tiles; ++t) {
      const std::size_t nextFrame = y.count * (t + 1) / tiles;
      const std::size_t nextFetched = streams_ ? ahead * (t + 1) / tiles : 0;
      const CodesAhead toFetch{streams_, first + panels + fetched, nextFetched - fetched};
      runTile(first, panels, toFetch, frame, nextFrame - frame, y);
      frame = nextFrame;
      fetched = nextFetched;
    }
  }

  void runTile(std::size_t first, std::size_t panels, CodesAhead ahead, std::size_t frame,
               std::size_t frames, const Frames<float>& y) {
    constexpr std::size_t kMostSums =
        std::max(kLinePanels, DotKernels::kMostAtOnce) * kRowCodePanel;
    alignas(kCacheLine) int32_t sums[kMostSums];
    const std::size_t stride = panels * kRowCodePanel;
    const std::size_t end = (frame + frames) * byteFrames_;
    int32_t* to = sums;
    for (std::size_t b = frame * byteFrames_; b < end;) {
      const std::size_t taken = std::min(end - b, tile_.frames);
      const ByteFrames x{memory_.bytes.data() + b * byteStride(), byteStride(),
                         memory_.sums.data() + b, taken, areNonNegative_};
      kernels_.dots.dots(view_.codes, first, panels, x, ahead, to);
      ahead.panels = 0;
      to += taken * stride;
      b += taken;
    }
    const std::size_t firstRow = first * kRowCodePanel;
    const LayerSums found{sums,
                          stride,
                          view_.takesWords,
                          memory_.scales.data() + frame,
                          view_.rowScales,
                          firstRow,
                          std::min(stride, view_.layer.rows - firstRow),
                          frames};
    kernels_.unfused.finish(view_.layer, found, y.at(frame), y.stride);
  }

  const IntegerLayerView& view_;
  const IntegerKernels& kernels_;
  IntegerMemory& memory_;
  std::size_t byteFrames_;
  DotTile tile_;
  bool streams_;
  bool areNonNegative_ = false;  // the integers of all frames
};

// A layer without codes, whose weights may have to be unpacked.
void runFloats(const IntegerSource& stack, std::size_t index, const IntegerLayerView& view,
               const UnfusedKernels& kernels, const Frames<const float>& x, const Frames<float>& y,
               IntegerMemory& memory) {
  const LayerView& layer = view.layer;
  if (!isUnpacked(view)) {
    return kernels.multiply(layer, x.first, x.stride, y.first, y.stride, y.count);
  }
  for (std::size_t first = 0; first < layer.rows; first += rowsAtOnce(layer)) {
    const std::size_t rows = std::min(rowsAtOnce(layer), layer.rows - first);
    stack.unpack(index, first, rows, memory.unpacked.data());
    LayerView block = layer;
    block.weights = memory.unpacked.data();
    block.rows = rows;
    block.scale = layer.scale == nullptr ? nullptr : layer.scale + first;
    block.shift = layer.shift + first;
    kernels.multiply(block, x.first, x.stride, y.first + first, y.stride, y.count);
  }
}

// Takes as many frames through all layers as there are at once.
void runFrames(const IntegerSource& stack, const IntegerKernels& kernels, const StackNeeds& needs,
               Frames<const float> x, const Frames<float>& results, IntegerMemory& memory) {
  float* next = memory.between.data();
  float* spare = next + (needs.halves - 1) * needs.half();
  for (std::size_t i = 0; i < stack.count(); ++i) {
    const IntegerLayerView view = stack.layer(i);
    const bool isLast = i + 1 == stack.count();
    const Frames<float> y =
        isLast ? results : Frames<float>{next, floatStride(view.layer.rows), x.count};
    if (view.layer.rows > 0) {
      if (hasCodes(view)) {
        LayerPass(view, kernels, needs.streams, x.count, memory).run(x, y);
      } else {
        runFloats(stack, i, view, kernels.unfused, x, y, memory);
      }
    }
    x = {y.first, y.stride, y.count};
    std::swap(next, spare);
  }
  const auto finish = stack.endsInSoftmax() ? kernels.unfused.softmax : kernels.unfused.giveOneNaN;
  for (std::size_t f = 0; f < results.count; ++f) finish(results.at(f), needs.outputs);
}

StackNeeds needsFor(const IntegerSource& stack, const IntegerKernels& kernels, Index frames) {
  return needsOf(stack, kernels.dots.bytesPerInput, static_cast<std::size_t>(frames));
}

// Takes all of `inputs` through the stack, some at a time. They do not overlap `outputs`.
void runAll(const IntegerSource& stack, const IntegerKernels& kernels, const StackNeeds& needs,
            const InputFrames& inputs, const OutputFrames& outputs, IntegerMemory& memory) {
  const auto atOnce = static_cast<std::ptrdiff_t>(needs.frames);
  for (std::ptrdiff_t first = 0; first < inputs.frames; first += atOnce) {
    const std::ptrdiff_t count = std::min(inputs.frames - first, atOnce);
    InputFrames x = someOf(inputs, first, count);
    if (mustBeGathered(inputs)) {
      gather(x, memory.gathered.data(), inputs.width);
      x = {memory.gathered.data(), inputs.width, count};
    }
    const OutputFrames y{outputs.values + first * outputs.frameStride, outputs.width, count,
                         outputs.frameStride};
    runFrames(stack, kernels, needs, framesOf(x), framesOf(y), memory);
  }
}

// One evaluation, by the calling thread or by several.
class IntegerEvaluation {
 public:
  // Makes room for it, so that it allocates nothing later.
  IntegerEvaluation(const IntegerSource& stack, const IntegerKernels& kernels,
                    const InputFrames& inputs, IntegerMemory& memory, Threads* threads)
      : stack_(stack),
        kernels_(kernels),
        inputs_(inputs),
        memory_(memory),
        threads_(stackThreads(threads)),
        needs_(needsFor(stack, kernels, inputs.frames)) {
    if (threads_ != nullptr) {
      threads_->prepare(stack, kernels, inputs, memory);
    } else {
      prepareIntegerPart(stack, kernels, inputs, inputs.frames, memory);
    }
  }

  Index numOutputs() const { return static_cast<Index>(needs_.outputs); }

  // REQUIRES: the inputs do not overlap `outputs`.
  void run(const OutputFrames& outputs) const {
    if (threads_ != nullptr) {
      return threads_->evaluate(stack_, kernels_, inputs_, outputs, memory_);
    }
    runAll(stack_, kernels_, needs_, inputs_, outputs, memory_);
  }

  // Into memory of the pass's own. Returns where the results are, without gaps.
  OutputFrames runApart() const {
    growTo(memory_.results, needs_.outputs * static_cast<std::size_t>(inputs_.frames));
    const OutputFrames results(memory_.results.data(), numOutputs(), inputs_.frames);
    run(results);
    return results;
  }

 private:
  const IntegerSource& stack_;
  const IntegerKernels& kernels_;
  const InputFrames inputs_;
  IntegerMemory& memory_;
  StackThreads* threads_;
  StackNeeds needs_;
};

}  // namespace

void IntegerSource::unpack(std::size_t, std::size_t, std::size_t, float*) const {}

void prepareIntegerPart(const IntegerSource& stack, const IntegerKernels& kernels,
                        const InputFrames& inputs, Index frames, IntegerMemory& memory) {
  const StackNeeds needs = needsFor(stack, kernels, frames);
  growTo(memory, needs);
  if (mustBeGathered(inputs)) {
    growTo(memory.gathered, needs.frames * static_cast<std::size_t>(inputs.width));
  }
}

void evaluateIntegerPart(const IntegerSource& stack, const IntegerKernels& kernels,
                         const InputFrames& inputs, const OutputFrames& outputs,
                         IntegerMemory& memory) {
  runAll(stack, kernels, needsFor(stack, kernels, inputs.frames), inputs, outputs, memory);
}

void evaluateIntegers(const IntegerSource& stack, const IntegerKernels& kernels,
                      const InputFrames& inputs, const OutputFrames& outputs, IntegerMemory& memory,
                      Threads* threads) {
  if (outputs.width == 0) return;  // nor is there any memory for them
  const IntegerEvaluation evaluation(stack, kernels, inputs, memory, threads);
  if (!overlap(inputs, outputs)) return evaluation.run(outputs);
  copyFrames(evaluation.runApart(), outputs);
}

void evaluateIntegers(const IntegerSource& stack, const IntegerKernels& kernels,
                      const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs,
                      IntegerMemory& memory, Threads* threads) {
  const IntegerEvaluation evaluation(stack, kernels, inputs, memory, threads);
  if (!overlap(inputs, outputs)) {
    reshape(outputs, evaluation.numOutputs(), inputs.cols());
    return evaluation.run(outputs);
  }
  const OutputFrames results = evaluation.runApart();
  reshape(outputs, evaluation.numOutputs(), inputs.cols());
  copyFrames(results, outputs);
}

std::size_t integerMemoryBytes(const IntegerSource& stack, const IntegerKernels& kernels,
                               Index frames) {
  const StackNeeds needs = needsFor(stack, kernels, frames);
  return needs.bytes + needs.byteFrames * sizeof(int32_t) +
         (needs.halves * needs.half() + needs.frames + needs.unpacked) * sizeof(float);
}

}  // namespace mlnn
