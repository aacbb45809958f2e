#include "tools/commands/LayerSizes.h"

#include <charconv>
#include <cstdint>
#include <limits>

#include "text/Escape.h"
#include "tools/Failure.h"

namespace mlnn {
namespace {

// Reads a number above 0 at the front of [next, end), and moves `next` behind it.
bool readSize(const char*& next, const char* end, int& size) {
  const std::from_chars_result result = std::from_chars(next, end, size);
  next = result.ptr;
  return result.ec == std::errc() && size > 0;
}

}  // namespace

std::vector<int> parseLayerSizes(const std::string& text) {
  std::vector<int> sizes;
  const char* next = text.data();
  const char* const end = next + text.size();
  for (int size = 0; readSize(next, end, size); ++next) {
    sizes.push_back(size);
    if (next != end && *next == ',') continue;
    if (next == end && sizes.size() >= 2) return sizes;
    break;
  }
  throw UsageError("expected two or more sizes of 1 to 2147483647, as in 360,512,40, but found " +
                   inQuotes(text));
}

void checkNetworkSize(const std::vector<int>& sizes, bool batchNorm) {
  constexpr uint64_t kMaxBytes = std::numeric_limits<int32_t>::max();
  const uint64_t vectors = batchNorm ? 5 : 1;  // with as many values as the layer has outputs
  uint64_t bytes = 0;
  for (std::size_t i = 1; i < sizes.size() && bytes <= kMaxBytes; ++i) {
    const auto outputs = static_cast<uint64_t>(sizes[i]);
    bytes += outputs * (static_cast<uint64_t>(sizes[i - 1]) + vectors) * sizeof(float);
  }
  if (bytes <= kMaxBytes) return;
  throw Failure("the parameters would take more than " + std::to_string(kMaxBytes) +
                " bytes, which is the most that a binary image can hold");
}

}  // namespace mlnn
