#include "tools/files/Npy.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>
#include <ostream>
#include <string_view>
#include <vector>

#include "text/Escape.h"
#include "tools/Failure.h"

namespace mlnn {
namespace {

using Eigen::Index;
using namespace std::string_view_literals;

constexpr std::string_view kNpyMagic = "\x93NUMPY";
constexpr std::size_t kVersionLength = 2;  // major, minor
constexpr std::size_t kAlignment = 64;     // where the values begin in a file that is written

constexpr std::string_view kFloat32 = "<f4";
constexpr std::string_view kFloat64 = "<f8";

struct Header {
  std::string_view type;
  bool fortranOrder = false;
  std::vector<uint64_t> shape;
};

// Reads the header's text, a Python dictionary such as
//   {'descr': '<f4', 'fortran_order': False, 'shape': (53, 120), }
// from left to right.
class HeaderParser {
 public:
  // `offset` is where the text stands in the file.
  HeaderParser(std::string_view text, std::size_t offset, const std::string& what)
      : text_(text), offset_(offset), what_(what) {}

  Header parse() {
    expect("{");
    while (!skip("}")) {
      parseEntry();
      if (skip(",")) continue;
      expect("}");
      break;
    }
    skipBlanks();
    if (position_ != text_.size()) fail("the end of the header");
    if (!type_) fail("an entry 'descr'");
    if (!order_) fail("an entry 'fortran_order'");
    if (!shape_) fail("an entry 'shape'");
    return {*type_, *order_, *shape_};
  }

 private:
  void parseEntry() {
    const std::size_t start = position_;
    const std::string_view key = parseString();
    expect(":");
    if (key == "descr" && !type_) {
      type_ = parseString();
    } else if (key == "fortran_order" && !order_) {
      order_ = parseBool();
    } else if (key == "shape" && !shape_) {
      shape_ = parseShape();
    } else {
      position_ = start;
      fail("each of 'descr', 'fortran_order' and 'shape' once");
    }
  }

  std::string_view parseString() {
    const char quote = skip("'") ? '\'' : '"';
    if (quote == '"') expect("\"", "a string");
    const std::size_t end = text_.find(quote, position_);
    if (end == std::string_view::npos) fail("the end of the string");
    const std::string_view value = text_.substr(position_, end - position_);
    position_ = end + 1;
    return value;
  }

  bool parseBool() {
    if (skip("True")) return true;
    expect("False", "True or False");
    return false;
  }

  std::vector<uint64_t> parseShape() {
    std::vector<uint64_t> shape;
    expect("(");
    while (!skip(")")) {
      shape.push_back(parseCount());
      if (skip(",")) continue;
      expect(")");
      break;
    }
    return shape;
  }

  uint64_t parseCount() {
    skipBlanks();
    uint64_t value = 0;
    const char* end = text_.data() + text_.size();
    const std::from_chars_result result = std::from_chars(text_.data() + position_, end, value);
    if (result.ec != std::errc()) fail("a count that is not negative and fits 64 bits");
    position_ = static_cast<std::size_t>(result.ptr - text_.data());
    skip("L");  // Python 2 marked its long integers
    return value;
  }

  void skipBlanks() {
    while (position_ < text_.size() && " \t\r\n"sv.find(text_[position_]) != std::string_view::npos)
      ++position_;
  }

  bool skip(std::string_view word) {
    skipBlanks();
    if (text_.substr(position_, word.size()) != word) return false;
    position_ += word.size();
    return true;
  }

  void expect(std::string_view word) { expect(word, inQuotes(word)); }

  void expect(std::string_view word, const std::string& description) {
    if (!skip(word)) fail(description);
  }

  [[noreturn]] void fail(const std::string& expected) const {
    constexpr std::size_t kShown = 20;
    const std::string_view rest = text_.substr(position_);
    throw Failure(what_ + ": .npy header at byte " + std::to_string(offset_ + position_) +
                  ": expected " + expected + ", found " +
                  (rest.empty() ? "the end" : inQuotes(rest.substr(0, kShown))));
  }

