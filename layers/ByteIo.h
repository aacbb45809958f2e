// ByteWriter and ByteReader — move 4-byte values between memory and a byte image by
// memcpy, in the byte order of the host. ByteSink — where bytes go piece by piece.
#pragma once

#include <cstdint>
#include <cstring>

namespace mlnn {

static_assert(sizeof(float) == 4, "images hold IEEE-754 binary32 values");
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "mlnn images are little-endian; this target is big-endian and is not supported"
#endif

// Writes one value after the other.
// REQUIRES: the destination has room for all of them; it is not checked.
class ByteWriter {
 public:
  explicit ByteWriter(char* destination) : begin_(destination), position_(destination) {}

  void bytes(const void* source, std::size_t count) {
    if (count == 0) return;  // an empty array may have no address
    std::memcpy(position_, source, count);
    position_ += count;
  }
  void int32(int32_t value) { bytes(&value, sizeof value); }
  void uint32(uint32_t value) { bytes(&value, sizeof value); }
  void floats(const float* source, std::size_t count) { bytes(source, count * sizeof(float)); }

  std::size_t length() const { return static_cast<std::size_t>(position_ - begin_); }

 private:
  char* begin_;
  char* position_;
};

// Takes bytes piece by piece.
class ByteSink {
 public:
  virtual void take(const void* bytes, std::size_t count) = 0;

 protected:
  ~ByteSink() = default;
};

// Reads one value after the other and knows how many bytes are left.
// REQUIRES: no read asks for more than remaining().
class ByteReader {
 public:
  ByteReader(const char* source, std::size_t length)
      : begin_(source), position_(source), end_(source + length) {}

  void bytes(void* target, std::size_t count) {
    std::memcpy(target, position_, count);
    position_ += count;
  }
  int32_t int32() {
    int32_t value;
    bytes(&value, sizeof value);
    return value;
  }

  std::size_t consumed() const { return static_cast<std::size_t>(position_ - begin_); }
  std::size_t remaining() const { return static_cast<std::size_t>(end_ - position_); }

 private:
  const char* begin_;
  const char* position_;
  const char* end_;
};

}  // namespace mlnn
