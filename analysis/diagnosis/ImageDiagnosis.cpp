#include "analysis/diagnosis/ImageDiagnosis.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <utility>

#include "analysis/diagnosis/RowCodesMisfit.h"
#include "layers/ByteIo.h"
#include "layers/NNLayer.h"
#include "layers/NNLayerRecord.h"
#include "model/ModelFormat.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

constexpr std::size_t kMaxImageLength = std::numeric_limits<int>::max();

std::string bytesText(std::size_t count) { return counted(count, "byte"); }

class ImageWalk {
 public:
  explicit ImageWalk(std::string_view image) : image_(image) {}

  std::optional<Misfit> run() {
    if (headFits() && layersFit() && endFits()) checksumFits();
    return misfit_;
  }

 private:
  // Stores what does not fit and returns false.
  bool refuse(std::size_t offset, std::string field, std::string expected, std::string found,
              std::string hint = "") {
    misfit_ = Misfit{offset,         0, 0, std::move(field), std::move(expected), std::move(found),
                     std::move(hint)};
    return false;
  }
  bool refuseValue(std::size_t offset, std::string field, std::string expected, int64_t found) {
    return refuse(offset, std::move(field), std::move(expected), std::to_string(found));
  }

  bool headFits();
  bool isThere(std::size_t offset, std::size_t count, const char* field);
  bool countFits(std::size_t offset, const char* field, int32_t expected);
  bool layerCountFits();
  bool layersFit();
  bool recordsPresent(std::size_t read);
  bool refuseRecord(std::size_t number);
  bool recordHeadFits(const std::string& layer, const LayerRecordHead& head);
  bool vectorLengthsFit(const std::string& layer, const LayerRecordHead& head);
  bool arraysFit(const std::string& layer, const LayerRecordHead& head);
  bool codesFit(const LayerRecordHead& head, std::size_t left);
  bool codesFit(const std::string& layer, const LayerRecordHead& head);
  bool refuseRowCodes(const std::string& layer, const LayerRecordHead& head);
  bool refuseWeights(const std::string& layer, const LayerRecordHead& head);
  bool endFits();
  bool checksumFits();

  int32_t int32At(std::size_t offset) const {
    return ByteReader(image_.data() + offset, sizeof(int32_t)).int32();
  }
  std::size_t available() const { return std::min(image_.size(), kMaxImageLength) - position_; }

  std::string_view image_;
  std::size_t position_ = kHeadLength;
  int32_t numLayers_ = 0;
  uint32_t checksum_ = 0;
  std::optional<Misfit> misfit_;
};

bool ImageWalk::isThere(std::size_t offset, std::size_t count, const char* field) {
  if (offset + count <= image_.size()) return true;
  return refuse(offset, field, bytesText(count),
                std::string(kEndOfFile) + " after " + bytesText(image_.size()),
                "the head of an image takes " + bytesText(kHeadLength));
}

bool ImageWalk::countFits(std::size_t offset, const char* field, int32_t expected) {
  if (!isThere(offset, sizeof(int32_t), field)) return false;
  const int32_t found = int32At(offset);
  return found == expected || refuseValue(offset, field, std::to_string(expected), found);
}

bool ImageWalk::headFits() {
  if (image_.size() > kMaxImageLength) {
    return refuse(kMaxImageLength, "image", "at most " + bytesText(kMaxImageLength),
                  bytesText(image_.size()));
  }
  return isThere(kChecksumOffset, sizeof(int32_t), "checksum") &&
         countFits(kFeatureDescLengthOffset, "length of the feature description",
                   kFeatureDescLength) &&
         isThere(kFeatureDescOffset, kFeatureDescLength, "feature description") &&
         countFits(kMinvalsLengthOffset, "number of minvals", kDeltasNormLength) &&
         isThere(kMinvalsOffset, kDeltasNormBytes, "minvals") &&
         countFits(kNormvalsLengthOffset, "number of normvals", kDeltasNormLength) &&
         isThere(kNormvalsOffset, kDeltasNormBytes, "normvals") &&
         isThere(kLayerCountOffset, sizeof(int32_t), "number of layers") && layerCountFits();
}

