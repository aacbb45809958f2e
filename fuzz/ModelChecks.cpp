#include "fuzz/ModelChecks.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <iterator>
#include <memory>
#include <sstream>

#include "fuzz/Support.h"
#include "layers/CodedWeights.h"
#include "model/ModelFormat.h"
#include "tests/support/LiteralAsciiReader.h"
#include "tests/support/ModelDifference.h"

namespace mlnn::fuzz {
namespace {

using mlnn::test::Extent;
using mlnn::test::firstDifference;
using mlnn::test::LiteralReading;

// docs/text-format.md and docs/binary-format.md promise these. "#\n" is the least that makes a
// note, which is a string of its own in a vector that doubles.
constexpr std::size_t kTextMultiple = 64;
constexpr std::size_t kTextConstant = std::size_t{4} << 20;
constexpr std::size_t kImageMultiple = 8;
constexpr std::size_t kImageConstant = std::size_t{1} << 20;

// Above this many entries the library may leave short what it could not read.
constexpr std::size_t kWholeArrayLimit = 65536;

std::string restOf(std::istream& in) {
  in.clear();
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Whether a note or property line holds something that the reader acts on: then writing it at
// another place, as the writer does with properties, may change what comes of it.
bool hasMarkedLines(std::string_view text) {
  return text.find(kFeatDescToolMarker) != std::string_view::npos ||
         text.find(kMinvalsMarker) != std::string_view::npos ||
         text.find(kNormvalsMarker) != std::string_view::npos;
}

// Whether a layer has a shape that the format writes but does not read: batch norm with outputs and
// no inputs (docs/text-format.md).
bool hasUnreadableLayer(const MultiLayerNNModel& model) {
  return std::any_of(model.layers.begin(), model.layers.end(), [](const NNLayer* layer) {
    return layer->isBatchNorm && layer->weights.rows() > 0 && layer->weights.cols() == 0;
  });
}

}  // namespace

Limits textLimits(std::size_t length) { return {length, kTextMultiple, kTextConstant}; }

Limits imageLimits(std::size_t length) { return {length, kImageMultiple, kImageConstant}; }

std::string textOf(const MultiLayerNNModel& model) {
  std::ostringstream out;
  out.precision(9);
  require(model.serializeAscii(out) == 0, "serializeAscii does not return 0");
  return out.str();
}

std::string imageOf(const MultiLayerNNModel& model) {
  const int length = model.binarySerializedLength();
  require(length >= 0, "the image is too large");
  std::string image(static_cast<std::size_t>(length), '\0');
  require(model.serializeBinary(image.data()) == length, "the image has another length");
  return image;
}

void requireReason(std::string_view messages) {
  require(messages.find("ERR") != std::string_view::npos, "refused without a reason");
}

void readText(const std::string& text, TextReading& reading) {
  {
    Diagnostics diagnostics;
    std::istringstream in(text);
    const Limits limits = textLimits(text.size());
    reading.result = reading.model.deserializeAscii(in);
    limits.check();
    reading.messages = diagnostics.text();
    reading.state = in.rdstate();
    reading.rest = restOf(in);
  }
  if (reading.result != 0) requireReason(reading.messages);

  MultiLayerNNModel model;
  std::istringstream in(text);
  std::ostringstream messages;
  const LiteralReading literal = mlnn::test::literalDeserializeAscii(model, in, messages);
  if (!literal.result) return;  // the text asks for more than the literal reader gives
  require(reading.result == *literal.result, "result differs from the literal reader's");
  require(reading.messages == messages.str(), "messages differ from the literal reader's");
  require(reading.state == in.rdstate(), "stream state differs from the literal reader's");
  require(reading.rest == restOf(in), "position differs from the literal reader's");
  const bool mayBeShort = reading.result != 0 && literal.largestRequest > kWholeArrayLimit;
  requireNone(
      firstDifference(reading.model, model, mayBeShort ? Extent::kReadParts : Extent::kWhole),
      "model differs from the literal reader's");
}

void requireTextRoundTrip(const MultiLayerNNModel& model, std::string_view text) {
  const std::string written = textOf(model);
  MultiLayerNNModel again;
  std::istringstream in(written);
  Diagnostics diagnostics;
  const int result = again.deserializeAscii(in);
  if (hasMarkedLines(text)) {
    if (result == 0) require(textOf(again) == written, "marked lines: the text changed");
    return;
  }
  if (hasUnreadableLayer(model)) {
    require(result == 1, "a batch-norm layer without inputs is read back");
    return;
  }
  require(result == 0, "what was written cannot be read");
  require(textOf(again) == written, "what was read back writes another text");
  requireNone(firstDifference(model, again), "what was written reads back otherwise");
}

int readImage(std::string_view image, MultiLayerNNModel& model) {
  // A block of its own, so that a byte too far is noticed.
  const std::unique_ptr<char[]> bytes(new char[image.size()]);
  std::memcpy(bytes.get(), image.data(), image.size());
  Diagnostics diagnostics;
  const Limits limits = imageLimits(image.size());
  const int result = model.deserializeBinary(bytes.get(), static_cast<unsigned int>(image.size()));
  limits.check();
  if (result == -1 && image.size() >= kMinImageLength) requireReason(diagnostics.text());
  return result;
}

namespace {

std::string recordAt(const std::string& image, std::size_t position) {
  NNLayer layer;
  const int length =
      layer.deserializeBinary(image.data() + position, static_cast<int>(image.size() - position));
  require(length > 0, "a record that was taken is refused");
  return image.substr(position, static_cast<std::size_t>(length));
}

}  // namespace

bool mayReplace(const std::string& read, const std::string& written) {
  const auto formOf = [](const std::string& record) {
    uint32_t form;
    std::memcpy(&form, record.data(), sizeof form);
    return form;
  };
  return !hasRowScales(formOf(read)) && hasRowScales(formOf(written)) &&
         written.size() < read.size();
}

namespace {

void requireSameRecord(const std::string& read, const std::string& written) {
  if (mayReplace(read, written)) return;
  require(read == written, "a record changed");
}

}  // namespace

void requireImageRoundTrip(const MultiLayerNNModel& model, std::string_view image) {
  std::string expected(image);
  for (const std::size_t flag : {offsetof(DbnFeatureDescription, useDeltas),
                                 offsetof(DbnFeatureDescription, useLineKernels)}) {
    char& byte = expected[kFeatureDescOffset + flag];
    byte = byte != 0 ? 1 : 0;
  }
  const std::string written = imageOf(model);
  constexpr std::size_t kBehindChecksum = kChecksumOffset + sizeof(uint32_t);
  require(written.compare(0, kChecksumOffset, expected, 0, kChecksumOffset) == 0 &&
              written.compare(kBehindChecksum, kHeadLength - kBehindChecksum, expected,
                              kBehindChecksum, kHeadLength - kBehindChecksum) == 0,
          "the image's head changed");
  std::size_t position = kHeadLength;
  bool isSame = true;
  for (std::size_t from = kHeadLength; from < expected.size();) {
    const std::string read = recordAt(expected, from);
    const std::string again = recordAt(written, position);
    requireSameRecord(read, again);
    isSame = isSame && read == again;
    from += read.size();
    position += again.size();
  }
  require(!isSame || written.compare(0, kHeadLength, expected, 0, kHeadLength) == 0,
          "the image's checksum changed");
  // Layers that the image announces but does not hold are empty, and are written as such.
  require(written.find_first_not_of('\0', position) == std::string::npos,
          "there is more in the image than it held");
  MultiLayerNNModel again;
  require(readImage(written, again) == static_cast<int>(written.size()),
          "what was written cannot be read");
  requireNone(firstDifference(model, again), "what was written reads back otherwise");
}

}  // namespace mlnn::fuzz
