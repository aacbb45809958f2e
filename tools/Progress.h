// Progress — a bar on the standard error stream, for work that keeps a person waiting.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace mlnn {

// Shows nothing unless the standard error stream is a terminal and the work has taken a
// while. The bar goes when the object does.
class Progress {
 public:
  // `total` steps are going to be done.
  Progress(std::string title, std::size_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // `steps` more are done.
  void advance(std::size_t steps = 1);

  // Takes the bar away, so that something else can be printed; the next step shows it again.
  void hide();

 private:
  using Clock = std::chrono::steady_clock;

  void show(Clock::time_point now);

  std::string title_;
  std::size_t total_;
  std::size_t done_ = 0;
  bool isTerminal_;
  bool isShown_ = false;
  Clock::time_point next_;  // when the bar is to be drawn
};

}  // namespace mlnn
