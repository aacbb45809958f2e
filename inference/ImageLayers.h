// ImageLayers — the layers of an image where they lie.
// Internal: not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "inference/ImageFwdPass.h"
#include "inference/LayerStackPass.h"
#include "layers/NNLayerRecord.h"

namespace mlnn {

inline bool isAligned(const char* address) {
  return reinterpret_cast<std::uintptr_t>(address) % alignof(float) == 0;
}

// The record of a layer that has none: it has no inputs and no outputs.
inline LayerRecordView emptyRecord() {
  static constexpr char kNothing[sizeof(float)] = {};
  LayerRecordView record{};
  record.plainWeights = kNothing;
  return record;
}

// Floats of an image: where they lie, or in memory of this object.
class FloatsInPlace {
 public:
  const float* at(const char* values, std::size_t count);

  // Memory for so many floats, at a cache line.
  float* make(std::size_t count);

 private:
  std::vector<std::unique_ptr<float[]>> copies_;
};

// The layers of an image, for the walk through them.
class ImageFwdPass::Layers final : public LayerSource {
 public:
  void resize(std::size_t count) { records_.assign(count, emptyRecord()); }
  LayerRecordView& record(std::size_t index) { return records_[index]; }
  const LayerRecordView& record(std::size_t index) const { return records_[index]; }

  // Takes copies of the vectors that do not lie where a float may lie.
  void prepare();

  // Does what ImageFwdPass::prepare says.
  std::size_t makeFloats(std::size_t mostBytes);

  // Returns whether each layer takes what the one before it gives; else prints an error line
  // in the name of `operation`.
  bool fit(const char* operation) const;

  void setSoftmax(bool on) { endsInSoftmax_ = on; }
  int numInputs() const { return records_.empty() ? 0 : records_.front().head.cols; }
  int numOutputs() const { return records_.empty() ? 0 : records_.back().head.rows; }

  std::size_t count() const override { return records_.size(); }
  LayerView layer(std::size_t index) const override { return views_[index]; }
  bool endsInSoftmax() const override { return endsInSoftmax_; }
  void unpack(std::size_t index, std::size_t first, std::size_t rows,
              float* weights) const override;

 private:
  std::vector<LayerRecordView> records_;
  std::vector<LayerView> views_;
  FloatsInPlace vectors_;
  std::size_t madeBytes_ = 0;
  bool endsInSoftmax_ = true;
};

}  // namespace mlnn
