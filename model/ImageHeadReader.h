// ImageHeadReader — an ImageReader that keeps what the head says in a description and a
// normalisation.
#pragma once

#include <cstddef>

#include "features/DbnFeatureDescription.h"
#include "features/MelDeltasNorm.h"
#include "model/ImageReader.h"

namespace mlnn {

class ImageHeadReader : public ImageReader {
 public:
  // As ImageReader's; both must outlive the object.
  ImageHeadReader(const char* head, std::size_t length, DbnFeatureDescription& featureDesc,
                  MelDeltasNorm& deltasNorm)
      : ImageReader(head, length), featureDesc_(featureDesc), deltasNorm_(deltasNorm) {}

 protected:
  ~ImageHeadReader() = default;

 private:
  // Prints: an info line with the description.
  void takeFeatureDescription(const DbnFeatureDescription& featureDesc) override;
  void takeMinvals(const char* values) override;
  void takeNormvals(const char* values) override;

  DbnFeatureDescription& featureDesc_;
  MelDeltasNorm& deltasNorm_;
};

}  // namespace mlnn
