// FrameRing — frames in memory of somebody else's: normalised, and stacked from a ring of the last
// ones. What mlnn::ContextWindow and mlnn::DevicePass make input vectors with.
// Internal: not installed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mlnn {

// out = (frame - minvals) * normvals, two roundings a value; a copy where `minvals` is null.
void normaliseFrame(const float* frame, std::size_t frameLen, const float* minvals,
                    const float* normvals, float* out);

// The last left + 1 + right frames of a recording, frame t at place t modulo as many. Owns nothing.
struct FrameRing {
  float* frames;
  int left;
  int right;
  int frameLen;

  // Where frame `t` is kept.
  float* slot(int64_t t) const;

  // Puts the frames t - left to t + right into `input`; those before frame 0 or after frame `last`
  // repeat it.
  // REQUIRES: those that are asked for are there.
  void copyWindow(int64_t t, int64_t last, float* input) const;
};

}  // namespace mlnn
