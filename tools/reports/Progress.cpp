#include "tools/reports/Progress.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <streambuf>
#include <utility>

#include "os/Descriptors.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

constexpr auto kPatience = std::chrono::milliseconds(700);  // before the bar appears
constexpr auto kInterval = std::chrono::milliseconds(100);  // between two drawings
constexpr std::size_t kBarLength = 30;

// Of so many seconds, as 0:05 or 1:02:03.
std::string timeText(double seconds) {
  constexpr double kLongest = 359999;  // 99:59:59
  const auto whole = static_cast<int>(std::clamp(seconds + 0.5, 0.0, kLongest));
  char text[40];
  if (whole >= 3600) {
    std::snprintf(text, sizeof text, "%d:%02d:%02d", whole / 3600, whole / 60 % 60, whole % 60);
  } else {
    std::snprintf(text, sizeof text, "%d:%02d", whole / 60, whole % 60);
  }
  return text;
}

}  // namespace

std::string paceText(double seconds, uint64_t steps, const std::string& unit, double share) {
  const double rate = seconds > 0 ? static_cast<double>(steps) / seconds : 0;
  std::string text = " " + fixedNumber(rate, rate < 10 ? 1 : 0) + " " + unit + "/s";
  if (share > 0) text += ", " + timeText(seconds * (1 - share) / share) + " left";
  return text;
}

// Stands before the buffer of std::cerr, and takes the bar away before anyone else prints.
class Progress::Screen : public std::streambuf {
 public:
  explicit Screen(Progress& progress) : progress_(progress), screen_(std::cerr.rdbuf(this)) {}
  ~Screen() override { std::cerr.rdbuf(screen_); }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  void draw(const std::string& text) {
    screen_->sputn(text.data(), static_cast<std::streamsize>(text.size()));
    screen_->pubsync();
  }

 protected:
  std::streamsize xsputn(const char* text, std::streamsize length) override {
    progress_.hide();
    return screen_->sputn(text, length);
  }
  int_type overflow(int_type character) override {
    progress_.hide();
    if (traits_type::eq_int_type(character, traits_type::eof())) return traits_type::not_eof(0);
    return screen_->sputc(traits_type::to_char_type(character));
  }
  int sync() override { return screen_->pubsync(); }

 private:
  Progress& progress_;
  std::streambuf* screen_;
};

Progress::Progress(std::string title, std::size_t total) : Progress(1) {
  beginPart(std::move(title), total);
}

Progress::Progress(std::size_t parts)
    : parts_(std::max<std::size_t>(parts, 1)), next_(Clock::now() + kPatience) {
  if (isTerminal(kStandardError)) screen_ = std::make_unique<Screen>(*this);
}

Progress::~Progress() { hide(); }

void Progress::beginPart(std::string title, std::size_t total) {
  title_ = std::move(title);
  begun_ = std::min(begun_ + 1, parts_);
  isEndKnown_ = total > 0 || unit_.empty();
  total_ = std::max<std::size_t>(total, 1);
  done_ = 0;
}

void Progress::advance(std::size_t steps) {
  done_ = std::min(done_ + steps, total_);
  allDone_ += steps;
  if (!screen_) return;
  const Clock::time_point now = Clock::now();
  if (now >= next_) show(now);
}

double Progress::shareDone() const {
  if (begun_ == 0) return 0;
  const double ofPart = static_cast<double>(done_) / static_cast<double>(total_);
  return (static_cast<double>(begun_ - 1) + ofPart) / static_cast<double>(parts_);
}

std::string Progress::barText() const {
  const double share = shareDone();
  const auto filled = static_cast<std::size_t>(share * double{kBarLength});
  return " [" + std::string(filled, '#') + std::string(kBarLength - filled, '.') + "] " +
         std::to_string(static_cast<int>(share * 100)) + " %";
}

void Progress::show(Clock::time_point now) {
  const double seconds = std::chrono::duration<double>(now - start_).count();
  screen_->draw(
      "\r" + title_ + (isEndKnown_ ? barText() : "") +
      (unit_.empty() ? "" : paceText(seconds, allDone_, unit_, isEndKnown_ ? shareDone() : 0)) +
      "\033[K");
  isShown_ = true;
  next_ = now + kInterval;
}

void Progress::hide() {
  if (isShown_) screen_->draw("\r\033[K");
  isShown_ = false;
}

}  // namespace mlnn