bool ImageWalk::layerCountFits() {
  numLayers_ = int32At(kLayerCountOffset);
  if (numLayers_ < 0) {
    return refuseValue(kLayerCountOffset, "number of layers", "0 or more", numLayers_);
  }
  const uint64_t room = (image_.size() - kHeadLength) / kMinLayerRecordLength;
  if (static_cast<uint64_t>(numLayers_) <= room + uint64_t{kMissingLayersAllowed}) return true;
  return refuse(kLayerCountOffset, "number of layers", "at most " + std::to_string(room),
                std::to_string(numLayers_),
                "the image has " + bytesText(image_.size() - kHeadLength) +
                    " for layer records, and none is shorter than " +
                    bytesText(kMinLayerRecordLength));
}

bool ImageWalk::layersFit() {
  checksum_ = static_cast<uint32_t>(numLayers_);
  std::size_t read = 0;
  NNLayer layer;
  for (; read < static_cast<std::size_t>(numLayers_) && position_ < image_.size(); ++read) {
    const RecordResult record = readRecord(layer, image_.data() + position_, available());
    if (record.length <= 0) return refuseRecord(read + 1);
    position_ += static_cast<std::size_t>(record.length);
    checksum_ += record.checksum;
  }
  return recordsPresent(read);
}

// Layers whose records are missing at the end are empty ones, which the checksum may cover.
bool ImageWalk::recordsPresent(std::size_t read) {
  const auto missing = static_cast<uint32_t>(static_cast<std::size_t>(numLayers_) - read);
  checksum_ += missing * NNLayer().checksum();
  if (missing == 0 || checksum_ == static_cast<uint32_t>(int32At(kChecksumOffset))) return true;
  return refuse(image_.size(), "layer " + std::to_string(read + 1), "a layer record", kEndOfFile,
                "the head announces " + counted(static_cast<std::size_t>(numLayers_), "layer") +
                    " (byte " + std::to_string(kLayerCountOffset) + "), the image holds " +
                    std::to_string(read));
}

// Finds out why the layer's own reader does not take the record at the position.
bool ImageWalk::refuseRecord(std::size_t number) {
  const std::string layer = "layer " + std::to_string(number);
  if (available() < std::size_t{kMinLayerRecordLength}) {
    return refuse(position_, layer + ", record head", bytesText(kMinLayerRecordLength),
                  std::string(kEndOfFile) + " after " + bytesText(available()));
  }
  LayerRecordHead head;
  std::memcpy(&head, image_.data() + position_, sizeof head);
  if (!recordHeadFits(layer, head) || !vectorLengthsFit(layer, head)) return false;
  if (head.form == kPlainFloats ? !arraysFit(layer, head) : !codesFit(layer, head)) return false;
  return refuseWeights(layer, head);
}

// The record is whole, but its weights are not what a writer makes of them.
bool ImageWalk::refuseWeights(const std::string& layer, const LayerRecordHead& head) {
  if (head.form == kPlainFloats) {
    return refuse(position_ + offsetof(LayerRecordHead, form), layer + ", form of the weights",
                  "codes, which take fewer bytes for weights of so few different values", "floats");
  }
  if (hasRowScales(head.form)) return refuseRowCodes(layer, head);
  return refuse(position_ + sizeof head, layer + ", coded weights",
                "a table of ascending values, codes that use each of them, and no shorter form",
                "another one");
}

