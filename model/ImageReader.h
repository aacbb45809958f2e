// ImageReader — reads the binary image of a model step by step, in the order, with the checks
// and with the messages of docs/binary-format.md; where the layers come from and go to is left
// to derived classes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "features/DbnFeatureDescription.h"
#include "layers/NNLayerRecord.h"

namespace mlnn {

// What is wrong with an image of `length` bytes, fewer than it begins with. read() says so from 8
// bytes on, and refuses shorter images without a word.
std::string shorterThanHead(std::size_t length);

class ImageReader {
 public:
  // `head` is the first kHeadLength bytes of an image of `length` bytes, or all of a shorter one.
  ImageReader(const char* head, std::size_t length) : head_(head), length_(length) {}

  // Whether the checksum is computed and compared; the default is that it is.
  void checkSum(bool isChecked) { checksSum_ = isChecked; }

  // Returns the number of bytes consumed, or -1 after an error line.
  int read();

 protected:
  ~ImageReader() = default;

 private:
  virtual void takeFeatureDescription(const DbnFeatureDescription& featureDesc) = 0;

  // Each takes the MelDeltasNorm::kLength floats at `values`, at any address.
  virtual void takeMinvals(const char* values) = 0;
  virtual void takeNormvals(const char* values) = 0;

  // Makes room for so many layers, which are empty or hold what they held.
  virtual void prepareLayers(std::size_t count) = 0;

  // Reads the record of layer `index` at `position`, of at most `available` bytes.
  virtual RecordResult readLayer(std::size_t index, std::size_t position,
                                 std::size_t available) = 0;

  // Returns the checksum of a layer whose record the image does not have.
  virtual uint32_t checksumOfUnread(std::size_t index) = 0;

  bool readFeatureDescription();
  bool readNormalisation();
  bool readLayerCount();
  bool readLayers();
  bool checksumMatches();

  bool has(std::size_t offset, std::size_t count) const;
  int32_t int32At(std::size_t offset) const;

  const char* head_;
  std::size_t length_;
  bool checksSum_ = true;
  std::size_t layerCount_ = 0;
  std::size_t layersRead_ = 0;
  std::size_t position_ = 0;
  uint32_t checksum_ = 0;  // of the records read
};

}  // namespace mlnn
