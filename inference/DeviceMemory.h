// DeviceMemory — how much memory a mlnn::DevicePass is given.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mlnn {

// That memory begins at a multiple of so many bytes; each array in it does too.
inline constexpr std::size_t kDeviceAlignment = 64;

// Returns the bytes of an array of floats, with those up to the next.
constexpr uint64_t deviceArrayBytes(uint64_t floats) {
  return (floats * sizeof(float) + kDeviceAlignment - 1) / kDeviceAlignment * kDeviceAlignment;
}

// Returns the bytes that a network needs whose first layer takes `inputs` values and whose widest
// layer gives `widest`: for the frames of a window, the input vector they make, what goes from
// layer to layer, and the kernels. It is the same on every processor.
// REQUIRES: neither is negative.
constexpr uint64_t deviceMemoryBytes(int inputs, int widest) {
  return 2 * deviceArrayBytes(static_cast<uint64_t>(inputs)) +
         3 * deviceArrayBytes(static_cast<uint64_t>(widest));
}

}  // namespace mlnn