bool ImageWalk::refuseRowCodes(const std::string& layer, const LayerRecordHead& head) {
  const std::size_t form = position_ + offsetof(LayerRecordHead, form);
  if (head.rows == 0 || head.cols == 0) {
    return refuse(form, layer + ", form of the weights",
                  std::to_string(kPlainFloats) + ", since there are no weights",
                  std::to_string(head.form));
  }
  RowCodesView view;
  view.rows = static_cast<std::size_t>(head.rows);
  view.cols = static_cast<std::size_t>(head.cols);
  view.bits = codeBits(head.form);
  view.scales = image_.data() + position_ + sizeof head;
  view.codes = reinterpret_cast<const unsigned char*>(view.scales + view.rows * sizeof(float));
  const RowCodesMisfit misfit = misfitOfRowCodes(view);
  const auto* const place = static_cast<const char*>(misfit.place);
  return refuse(place == nullptr ? form : static_cast<std::size_t>(place - image_.data()),
                layer + ", " + misfit.field, misfit.expected, misfit.found);
}

// Whether so many bytes have room for the weights that the record announces.
bool ImageWalk::codesFit(const LayerRecordHead& head, std::size_t left) {
  const auto rows = uint64_t(head.rows);
  const auto cols = uint64_t(head.cols);
  if (hasRowScales(head.form)) return rowScaledLength(head.form, rows, cols) <= left;
  return codedLength(head.form, rows * cols, image_.data() + position_ + sizeof head, left) > 0;
}

// Finds out what is wrong with the lengths of coded weights.
bool ImageWalk::codesFit(const std::string& layer, const LayerRecordHead& head) {
  const std::size_t start = sizeof head;
  const std::size_t left = available() - start;
  if (left < kCodedPrefixLength) {
    return refuse(position_ + start, layer + ", coded weights", bytesText(kCodedPrefixLength),
                  std::string(kEndOfFile) + " after " + bytesText(left));
  }
  const auto tableLength = static_cast<uint32_t>(int32At(position_ + start));
  if (hasTable(head.form) && (tableLength == 0 || tableLength > maxTableLength(head.form))) {
    return refuseValue(position_ + start, layer + ", number of values in the table",
                       "1 to " + std::to_string(maxTableLength(head.form)), tableLength);
  }
  const uint64_t vectors =
      sizeof(float) *
      (uint64_t(head.biasLength) + uint64_t(head.gammaLength) + uint64_t(head.betaLength) +
       uint64_t(head.gammaInfLength) + uint64_t(head.betaInfLength));
  if (vectors <= left && codesFit(head, left - static_cast<std::size_t>(vectors))) return true;
  return refuse(position_ + start, layer + ", coded weights and vectors",
                "codes for " + std::to_string(head.rows) + " x " + std::to_string(head.cols) +
                    " weights, and " + std::to_string(vectors) + " bytes of vectors",
                std::string(kEndOfFile) + " after " + bytesText(left),
                "the image is cut short, or the sizes at byte " +
                    std::to_string(position_ + offsetof(LayerRecordHead, rows)) + " are wrong");
}

bool ImageWalk::recordHeadFits(const std::string& layer, const LayerRecordHead& head) {
  const auto at = [this](std::size_t member) { return position_ + member; };
  if (head.form >= kNumWeightForms) {
    return refuseValue(at(offsetof(LayerRecordHead, form)), layer + ", form of the weights",
                       "0 to " + std::to_string(kNumWeightForms - 1), head.form);
  }
  if (head.rows < 0) {
    return refuseValue(at(offsetof(LayerRecordHead, rows)), layer + ", number of outputs",
                       "0 or more", head.rows);
  }
  if (head.cols < 0) {
    return refuseValue(at(offsetof(LayerRecordHead, cols)), layer + ", number of inputs",
                       "0 or more", head.cols);
  }
  if (head.actFn < 0 || head.actFn >= ActFn::kCount) {
    return refuseValue(at(offsetof(LayerRecordHead, actFn)), layer + ", activation",
                       "a code from 0 to " + std::to_string(ActFn::kCount - 1), head.actFn);
  }
  if (head.isBatchNorm > 1) {
    return refuseValue(at(offsetof(LayerRecordHead, isBatchNorm)), layer + ", batch-norm flag",
                       "0 or 1", head.isBatchNorm);
  }
  return true;
}

