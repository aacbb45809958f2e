// IntegerImageLayers — an image's layers as the integer pass reads them: where they lie.
// Internal: not installed.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "inference/ImageLayers.h"
#include "inference/IntegerFwdPass.h"
#include "inference/IntegerLayers.h"
#include "inference/IntegerStackPass.h"
#include "layers/NNLayerRecord.h"

namespace mlnn {

// Codes with row scales, plain floats and vectors stay where they lie. Weights that an image holds
// in another form, though they are codes by rows, become codes in memory of their own, so that the
// results are those of the model.
class IntegerImageLayers final : public IntegerSource {
 public:
  // Keeps `file`, if the image is mapped.
  // REQUIRES: each layer takes what the one before it gives.
  IntegerImageLayers(std::vector<LayerRecordView> records, bool endsInSoftmax,
                     WideInputs wideInputs, std::shared_ptr<const void> file);

  std::size_t count() const override { return records_.size(); }
  IntegerLayerView layer(std::size_t index) const override { return views_[index]; }
  bool endsInSoftmax() const override { return endsInSoftmax_; }
  std::size_t bytes() const override { return bytes_; }
  void unpack(std::size_t index, std::size_t first, std::size_t rows,
              float* weights) const override;

 private:
  IntegerLayerView viewOf(const LayerRecordView& record);
  bool findCodes(const LayerRecordView& record, IntegerLayerView& view);

  std::vector<LayerRecordView> records_;
  std::vector<IntegerLayerView> views_;
  std::vector<std::unique_ptr<const OwnRowCodes>> codes_;
  FloatsInPlace floats_;
  std::size_t bytes_ = 0;
  bool endsInSoftmax_;
  std::shared_ptr<const void> file_;
};

}  // namespace mlnn
