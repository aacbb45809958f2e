// FrameMemory — whether passes can read the caller's frames where they lie, and copies where not.
// Internal: not installed.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>

#include "inference/Frames.h"

namespace mlnn {

// The floats between the first and one behind the last that a walk with this step comes to.
struct Span {
  std::ptrdiff_t lowest = 0;
  std::ptrdiff_t behind = 1;

  void widen(std::ptrdiff_t steps, std::ptrdiff_t stride) {
    const std::ptrdiff_t farthest = steps * stride;
    lowest += std::min<std::ptrdiff_t>(farthest, 0);
    behind += std::max<std::ptrdiff_t>(farthest, 0);
  }
};

// Whether the memory from the first to the last input meets that of the outputs.
inline bool overlap(const InputFrames& inputs, const OutputFrames& outputs) {
  if (inputs.width == 0 || inputs.frames == 0 || outputs.width == 0 || outputs.frames == 0)
    return false;
  Span in;
  in.widen(inputs.frames - 1, inputs.frameStride);
  in.widen(inputs.width - 1, inputs.valueStride);
  Span out;
  out.widen(outputs.frames - 1, outputs.frameStride);
  out.widen(outputs.width - 1, 1);
  const std::less<const float*> before;
  return before(inputs.values + in.lowest, outputs.values + out.behind) &&
         before(outputs.values, inputs.values + in.behind);
}

// Whether the kernels cannot read the inputs where they lie: they walk through the values of a
// frame one by one, and from frame to frame only onwards.
inline bool mustBeGathered(const InputFrames& inputs) {
  return (inputs.width > 1 && inputs.valueStride != 1) ||
         (inputs.width > 0 && inputs.frames > 1 && inputs.frameStride < 0);
}

// Some of the frames. Those without values may be nowhere.
inline InputFrames someOf(const InputFrames& inputs, std::ptrdiff_t first, std::ptrdiff_t count) {
  if (inputs.width == 0) return {nullptr, 0, count, 0};
  return {inputs.values + first * inputs.frameStride, inputs.width, count, inputs.frameStride,
          inputs.valueStride};
}

// Copies frames to where the kernels can read them.
inline void gather(const InputFrames& inputs, float* to, std::ptrdiff_t stride) {
  for (std::ptrdiff_t frame = 0; frame < inputs.frames; ++frame) {
    const float* const from = inputs.values + frame * inputs.frameStride;
    for (std::ptrdiff_t i = 0; i < inputs.width; ++i) to[i] = from[i * inputs.valueStride];
    to += stride;
  }
}

inline void copyFrames(const OutputFrames& from, const OutputFrames& to) {
  for (std::ptrdiff_t frame = 0; frame < from.frames; ++frame) {
    std::copy_n(from.values + frame * from.frameStride, from.width,
                to.values + frame * to.frameStride);
  }
}

}  // namespace mlnn