bool ImageWalk::vectorLengthsFit(const std::string& layer, const LayerRecordHead& head) {
  const bool isBatchNorm = head.isBatchNorm == 1;
  struct Vector {
    const char* name;
    std::size_t member;
    int32_t length;
    bool isUsed;
  };
  const Vector vectors[] = {
      {"bias", offsetof(LayerRecordHead, biasLength), head.biasLength, !isBatchNorm},
      {"gamma", offsetof(LayerRecordHead, gammaLength), head.gammaLength, isBatchNorm},
      {"beta", offsetof(LayerRecordHead, betaLength), head.betaLength, isBatchNorm},
      {"gamma_inf", offsetof(LayerRecordHead, gammaInfLength), head.gammaInfLength, isBatchNorm},
      {"beta_inf", offsetof(LayerRecordHead, betaInfLength), head.betaInfLength, isBatchNorm},
  };
  for (const Vector& vector : vectors) {
    if (vector.length == head.rows || (!vector.isUsed && vector.length == 0)) continue;
    const std::string rows = std::to_string(head.rows);
    return refuseValue(position_ + vector.member, layer + ", length of " + vector.name,
                       vector.isUsed ? rows + ", the number of outputs"
                                     : "0 or " + rows + ", the number of outputs",
                       vector.length);
  }
  return true;
}

// Finds the first array that is not wholly there.
bool ImageWalk::arraysFit(const std::string& layer, const LayerRecordHead& head) {
  const std::string shape = std::to_string(head.rows) + " x " + std::to_string(head.cols);
  const std::pair<std::string, uint64_t> arrays[] = {
      {"weights (" + shape + ")", uint64_t(head.rows) * uint64_t(head.cols)},
      {"bias", uint64_t(head.biasLength)},
      {"gamma", uint64_t(head.gammaLength)},
      {"beta", uint64_t(head.betaLength)},
      {"gamma_inf", uint64_t(head.gammaInfLength)},
      {"beta_inf", uint64_t(head.betaInfLength)},
  };
  std::size_t offset = sizeof head;
  for (const auto& [name, length] : arrays) {
    const std::size_t left = available() - offset;
    if (length > left / sizeof(float)) {
      return refuse(position_ + offset, std::string(layer).append(", ").append(name),
                    std::to_string(length * sizeof(float)) + " bytes",
                    std::string(kEndOfFile) + " after " + bytesText(left),
                    "the image is cut short, or the sizes at byte " +
                        std::to_string(position_ + offsetof(LayerRecordHead, rows)) + " are wrong");
    }
    offset += static_cast<std::size_t>(length) * sizeof(float);
  }
  return true;
}

bool ImageWalk::endFits() {
  if (position_ >= image_.size()) return true;
  NNLayer further;
  const bool isLayer =
      further.deserializeBinary(image_.data() + position_, static_cast<int>(available())) > 0;
  return refuse(
      position_, "end of the image",
      std::string(kEndOfFile) + " after " + counted(static_cast<std::size_t>(numLayers_), "layer"),
      bytesText(image_.size() - position_) + " more",
      isLayer ? "these bytes begin with a further layer record: the number of layers (byte " +
                    std::to_string(kLayerCountOffset) + ") may be too small"
              : "");
}

bool ImageWalk::checksumFits() {
  const auto stored = static_cast<uint32_t>(int32At(kChecksumOffset));
  if (checksum_ == stored) return true;
  return refuse(kChecksumOffset, "checksum",
                std::to_string(checksum_) + ", the sum over the layers", std::to_string(stored),
                "some byte of a layer record, or of the checksum itself, was changed");
}

}  // namespace

std::optional<Misfit> diagnoseImage(std::string_view image) { return ImageWalk(image).run(); }

}  // namespace mlnn