  std::string_view text_;
  std::size_t offset_;
  const std::string& what_;
  std::size_t position_ = 0;
  std::optional<std::string_view> type_;
  std::optional<bool> order_;
  std::optional<std::vector<uint64_t>> shape_;
};

std::size_t littleEndian(std::string_view bytes) {
  std::size_t value = 0;
  for (std::size_t i = bytes.size(); i-- > 0;) {
    value = value << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return value;
}

constexpr std::size_t kLengthOffset = kNpyMagic.size() + kVersionLength;

// How many bytes tell the length of the header's text.
std::size_t lengthOfLength(std::string_view bytes, const std::string& what) {
  const int major = static_cast<unsigned char>(bytes[kNpyMagic.size()]);
  const int minor = static_cast<unsigned char>(bytes[kNpyMagic.size() + 1]);
  if (major < 1 || major > 3 || minor != 0) {
    throw Failure(what + ": expected .npy version 1.0, 2.0 or 3.0, found " + std::to_string(major) +
                  "." + std::to_string(minor));
  }
  return major == 1 ? 2 : 4;
}

// Where the header's text is.
struct HeaderPlace {
  std::size_t offset;
  std::size_t length;
  std::size_t end() const { return offset + length; }
};

// Returns nothing where the bytes end before the text begins.
std::optional<HeaderPlace> headerPlace(std::string_view bytes, const std::string& what,
                                       std::size_t& wanted) {
  wanted = kLengthOffset;
  if (bytes.size() < wanted) return std::nullopt;
  wanted += lengthOfLength(bytes, what);
  if (bytes.size() < wanted) return std::nullopt;
  return HeaderPlace{wanted, littleEndian(bytes.substr(kLengthOffset, wanted - kLengthOffset))};
}

// As Python writes it; of many dimensions only the first ones and their number.
std::string textOf(const std::vector<uint64_t>& shape) {
  constexpr std::size_t kShown = 8;
  std::string text = "(";
  for (std::size_t i = 0; i < std::min(shape.size(), kShown); ++i) {
    text += (i > 0 ? ", " : "") + std::to_string(shape[i]);
  }
  if (shape.size() > kShown) {
    return text + ", ...) of " + std::to_string(shape.size()) + " dimensions";
  }
  return text + (shape.size() == 1 ? ",)" : ")");
}

NpyArray arrayOf(const Header& header, std::size_t begin, const std::string& what) {
  const bool areDoubles = header.type == kFloat64;
  if (!areDoubles && header.type != kFloat32) {
    throw Failure(what + ": expected values of type " + std::string(kFloat32) + " or " +
                  std::string(kFloat64) + ", found '" + shortened(header.type) + "'");
  }
  if (header.shape.empty() || header.shape.size() > 2) {
    throw Failure(what + ": expected frames x values, found shape " + textOf(header.shape));
  }
  const uint64_t frames = header.shape.size() == 2 ? header.shape[0] : 1;
  const uint64_t values = header.shape.back();
  if (frames == 0 || values == 0) {
    throw Failure(what + ": holds no values, its shape is " + textOf(header.shape));
  }
  return {frames, values, areDoubles, header.fortranOrder, begin, textOf(header.shape)};
}

template <typename Value>
void copyValues(const char* from, std::size_t count, float* target) {
  for (std::size_t i = 0; i < count; ++i) {
    Value value;
    std::memcpy(&value, from + i * sizeof value, sizeof value);
    target[i] = static_cast<float>(value);
  }
}

}  // namespace

bool isNpy(const std::string& bytes) { return bytes.compare(0, kNpyMagic.size(), kNpyMagic) == 0; }

bool couldBeNpy(std::string_view bytes) {
  return bytes.substr(0, kNpyMagic.size()) == kNpyMagic.substr(0, bytes.size());
}

std::optional<NpyArray> parseNpyHeader(std::string_view bytes, const std::string& what,
                                       std::size_t& wanted) {
  const std::optional<HeaderPlace> place = headerPlace(bytes, what, wanted);
  if (!place) return std::nullopt;
  if (bytes.size() - place->offset < place->length) {
    wanted = place->length < bytes.max_size() - place->offset ? place->end() : bytes.max_size();
    return std::nullopt;
  }
  const Header header =
      HeaderParser(bytes.substr(place->offset, place->length), place->offset, what).parse();
  return arrayOf(header, place->end(), what);
}

void failInNpyHeader(std::string_view bytes, const std::string& what) {
  std::size_t wanted = 0;
  const std::optional<HeaderPlace> place = headerPlace(bytes, what, wanted);
  if (!place) throw Failure(what + ": .npy file ends before its header");
  throw Failure(what + ": .npy file ends in its header: expected " + std::to_string(place->length) +
                " bytes from byte " + std::to_string(place->offset) + ", found " +
                std::to_string(bytes.size() - place->offset));
}

void checkNpyLength(const NpyArray& array, uint64_t available, const std::string& what) {
  const uint64_t present = available / array.valueLength();
  const bool fits = array.values <= present && array.frames <= present / array.values;
  if (!fits || array.frames * array.values * array.valueLength() != available) {
    throw Failure(what + ": expected shape " + array.shape + " of " +
                  std::to_string(array.valueLength()) + "-byte values, found " +
                  std::to_string(available) + " bytes of values");
  }
}

void copyNpyValues(const NpyArray& array, const char* from, std::size_t count, float* target) {
  if (array.areDoubles) {
    copyValues<double>(from, count, target);
  } else {
    copyValues<float>(from, count, target);
  }
}

Eigen::MatrixXf parseNpy(const std::string& bytes, const std::string& what) {
  std::size_t wanted = 0;
  const std::optional<NpyArray> array = parseNpyHeader(bytes, what, wanted);
  if (!array) failInNpyHeader(bytes, what);
  checkNpyLength(*array, bytes.size() - array->begin, what);
  const auto width = static_cast<Index>(array->values);
  const auto count = static_cast<Index>(array->frames);
  const char* const values = bytes.data() + array->begin;
  Eigen::MatrixXf frames(width, count);
  if (!array->fortranOrder) {
    copyNpyValues(*array, values, static_cast<std::size_t>(frames.size()), frames.data());
    return frames;
  }
  Eigen::VectorXf ofFrames(count);
  for (Index v = 0; v < width; ++v) {
    const auto skipped = static_cast<std::size_t>(v * count) * array->valueLength();
    copyNpyValues(*array, values + skipped, static_cast<std::size_t>(count), ofFrames.data());
    frames.row(v) = ofFrames.transpose();
  }
  return frames;
}

std::string npyHeader(uint64_t frames, uint64_t values) {
  std::string header = "{'descr': '" + std::string(kFloat32) + "', 'fortran_order': False, " +
                       "'shape': (" + std::to_string(frames) + ", " + std::to_string(values) +
                       "), }";
  const std::size_t head = kNpyMagic.size() + kVersionLength + sizeof(uint16_t);
  const std::size_t length = head + header.size() + 1;
  header.append((kAlignment - length % kAlignment) % kAlignment, ' ').push_back('\n');
  std::string result(kNpyMagic);
  result +=
      {'\1', '\0', static_cast<char>(header.size() & 0xFF), static_cast<char>(header.size() >> 8)};
  return result + header;
}

void writeNpy(const Eigen::MatrixXf& frames, std::ostream& out) {
  out << npyHeader(static_cast<uint64_t>(frames.cols()), static_cast<uint64_t>(frames.rows()));
  out.write(reinterpret_cast<const char*>(frames.data()),
            static_cast<std::streamsize>(frames.size()) * std::streamsize{sizeof(float)});
}

}  // namespace mlnn
