#include "features/FrameRing.h"

#include <algorithm>

namespace mlnn {

void normaliseFrame(const float* frame, std::size_t frameLen, const float* minvals,
                    const float* normvals, float* out) {
  if (minvals == nullptr) {
    std::copy_n(frame, frameLen, out);
    return;
  }
  for (std::size_t i = 0; i < frameLen; ++i) out[i] = (frame[i] - minvals[i]) * normvals[i];
}

float* FrameRing::slot(int64_t t) const {
  return frames + static_cast<std::ptrdiff_t>(t % (left + 1 + right)) * frameLen;
}

void FrameRing::copyWindow(int64_t t, int64_t last, float* input) const {
  for (int offset = -left; offset <= right; ++offset) {
    const int64_t source = std::clamp<int64_t>(t + offset, 0, last);
    input = std::copy_n(slot(source), frameLen, input);
  }
}

}  // namespace mlnn
