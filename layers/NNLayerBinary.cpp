// The binary record of NNLayer: its length, checksum, writer and reader.
#include <limits>

#include "layers/Crc32c.h"
#include "layers/NNLayer.h"
#include "layers/NNLayerRecord.h"

namespace {

class ChecksumSink final : public mlnn::ByteSink {
 public:
  void take(const void* bytes, std::size_t count) override { crc_.add(bytes, count); }
  uint32_t value() const { return crc_.value(); }

 private:
  mlnn::Crc32c crc_;
};

}  // namespace

int NNLayer::binarySerializedLength() const {
  const uint64_t length = mlnn::recordLength(*this, mlnn::planRecord(*this));
  constexpr uint64_t kMaxInt = std::numeric_limits<int>::max();
  return length <= kMaxInt ? static_cast<int>(length) : -1;
}

uint32_t NNLayer::checksum() const {
  ChecksumSink sink;
  mlnn::writeRecord(*this, mlnn::planRecord(*this), sink);
  return sink.value();
}

int NNLayer::serializeBinary(char* dst) const {
  return mlnn::writeRecord(*this, mlnn::planRecord(*this), dst).length;
}

int NNLayer::deserializeBinary(const char* src, int available) {
  if (available < 0) return -1;
  return mlnn::readRecord(*this, src, static_cast<std::size_t>(available)).length;
}
