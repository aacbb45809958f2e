#include "model/ImageReader.h"

#include <algorithm>
#include <limits>
#include <string>

#include "layers/ByteIo.h"
#include "layers/Report.h"
#include "model/ModelFormat.h"

namespace mlnn {
namespace {

constexpr char kImageOf[] = "image of ";
constexpr char kShorterThanHead[] = " bytes is shorter than its head (";

}  // namespace

std::string shorterThanHead(std::size_t length) {
  return kImageOf + std::to_string(length) + kShorterThanHead + std::to_string(kHeadLength) + ")";
}

int ImageReader::read() {
  if (length_ < kMinImageLength) return -1;
  if (!isImage({head_, kMagicLength})) {
    report({"ERROR: MultiLayerNNModel::deserializeBinary: could not find header 'MLNN'"});
    return -1;
  }
  if (!readFeatureDescription() || !readNormalisation() || !readLayerCount()) return -1;
  if (!readLayers() || !checksumMatches()) return -1;
  return static_cast<int>(position_);
}

bool ImageReader::has(std::size_t offset, std::size_t count) const {
  if (offset + count <= length_) return true;
  report({"ERROR: MultiLayerNNModel::deserializeBinary: ", kImageOf, length_, kShorterThanHead,
          kHeadLength, ")"});
  return false;
}

int32_t ImageReader::int32At(std::size_t offset) const {
  return ByteReader(head_ + offset, sizeof(int32_t)).int32();
}

bool ImageReader::readFeatureDescription() {
  if (!has(kFeatureDescLengthOffset, sizeof(int32_t))) return false;
  const int32_t length = int32At(kFeatureDescLengthOffset);
  if (length != kFeatureDescLength) {
    report({"ERROR: deserializeBinary: sizeof feature description in model (", length,
            ") does not match current size (", kFeatureDescLength, ")"});
    return false;
  }
  if (!has(kFeatureDescOffset, kFeatureDescLength)) return false;
  takeFeatureDescription(featureDescriptionFromBytes(head_ + kFeatureDescOffset));
  return true;
}

// "ERRROR" is fixed by the format's users.
bool ImageReader::readNormalisation() {
  if (!has(kMinvalsLengthOffset, sizeof(int32_t))) return false;
  const int32_t minvalsLength = int32At(kMinvalsLengthOffset);
  if (minvalsLength != kDeltasNormLength) {
    report({"ERRROR: deserializeBinary: deltas min length (", minvalsLength,
            ") does not match expected length (", kDeltasNormLength, ")"});
    return false;
  }
  if (!has(kMinvalsOffset, kDeltasNormBytes)) return false;
  takeMinvals(head_ + kMinvalsOffset);

  if (!has(kNormvalsLengthOffset, sizeof(int32_t))) return false;
  const int32_t normvalsLength = int32At(kNormvalsLengthOffset);
  if (normvalsLength != kDeltasNormLength) {
    report({"ERRROR: deserializeBinary: deltas norm length (", normvalsLength,
            ") does not match expected length (", kDeltasNormLength, ")"});
    return false;
  }
  if (!has(kNormvalsOffset, kDeltasNormBytes)) return false;
  takeNormvals(head_ + kNormvalsOffset);
  return true;
}

bool ImageReader::readLayerCount() {
  if (!has(kLayerCountOffset, sizeof(int32_t))) return false;
  const int32_t count = int32At(kLayerCountOffset);
  const auto room = static_cast<int64_t>((length_ - kHeadLength) / kMinLayerRecordLength);
  if (count < 0 || count > room + kMissingLayersAllowed) {
    report({"ERROR: MultiLayerNNModel::deserializeBinary: invalid layer count ", count});
    return false;
  }
  layerCount_ = static_cast<std::size_t>(count);
  prepareLayers(layerCount_);
  return true;
}

bool ImageReader::readLayers() {
  // Positions are ints to callers, so records beyond the largest int are out of reach.
  const std::size_t end = std::min<std::size_t>(length_, std::numeric_limits<int>::max());
  position_ = kHeadLength;
  while (layersRead_ < layerCount_ && position_ < length_) {
    const RecordResult record = readLayer(layersRead_, position_, end - position_);
    if (record.length <= 0) {
      report({"ERROR: MultiLayerNNModel::deserializeBinary: could not read layer index: ",
              layersRead_});
      return false;
    }
    position_ += static_cast<std::size_t>(record.length);
    checksum_ += record.checksum;
    ++layersRead_;
  }
  if (position_ != length_) {  // a warning only
    report({"ERROR: MultiLayerNNModel::deserializeBinary: problem deserializing model"});
  }
  return true;
}

bool ImageReader::checksumMatches() {
  if (!checksSum_) return true;
  uint32_t computed = static_cast<uint32_t>(layerCount_) + checksum_;
  for (std::size_t i = layersRead_; i < layerCount_; ++i) computed += checksumOfUnread(i);
  const auto stored = static_cast<uint32_t>(int32At(kChecksumOffset));
  if (computed == stored) return true;
  report({"ERROR: MultiLayerNNModel::deserializeBinary: checksums did not match (", stored,
          " != ", computed, ")"});
  return false;
}

}  // namespace mlnn
