// The part of DevicePass that computes in integers. Nobody links it who calls neither setIntegers
// nor inIntegers.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "inference/DeviceLayer.h"
#include "inference/DevicePass.h"
#include "inference/kernels/UnfusedKernels.h"
#include "inference/kernels/integers/IntegerDots.h"
#include "layers/RowCodes.h"
#include "model/ModelFormat.h"

namespace mlnn {
namespace {

// --- Inputs to integers ---

int32_t bitsOf(float value) {
  int32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

// A layer's inputs as integers of 16 bits, which take the place of the floats.
class RoundedInputs {
 public:
  RoundedInputs(float* x, std::size_t count, bool areWords)
      : integers_(reinterpret_cast<char*>(x)), areWords_(areWords) {
    int32_t largest = 0;
    for (std::size_t i = 0; i < count; ++i) {
      largest = std::max(largest, bitsOf(x[i]) & 0x7fffffff);
    }
    const InputScales scales =
        inputScalesFor(largest, areWords ? kLargestWideInput : kLargestInput);
    scale_ = scales.toFloat;
    for (std::size_t i = 0; i < count; ++i) {
      const int16_t integer = scales.toInteger == 0 ? int16_t{0} : nearest(x[i], scales.toInteger);
      std::memcpy(integers_ + i * sizeof integer, &integer, sizeof integer);
    }
  }

  bool areWords() const { return areWords_; }
  const float& scale() const { return scale_; }
  int operator[](std::size_t i) const {
    int16_t integer;
    std::memcpy(&integer, integers_ + i * sizeof integer, sizeof integer);
    return integer;
  }

 private:
  // Halves go to the even integer.
  static int16_t nearest(float x, float factor) {
    constexpr float kShift = 12582912.0f;  // 1.5 * 2^23
    return static_cast<int16_t>(bitsOf(x * factor + kShift) - bitsOf(kShift));
  }

  char* integers_;
  bool areWords_;
  float scale_ = 0;
};

// --- Sums ---

// The codes of a panel of rows, wherever they come from.
class PanelCodes {
 public:
  PanelCodes(const LayerView& layer, std::size_t firstRow)
      : layer_(layer), firstRow_(firstRow), rows_(std::min(kRowCodePanel, layer.rows - firstRow)) {
    for (std::size_t r = 0; r < rows_; ++r) {
      scales_[r] = layer.rowCodes != nullptr
                       ? layer.rowCodes->scale(firstRow + r)
                       : rowScale(layer.weights, layer.rows, layer.cols, firstRow + r);
    }
  }

  std::size_t rows() const { return rows_; }
  const float* scales() const { return scales_; }

  // The codes of a column, one for each row.
  void column(std::size_t col, int* codes) const {
    for (std::size_t r = 0; r < rows_; ++r) {
      if (layer_.rowCodes != nullptr) {
        codes[r] = layer_.rowCodes->code(firstRow_ + r, col);
      } else {
        const double weight = double{layer_.weights[col * layer_.rows + firstRow_ + r]};
        codes[r] = scales_[r] == 0 ? 0 : static_cast<int>(weight / double{scales_[r]});
      }
    }
  }

 private:
  const LayerView& layer_;
  std::size_t firstRow_;
  std::size_t rows_;
  float scales_[kRowCodePanel] = {};
};

// The layer of some rows alone.
LayerView rowsOf(LayerView layer, std::size_t first, std::size_t rows) {
  layer.rows = rows;
  if (layer.scale != nullptr) layer.scale += first;
  layer.shift += first;
  return layer;
}

// Sums of high and of low bytes, or of whole integers in the first place.
void addColumn(const int* codes, std::size_t rows, int input, bool isWord, int32_t* sums) {
  const int low = isWord ? ((input + 128) & 255) - 128 : 0;
  const int high = isWord ? (input - low) / 256 : input;
  for (std::size_t r = 0; r < rows; ++r) {
    sums[r] += codes[r] * high;
    sums[kRowCodePanel + r] += codes[r] * low;
  }
}

void runInIntegers(const LayerView& layer, bool areWords, float* x, float* y) {
  const RoundedInputs inputs(x, layer.cols, areWords);
  for (std::size_t first = 0; first < layer.rows; first += kRowCodePanel) {
    const PanelCodes panel(layer, first);
    int32_t sums[2 * kRowCodePanel] = {};
    int codes[kRowCodePanel];
    for (std::size_t c = 0; c < layer.cols; ++c) {
      panel.column(c, codes);
      addColumn(codes, panel.rows(), inputs[c], areWords, sums);
    }
    const LayerSums found{sums, kRowCodePanel, areWords, &inputs.scale(), panel.scales(),
                          0,    panel.rows(),  1};
    bestUnfusedKernels().finish(rowsOf(layer, first, panel.rows()), found, y + first, 0);
  }
}

// --- Layers in floats ---

bool hasCodes(const LayerView& layer) {
  if (layer.cols > kMostDotInputs) return false;
  if (layer.rowCodes != nullptr) return true;
  for (std::size_t row = 0; row < layer.rows; ++row) {
    if (rowScale(layer.weights, layer.rows, layer.cols, row) < 0) return false;
  }
  return true;
}

// Codes of rows that are too long for sums of integers.
void runUnpacked(const LayerView& layer, const float* x, float* y) {
  for (std::size_t row = 0; row < layer.rows; ++row) {
    const float scale = layer.rowCodes->scale(row);
    float sum = 0;
    for (std::size_t c = 0; c < layer.cols; ++c) {
      sum = static_cast<float>(layer.rowCodes->code(row, c)) * scale * x[c] + sum;
    }
    const float one = 1;
    LayerView rest = rowsOf(layer, row, 1);
    rest.weights = &sum;
    rest.cols = 1;
    bestUnfusedKernels().multiply(rest, &one, 1, y + row, 1, 1);
  }
}

// What is at x may be lost.
void runLayer(const LayerView& layer, bool areWords, float* x, float* y) {
  if (hasCodes(layer)) return runInIntegers(layer, areWords, x, y);
  if (layer.rowCodes != nullptr) return runUnpacked(layer, x, y);
  bestUnfusedKernels().multiply(layer, x, layer.cols, y, layer.rows, 1);
}

}  // namespace

DevicePass DevicePass::inIntegers(WideInputs wideInputs) {
  DevicePass pass(&DevicePass::runIntegers);
  pass.wideInputs_ = wideInputs;
  return pass;
}

void DevicePass::setIntegers(WideInputs wideInputs) {
  wideInputs_ = wideInputs;
  run_ = &DevicePass::runIntegers;
}

const float* DevicePass::runIntegers(const float* inputs) {
  if (inputs != input_) std::copy_n(inputs, numInputs_, input_);
  float* x = input_;
  float* next = between_[0];
  float* spare = between_[1];
  const char* record = image_ + kHeadLength;
  for (int i = 0; i < numLayers_; ++i) {
    LayerRecordView view{};
    viewLayout(record, static_cast<std::size_t>(end_ - record), view);  // as open saw it
    runLayer(deviceLayer(view), takesWords(wideInputs_, static_cast<std::size_t>(i)), x, next);
    x = next;
    std::swap(next, spare);
    record += view.length;
  }
  const UnfusedKernels& kernels = bestUnfusedKernels();
  const auto finish = endsInSoftmax_ ? kernels.softmax : kernels.giveOneNaN;
  finish(spare, static_cast<std::size_t>(numOutputs_));
  return spare;
}

}  // namespace mlnn
