#include "tools/Progress.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <utility>

namespace mlnn {
namespace {

constexpr auto kPatience = std::chrono::milliseconds(700);  // before the bar appears
constexpr auto kInterval = std::chrono::milliseconds(100);  // between two drawings
constexpr std::size_t kBarLength = 30;

}  // namespace

Progress::Progress(std::string title, std::size_t total)
    : title_(std::move(title)),
      total_(std::max<std::size_t>(total, 1)),
      isTerminal_(isatty(STDERR_FILENO) != 0),
      next_(Clock::now() + kPatience) {}

Progress::~Progress() { hide(); }

void Progress::advance(std::size_t steps) {
  done_ = std::min(done_ + steps, total_);
  if (!isTerminal_) return;
  const Clock::time_point now = Clock::now();
  if (now >= next_) show(now);
}

void Progress::show(Clock::time_point now) {
  const double share = static_cast<double>(done_) / static_cast<double>(total_);
  const auto filled = static_cast<std::size_t>(share * double{kBarLength});
  std::cerr << "\r" + title_ + " [" + std::string(filled, '#') +
                   std::string(kBarLength - filled, '.') + "] " +
                   std::to_string(static_cast<int>(share * 100)) + " %\033[K";
  isShown_ = true;
  next_ = now + kInterval;
}

void Progress::hide() {
  if (isShown_) std::cerr << "\r\033[K";
  isShown_ = false;
}

}  // namespace mlnn
