#include "tools/reports/Progress.h"

#include <algorithm>
#include <iostream>
#include <streambuf>
#include <utility>

#include "os/Descriptors.h"

namespace mlnn {
namespace {

constexpr auto kPatience = std::chrono::milliseconds(700);  // before the bar appears
constexpr auto kInterval = std::chrono::milliseconds(100);  // between two drawings
constexpr std::size_t kBarLength = 30;

}  // namespace

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
  total_ = std::max<std::size_t>(total, 1);
  done_ = 0;
}

void Progress::advance(std::size_t steps) {
  done_ = std::min(done_ + steps, total_);
  if (!screen_) return;
  const Clock::time_point now = Clock::now();
  if (now >= next_) show(now);
}

double Progress::shareDone() const {
  if (begun_ == 0) return 0;
  const double ofPart = static_cast<double>(done_) / static_cast<double>(total_);
  return (static_cast<double>(begun_ - 1) + ofPart) / static_cast<double>(parts_);
}

void Progress::show(Clock::time_point now) {
  const double share = shareDone();
  const auto filled = static_cast<std::size_t>(share * double{kBarLength});
  screen_->draw("\r" + title_ + " [" + std::string(filled, '#') +
                std::string(kBarLength - filled, '.') + "] " +
                std::to_string(static_cast<int>(share * 100)) + " %\033[K");
  isShown_ = true;
  next_ = now + kInterval;
}

void Progress::hide() {
  if (isShown_) screen_->draw("\r\033[K");
  isShown_ = false;
}

}  // namespace mlnn
