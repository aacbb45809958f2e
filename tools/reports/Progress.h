// Progress — a bar on the standard error stream, for work that keeps a person waiting.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "features/Watch.h"

namespace mlnn {

// Returns how fast work goes and how long it will take, as in " 1200 frames/s, 0:05 left": so many
// steps were done in these seconds, which are that share of all; without the time where the share
// is 0, which means that it is not known.
std::string paceText(double seconds, uint64_t steps, const std::string& unit, double share);

// Shows nothing unless the standard error stream is a terminal and the work has taken a
// while. The bar goes when the object does, and gives way to whatever else is printed on
// std::cerr meanwhile.
//
// REQUIRES: the objects that change the buffer of std::cerr while it lives go before it does.

class Progress {
 public:
  // `total` steps are going to be done.
  Progress(std::string title, std::size_t total);

  // The work has that many parts, such as recordings, of which each is to be begun.
  explicit Progress(std::size_t parts);

  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // The parts before are done, and this one has `total` steps.
  void beginPart(std::string title, std::size_t total);

  // From now on the bar has what paceText tells behind it, of steps that are called so. Of a part
  // of 0 steps it is not known how many there are, and there is no bar.
  void tellPace(std::string unit) { unit_ = std::move(unit); }

  // `steps` more are done.
  void advance(std::size_t steps = 1);

  // Returns what advances this object, which must outlive it.
  Watch watch() {
    return [this](std::size_t steps) { advance(steps); };
  }

  // Takes the bar away, so that something can be printed elsewhere; the next step shows it
  // again.
  void hide();

 private:
  using Clock = std::chrono::steady_clock;
  class Screen;

  double shareDone() const;
  void show(Clock::time_point now);

  std::string barText() const;

  std::string title_;
  std::string unit_;  // "" where nothing is told of the pace
  std::size_t parts_;
  std::size_t begun_ = 0;  // parts
  std::size_t total_ = 1;  // steps of the part that was begun last
  std::size_t done_ = 0;   // of these
  uint64_t allDone_ = 0;   // steps of all parts
  bool isEndKnown_ = true;
  Clock::time_point start_ = Clock::now();
  std::unique_ptr<Screen> screen_;  // null where nothing is to be shown
  bool isShown_ = false;
  Clock::time_point next_;  // when the bar is to be drawn
};

}  // namespace mlnn
