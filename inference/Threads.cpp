#include "inference/Threads.h"

#include <algorithm>
#include <cstdint>

#ifdef __STDCPP_THREADS__
#include <thread>
#endif

#include "inference/FrameMemory.h"
#include "inference/IntegerStackPass.h"
#include "inference/LayerStackPass.h"
#include "inference/StackThreads.h"
#include "inference/WorkSplit.h"
#include "inference/WorkerPool.h"

namespace mlnn {
namespace {

uint64_t weightsOf(const LayerView& layer) { return uint64_t{layer.rows} * layer.cols; }

uint64_t weightsOf(const LayerSource& stack) {
  uint64_t weights = 0;
  for (std::size_t i = 0; i < stack.count(); ++i) weights += weightsOf(stack.layer(i));
  return weights;
}

uint64_t weightsOf(const IntegerSource& stack) {
  uint64_t weights = 0;
  for (std::size_t i = 0; i < stack.count(); ++i) weights += weightsOf(stack.layer(i).layer);
  return weights;
}

OutputFrames someOf(const OutputFrames& outputs, std::size_t first, std::size_t count) {
  return {outputs.values + static_cast<std::ptrdiff_t>(first) * outputs.frameStride, outputs.width,
          static_cast<std::ptrdiff_t>(count), outputs.frameStride};
}

// Some rows of a layer, in any form of weights.
class RowsOfLayer {
 public:
  // REQUIRES: `first` is a multiple of kRowsTogether.
  RowsOfLayer(const LayerView& layer, std::size_t first, std::size_t rows) : view_(layer) {
    view_.rows = rows;
    view_.ofRows = layer.allRows();
    if (layer.weights != nullptr) view_.weights += first;
    if (layer.scale != nullptr) view_.scale += first;
    view_.shift += first;
    if (layer.coded != nullptr) takeCodes(*layer.coded, first);
    if (layer.rowCodes != nullptr) takeCodes(*layer.rowCodes, first);
    if (layer.tableCodes != nullptr) takeCodes(*layer.tableCodes, first);
  }
  RowsOfLayer(const RowsOfLayer&) = delete;
  RowsOfLayer& operator=(const RowsOfLayer&) = delete;

  const LayerView& view() const { return view_; }

 private:
  void takeCodes(const GridCodes& codes, std::size_t first) {
    static_assert(kRowsTogether % kCodedPanelRows == 0);
    const std::size_t panel = first / kCodedPanelRows;
    codes_ = codes;
    codes_.codes += panel * view_.cols * codes.columnBytes();
    codes_.lastOf += panel;
    view_.coded = &codes_;
  }

  void takeCodes(const RowCodesView& codes, std::size_t first) {
    static_assert(kRowsTogether % kRowCodePanel == 0);
    const auto groups = static_cast<std::size_t>(rowCodeGroups(codes.cols));
    rowCodes_ = codes;
    rowCodes_.rows = view_.rows;
    rowCodes_.scales += first * sizeof(float);
    rowCodes_.codes += first / kRowCodePanel * groups * rowCodeBlockBytes(codes.bits);
    view_.rowCodes = &rowCodes_;
  }

  void takeCodes(const TableCodesView& codes, std::size_t first) {
    tableCodes_ = codes;
    tableCodes_.first += first;
    view_.tableCodes = &tableCodes_;
  }

  LayerView view_;
  GridCodes codes_{};
  RowCodesView rowCodes_;
  TableCodesView tableCodes_;
};

class SharedWork final : public StackThreads {
 public:
  explicit SharedWork(int count) : pool_(count) {}

  int count() const override { return pool_.count(); }

  void prepare(const LayerSource& stack, const InputFrames& inputs, PassMemory& memory) override {
    const Parts parts = partsOf(weightsOf(stack), inputs.frames);
    forEachMemory(memory, parts,
                  [&](PassMemory& own) { preparePart(stack, inputs, parts.largest, own); });
  }

  void evaluate(const LayerSource& stack, const InputFrames& inputs, const OutputFrames& outputs,
                PassMemory& memory) override {
    const Parts parts = partsOf(weightsOf(stack), inputs.frames);
    if (parts.areRows) return evaluatePart(stack, inputs, outputs, memory, this);
    forEachPart(parts, inputs, outputs, [&](const InputFrames& x, const OutputFrames& y, int who) {
      evaluatePart(stack, x, y, memoryOf(memory, who), nullptr);
    });
  }

