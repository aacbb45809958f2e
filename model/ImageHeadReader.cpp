#include "model/ImageHeadReader.h"

#include <cstring>
#include <string>

#include "layers/Report.h"
#include "model/ModelFormat.h"

namespace mlnn {

void ImageHeadReader::takeFeatureDescription(const DbnFeatureDescription& featureDesc) {
  featureDesc_ = featureDesc;
  std::string text;
  featureDesc_.serialize(text);
  report({"info: deserializeBinary: feature desc: ", text});
}

void ImageHeadReader::takeMinvals(const char* values) {
  deltasNorm_.allocIfNeeded();
  std::memcpy(deltasNorm_.minvals.data(), values, kDeltasNormBytes);
}

void ImageHeadReader::takeNormvals(const char* values) {
  std::memcpy(deltasNorm_.normvals.data(), values, kDeltasNormBytes);
}

}  // namespace mlnn
