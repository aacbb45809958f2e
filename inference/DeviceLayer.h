// DeviceLayer — a layer of an image as the kernels of a DevicePass read it.
// Internal: not installed.
#pragma once

#include <cstddef>

#include "inference/kernels/LayerView.h"
#include "layers/ActFn.h"
#include "layers/NNLayerRecord.h"

namespace mlnn {

inline const float* floatsAt(const char* values) { return reinterpret_cast<const float*>(values); }

// REQUIRES: the record lies at a multiple of 4; its weights are no codes of a table.
// Lifetime: the record outlives the view.
inline LayerView deviceLayer(const LayerRecordView& record) {
  const LayerRecordHead& head = record.head;
  const bool isBatchNorm = head.isBatchNorm == 1;
  LayerView view{};
  view.weights = floatsAt(record.plainWeights);
  view.rows = static_cast<std::size_t>(head.rows);
  view.cols = static_cast<std::size_t>(head.cols);
  view.scale = isBatchNorm ? floatsAt(record.gammaInf) : nullptr;
  view.shift = floatsAt(isBatchNorm ? record.betaInf : record.bias);
  view.actFn = static_cast<ActFn::ActFn>(head.actFn);
  view.rowCodes = hasRowScales(head.form) ? &record.rowCodes : nullptr;
  return view;
}

}  // namespace mlnn
