#include "inference/IntegerImageLayers.h"

#include <utility>

namespace mlnn {

IntegerImageLayers::IntegerImageLayers(std::vector<LayerRecordView> records, bool endsInSoftmax,
                                       WideInputs wideInputs, std::shared_ptr<const void> file)
    : records_(std::move(records)), endsInSoftmax_(endsInSoftmax), file_(std::move(file)) {
  views_.reserve(records_.size());
  for (const LayerRecordView& record : records_) {
    IntegerLayerView view = viewOf(record);
    view.takesWords = view.codes.codes != nullptr && takesWords(wideInputs, views_.size());
    views_.push_back(view);
    bytes_ += record.length;
  }
}

IntegerLayerView IntegerImageLayers::viewOf(const LayerRecordView& record) {
  const LayerRecordHead& head = record.head;
  const bool isBatchNorm = head.isBatchNorm == 1;
  IntegerLayerView view{};
  view.layer.rows = static_cast<std::size_t>(head.rows);
  view.layer.cols = static_cast<std::size_t>(head.cols);
  view.layer.actFn = static_cast<ActFn::ActFn>(head.actFn);
  view.layer.scale = isBatchNorm ? floats_.at(record.gammaInf, view.layer.rows) : nullptr;
  view.layer.shift = floats_.at(isBatchNorm ? record.betaInf : record.bias, view.layer.rows);
  if (findCodes(record, view)) return view;
  if (record.plainWeights != nullptr && isAligned(record.plainWeights)) {
    view.layer.weights = reinterpret_cast<const float*>(record.plainWeights);
  }
  return view;
}

bool IntegerImageLayers::findCodes(const LayerRecordView& record, IntegerLayerView& view) {
  const std::size_t rows = view.layer.rows;
  const std::size_t cols = view.layer.cols;
  if (cols > kMostDotInputs) return false;
  if (hasRowScales(record.head.form)) {
    view.codes = record.rowCodes;
    view.rowScales = floats_.at(record.rowCodes.scales, rows);
    return true;
  }
  auto codes = std::make_unique<OwnRowCodes>();
  if (record.plainWeights != nullptr) {
    if (!codes->find(record.plainWeights, rows, cols)) return false;
  } else {
    std::vector<float> weights(rows * cols);
    unpackWeights(record, 0, rows, weights.data());
    if (!codes->find(weights.data(), rows, cols)) return false;
  }
  view.codes = codes->view();
  view.rowScales = codes->scales();
  codes_.push_back(std::move(codes));
  return true;
}

void IntegerImageLayers::unpack(std::size_t index, std::size_t first, std::size_t rows,
                                float* weights) const {
  unpackWeights(records_[index], first, rows, weights);
}

}  // namespace mlnn
