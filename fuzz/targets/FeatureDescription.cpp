// The text form of a feature description, against a parser of its grammar that shares nothing
// with the library's.
#include <array>
#include <cstring>
#include <string_view>

#include "features/DbnFeatureDescription.h"
#include "fuzz/Support.h"

namespace {

using mlnn::fuzz::require;

struct Expected {
  bool isAccepted = false;
  std::array<int64_t, 6> values = {};  // bands, left, right, deltas, line kernels, width
};

// Takes an optional minus and digits; false where there is none or an int32 does not hold it.
bool takeInt(std::string_view& text, int64_t& value) {
  std::size_t length = !text.empty() && text[0] == '-' ? 1 : 0;
  const bool isNegative = length == 1;
  const std::size_t first = length;
  int64_t magnitude = 0;
  for (; length < text.size() && text[length] >= '0' && text[length] <= '9'; ++length) {
    if (magnitude <= int64_t{1} << 40) magnitude = 10 * magnitude + (text[length] - '0');
  }
  value = isNegative ? -magnitude : magnitude;
  const bool isThere = length > first;
  text.remove_prefix(length);
  return isThere && value >= INT32_MIN && value <= INT32_MAX;
}

Expected expected(std::string_view text) {
  constexpr std::array<std::string_view, 6> kKeys = {
      "mel_deltas:bands=", ",left=",         ",right=",
      ",deltas=",          ",line_kernels=", ",line_kernel_width="};
  Expected result;
  for (std::size_t i = 0; i < kKeys.size(); ++i) {
    if (text.substr(0, kKeys[i].size()) != kKeys[i]) return result;
    text.remove_prefix(kKeys[i].size());
    const bool isFlag = i == 3 || i == 4;
    if (isFlag) {
      if (text.empty() || (text[0] != '0' && text[0] != '1')) return result;
      result.values[i] = text[0] - '0';
      text.remove_prefix(1);
    } else if (!takeInt(text, result.values[i])) {
      return result;
    }
  }
  result.isAccepted = text.empty();
  return result;
}

// A double holds every product that is an int exactly, and its sign and size of any other.
int positiveInt(double value) {
  return value >= 1 && value <= INT32_MAX ? static_cast<int>(value) : 0;
}

void requireLengths(const DbnFeatureDescription& desc) {
  const double frame = double{desc.useDeltas ? 3.0 : 1.0} * desc.numBands;
  const double windows = 1.0 + desc.winSizeLeft + desc.winSizeRight;
  require(desc.frameLen() == positiveInt(frame), "frameLen");
  require(desc.featLen() == positiveInt(frame * windows), "featLen");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  desc.reserved = 77;
  desc.numBands = 5;
  const DbnFeatureDescription before = desc;
  const mlnn::fuzz::Limits limits(size, 4, 4096);
  const int result = desc.deserialize(text);
  const Expected wanted = expected(text);
  require((result == 0) == wanted.isAccepted, "decides otherwise than the plain parser");
  if (result != 0) {
    require(result == 1, "the result is neither 0 nor 1");
    require(std::memcmp(&desc, &before, sizeof desc) == 0, "a refused text changed the value");
    limits.check();
    return 0;
  }
  const std::array<int64_t, 6> values = {desc.numBands,
                                         desc.winSizeLeft,
                                         desc.winSizeRight,
                                         desc.useDeltas ? 1 : 0,
                                         desc.useLineKernels ? 1 : 0,
                                         desc.lineKernelWidth};
  require(values == wanted.values, "reads otherwise than the plain parser");
  requireLengths(desc);
  std::string written;
  desc.serialize(written);
  DbnFeatureDescription again(DbnFeatureDescription::MelDeltas);
  require(again.deserialize(written) == 0, "what was written cannot be read");
  require(std::memcmp(&desc, &again, sizeof desc) == 0, "what was written reads otherwise");
  limits.check();
  return 0;
}
