// Pace — how many frames to run at once, so that whoever watches hears of them often enough.
#pragma once

#include <Eigen/Core>
#include <algorithm>
#include <chrono>

#include "features/Watch.h"

namespace mlnn {

// Begins with few frames and takes more while these are done in a moment. The results of a forward
// pass do not depend on it.
class Pace {
 public:
  // Where nobody watches, there is no need to be slow.
  Pace(const Watch& watch, Eigen::Index most)
      : most_(most), frames_(watch ? std::min(kFirst, most) : most) {}

  Eigen::Index frames() const { return frames_; }

  // Runs `work()`, of as many frames.
  template <typename Work>
  void run(Work work) {
    const Clock::time_point start = Clock::now();
    work();
    if (Clock::now() - start < kMoment) frames_ = std::min(2 * frames_, most_);
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr Eigen::Index kFirst = 16;
  static constexpr std::chrono::milliseconds kMoment{20};

  Eigen::Index most_;
  Eigen::Index frames_;
};

}  // namespace mlnn
