// ByteImage — the bytes of a binary record or image, with the ways in which tests damage them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "layers/NNLayer.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn::test {

class ByteImage {
 public:
  explicit ByteImage(std::string bytes = {}) : bytes_(std::move(bytes)) {}

  // The image of a model and the record of a layer.
  static ByteImage of(const MultiLayerNNModel& model);
  static ByteImage of(const NNLayer& layer);

  // Reads a listing of hex bytes divided by blanks. "N x " at the start of a line repeats its
  // bytes; what follows a '|' is a comment.
  static ByteImage fromHex(const std::string& listing);

  std::size_t size() const { return bytes_.size(); }
  const std::string& bytes() const { return bytes_; }

  // Every verb throws std::out_of_range where the image is too short for it.
  int32_t int32At(std::size_t offset) const;
  uint32_t uint32At(std::size_t offset) const;
  ByteImage& setInt32At(std::size_t offset, int32_t value);
  ByteImage& setByteAt(std::size_t offset, unsigned char value);
  ByteImage& flipBit(std::size_t bit);
  ByteImage& truncateTo(std::size_t length);
  ByteImage& append(const std::string& more);

  // Puts the checksum of an image's layers, which must be well formed, into its head.
  ByteImage& fixChecksum();

  // Hands the image to a model. The bytes lie right before a page that cannot be read.
  int readInto(MultiLayerNNModel& model) const;

  // The same for a layer record, with `available` bytes, or all there are.
  int readInto(NNLayer& layer) const;
  int readInto(NNLayer& layer, int available) const;

 private:
  std::string bytes_;
};

// CRC-32C, bit by bit: slow, and independent of the library's.
uint32_t crc32c(const std::string& bytes);

// A copy of some bytes whose end is the end of readable memory.
class GuardedBytes {
 public:
  explicit GuardedBytes(const std::string& bytes);
  ~GuardedBytes();
  GuardedBytes(const GuardedBytes&) = delete;
  GuardedBytes& operator=(const GuardedBytes&) = delete;

  const char* data() const { return data_; }

 private:
  char* mapping_;
  std::size_t mappingLength_;
  char* data_;
};

}  // namespace mlnn::test
