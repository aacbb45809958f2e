// Loading of either format from a stream that hands out its bytes in pieces and may lie: what it
// gives must be what the reader of the format gives for the same bytes.
#include <algorithm>
#include <istream>
#include <streambuf>

#include "fuzz/ModelChecks.h"
#include "fuzz/Support.h"
#include "model/ModelFormat.h"
#include "tests/support/ModelDifference.h"

namespace {

using mlnn::fuzz::require;

// How a source of bytes behaves.
struct Behaviour {
  std::size_t block;    // it hands out so many bytes at once
  bool seeks;           // it can be repositioned
  std::size_t missing;  // it ends so many bytes before it says that it does
};

class PieceBuffer : public std::streambuf {
 public:
  PieceBuffer(const std::string& bytes, const Behaviour& behaviour)
      : bytes_(bytes), behaviour_(behaviour), next_(0) {}

 protected:
  int_type underflow() override {
    if (gptr() != egptr()) return traits_type::to_int_type(*gptr());
    const std::size_t present = bytes_.size() - std::min(behaviour_.missing, bytes_.size());
    if (next_ >= present) return traits_type::eof();
    const std::size_t end = std::min(next_ + behaviour_.block, present);
    char* const begin = bytes_.data() + next_;
    setg(begin, begin, bytes_.data() + end);
    next_ = end;
    return traits_type::to_int_type(*gptr());
  }

  pos_type seekoff(off_type offset, std::ios::seekdir from, std::ios::openmode) override {
    if (!behaviour_.seeks) return pos_type(off_type(-1));
    const off_type taken = static_cast<off_type>(next_) - (egptr() - gptr());
    const off_type base = from == std::ios::beg   ? 0
                          : from == std::ios::cur ? taken
                                                  : static_cast<off_type>(bytes_.size());
    const off_type target = base + offset;
    if (target < 0 || target > static_cast<off_type>(bytes_.size())) return pos_type(off_type(-1));
    setg(nullptr, nullptr, nullptr);
    next_ = static_cast<std::size_t>(target);
    return pos_type(target);
  }

  pos_type seekpos(pos_type position, std::ios::openmode mode) override {
    return seekoff(off_type(position), std::ios::beg, mode);
  }

 private:
  std::string bytes_;
  Behaviour behaviour_;
  std::size_t next_;
};

int directly(const std::string& bytes, MultiLayerNNModel& model) {
  if (mlnn::isImage(bytes)) {
    return mlnn::fuzz::readImage(bytes, model) == static_cast<int>(bytes.size()) ? 0 : 1;
  }
  mlnn::fuzz::TextReading reading;
  mlnn::fuzz::readText(bytes, reading);
  model = std::move(reading.model);
  return reading.result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  // The behaviour stands behind the model, so that the model's offsets are a file's.
  constexpr std::size_t kTail = 2;
  if (size < kTail) return 0;
  mlnn::fuzz::Bytes tail(data + size - kTail, kTail);
  const uint8_t flags = tail.byte();
  const Behaviour behaviour = {std::size_t{tail.byte()} + 1, (flags & 15) != 0,
                               (flags & 16) != 0 ? std::size_t{flags} >> 5 : 0};
  const std::string bytes(reinterpret_cast<const char*>(data), size - kTail);

  MultiLayerNNModel model;
  int result = -1;
  {
    PieceBuffer buffer(bytes, behaviour);
    std::istream in(&buffer);
    mlnn::fuzz::Diagnostics diagnostics;
    const bool isImage = mlnn::isImage(bytes);
    const mlnn::fuzz::Limits limits =
        isImage ? mlnn::fuzz::imageLimits(bytes.size()) : mlnn::fuzz::textLimits(bytes.size());
    result = model.deserialize(in);
    limits.check();
    require(result == 0 || result == 1, "the result is neither 0 nor 1");
    // An image that is followed by more, or is too short to hold anything, gets no other line.
    if (result == 1 && !(isImage && bytes.size() < 8)) {
      mlnn::fuzz::requireReason(diagnostics.text());
    }
  }
  if (!behaviour.seeks || behaviour.missing > 0) return 0;

  MultiLayerNNModel direct;
  if (bytes.size() < 4) {
    require(result == 1, "a stream of less than four bytes is accepted");
    return 0;
  }
  require(directly(bytes, direct) == result, "the loader decides otherwise than the reader");
  mlnn::fuzz::requireNone(
      mlnn::test::firstDifference(
          model, direct, result == 0 ? mlnn::test::Extent::kWhole : mlnn::test::Extent::kReadParts),
      "the loader reads otherwise than the reader");
  return 0;
}
