#include "tests/support/ByteImage.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "model/ModelFormat.h"

namespace mlnn::test {
namespace {

template <typename Source>
ByteImage serialized(const Source& source) {
  const int length = source.binarySerializedLength();
  if (length < 0) throw std::length_error("too large for an image");
  std::string bytes(static_cast<std::size_t>(length), '\0');
  if (source.serializeBinary(bytes.data()) != length) throw std::logic_error("length differs");
  return ByteImage(bytes);
}

// The bytes that hex digits stand for; white space between them is skipped.
std::string bytesOf(const std::string& hex) {
  std::string digits;
  std::copy_if(hex.begin(), hex.end(), std::back_inserter(digits), [](char c) { return c != ' '; });
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

}  // namespace

ByteImage ByteImage::of(const MultiLayerNNModel& model) { return serialized(model); }

ByteImage ByteImage::of(const NNLayer& layer) { return serialized(layer); }

ByteImage ByteImage::fromHex(const std::string& listing) {
  std::string bytes;
  std::istringstream lines(listing);
  for (std::string line; std::getline(lines, line);) {
    line.resize(std::min(line.find('|'), line.size()));
    const std::size_t times = line.find(" x ");
    const int count = times == std::string::npos ? 1 : std::stoi(line);
    const std::string piece = bytesOf(times == std::string::npos ? line : line.substr(times + 3));
    for (int i = 0; i < count; ++i) bytes += piece;
  }
  return ByteImage(bytes);
}

int32_t ByteImage::int32At(std::size_t offset) const {
  return static_cast<int32_t>(uint32At(offset));
}

uint32_t ByteImage::uint32At(std::size_t offset) const {
  uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;) {
    value = value << 8 | static_cast<unsigned char>(bytes_.at(offset + i));
  }
  return value;
}

ByteImage& ByteImage::setInt32At(std::size_t offset, int32_t value) {
  for (std::size_t i = 0; i < 4; ++i) {
    bytes_.at(offset + i) = static_cast<char>(static_cast<uint32_t>(value) >> 8 * i & 0xFF);
  }
  return *this;
}

ByteImage& ByteImage::setByteAt(std::size_t offset, unsigned char value) {
  bytes_.at(offset) = static_cast<char>(value);
  return *this;
}

ByteImage& ByteImage::flipBit(std::size_t bit) {
  char& byte = bytes_.at(bit / 8);
  byte = static_cast<char>(static_cast<unsigned char>(byte) ^ 1u << bit % 8);
  return *this;
}

ByteImage& ByteImage::truncateTo(std::size_t length) {
  if (length > bytes_.size()) throw std::out_of_range("truncateTo");
  bytes_.resize(length);
  return *this;
}

ByteImage& ByteImage::append(const std::string& more) {
  bytes_ += more;
  return *this;
}

ByteImage& ByteImage::fixChecksum() {
  const int32_t count = int32At(kLayerCountOffset);
  auto sum = static_cast<uint32_t>(count);
  std::size_t position = kHeadLength;
  for (int32_t i = 0; i < count && position < size(); ++i) {
    NNLayer layer;
    const int length = ByteImage(bytes_.substr(position)).readInto(layer);
    if (length < 1) throw std::invalid_argument("fixChecksum needs well-formed layer records");
    sum += crc32c(bytes_.substr(position, static_cast<std::size_t>(length)));
    position += static_cast<std::size_t>(length);
  }
  return setInt32At(kChecksumOffset, static_cast<int32_t>(sum));
}

int ByteImage::readInto(MultiLayerNNModel& model) const {
  const GuardedBytes guarded(bytes_);
  return model.deserializeBinary(guarded.data(), static_cast<unsigned int>(size()));
}

int ByteImage::readInto(NNLayer& layer) const { return readInto(layer, static_cast<int>(size())); }

int ByteImage::readInto(NNLayer& layer, int available) const {
  const GuardedBytes guarded(bytes_);
  return layer.deserializeBinary(guarded.data(), available);
}

uint32_t crc32c(const std::string& bytes) {
  constexpr uint32_t kReversedPolynomial = 0x82F63B78;
  uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (crc & 1 ? kReversedPolynomial : 0);
  }
  return ~crc;
}

}  // namespace mlnn::test