  void evaluateLayer(const LayerCall& call, PassMemory& memory) override {
    const LayerView layer = call.stack.layer(call.index);
    const std::size_t parts =
        rowParts(layer.rows, weightsOf(layer) * static_cast<uint64_t>(call.y.count), threads());
    const std::size_t together = layer.rows / kRowsTogether;
    if (parts == 1) return evaluateRows(call, layer, 0, memory);
    pool_.run(static_cast<int>(parts), [&](int part, int worker) {
      const auto place = static_cast<std::size_t>(part);
      const std::size_t first = partBegin(place, parts, together) * kRowsTogether;
      const std::size_t end =
          place + 1 == parts ? layer.rows : partBegin(place + 1, parts, together) * kRowsTogether;
      const RowsOfLayer some(layer, first, end - first);
      evaluateRows(call, some.view(), first, memoryOf(memory, worker));
    });
  }

  void prepare(const IntegerSource& stack, const IntegerKernels& kernels, const InputFrames& inputs,
               IntegerMemory& memory) override {
    const Parts parts = framePartsOf(weightsOf(stack), inputs.frames);
    forEachMemory(memory, parts, [&](IntegerMemory& own) {
      prepareIntegerPart(stack, kernels, inputs, parts.largest, own);
    });
  }

  void evaluate(const IntegerSource& stack, const IntegerKernels& kernels,
                const InputFrames& inputs, const OutputFrames& outputs,
                IntegerMemory& memory) override {
    const Parts parts = framePartsOf(weightsOf(stack), inputs.frames);
    forEachPart(parts, inputs, outputs, [&](const InputFrames& x, const OutputFrames& y, int who) {
      evaluateIntegerPart(stack, kernels, x, y, memoryOf(memory, who));
    });
  }

 private:
  // How the frames are shared out.
  struct Parts {
    bool areRows;            // of each layer, and each part has all frames
    std::size_t count;       // of parts of frames
    std::ptrdiff_t largest;  // frames in one
  };

  uint64_t threads() const { return static_cast<uint64_t>(count()); }

  Parts framePartsOf(uint64_t weights, std::ptrdiff_t frames) const {
    const auto all = static_cast<uint64_t>(frames);
    const uint64_t parts = frameParts(weights, all, threads());
    return {false, static_cast<std::size_t>(parts),
            static_cast<std::ptrdiff_t>((all + parts - 1) / parts)};
  }

  Parts partsOf(uint64_t weights, std::ptrdiff_t frames) const {
    const bool areRows =
        count() > 1 && splitsRows(weights, static_cast<uint64_t>(frames), threads());
    return areRows ? Parts{true, 1, frames} : framePartsOf(weights, frames);
  }

  // Calls `use` with the memory of each thread that may take a part.
  template <typename Memory, typename Use>
  void forEachMemory(Memory& memory, const Parts& parts, const Use& use) const {
    use(memory);
    const auto further = static_cast<std::size_t>(count() - 1);
    if (further == 0 || (!parts.areRows && parts.count == 1)) return;
    if (memory.further.size() < further) memory.further.resize(further);
    for (std::size_t i = 0; i < further; ++i) use(memory.further[i]);
  }

  template <typename Memory>
  static Memory& memoryOf(Memory& memory, int worker) {
    return worker == 0 ? memory : memory.further[static_cast<std::size_t>(worker) - 1];
  }

  // Calls `take` with each part of the frames, and the number of the thread that takes it.
  template <typename Take>
  void forEachPart(const Parts& parts, const InputFrames& inputs, const OutputFrames& outputs,
                   const Take& take) {
    const auto frames = static_cast<std::size_t>(inputs.frames);
    pool_.run(static_cast<int>(parts.count), [&](int part, int worker) {
      const std::size_t first = partBegin(static_cast<std::size_t>(part), parts.count, frames);
      const std::size_t end = partBegin(static_cast<std::size_t>(part) + 1, parts.count, frames);
      const std::size_t count = end - first;
      take(mlnn::someOf(inputs, static_cast<std::ptrdiff_t>(first),
                        static_cast<std::ptrdiff_t>(count)),
           someOf(outputs, first, count), worker);
    });
  }

  WorkerPool pool_;
};

}  // namespace

Threads::Threads() = default;
Threads::~Threads() = default;

std::shared_ptr<Threads> Threads::start(int count) {
  return std::make_shared<SharedWork>(std::clamp(count, 1, kMost));
}

int Threads::processors() {
#ifdef __STDCPP_THREADS__
  return static_cast<int>(std::max(std::thread::hardware_concurrency(), 1U));
#else
  return 1;
#endif
}

}  // namespace mlnn
