// Progress — a bar on the standard error stream, for work that keeps a person waiting.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "features/Watch.h"

namespace mlnn {

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

  std::string title_;
  std::size_t parts_;
  std::size_t begun_ = 0;           // parts
  std::size_t total_ = 1;           // steps of the part that was begun last
  std::size_t done_ = 0;            // of these
  std::unique_ptr<Screen> screen_;  // null where nothing is to be shown
  bool isShown_ = false;
  Clock::time_point next_;  // when the bar is to be drawn
};

}  // namespace mlnn
