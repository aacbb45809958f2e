// Names spoken words with a network from an array that is linked into the program: no file system,
// no copy of the weights, no iostreams, a frame at a time. See README.md beside this file.
//
// The words come on the standard input: a line with the word's class and its number of frames, then
// the frames as floats of this machine. At the end the program prints how many it named rightly.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "features/ContextWindow.h"
#include "inference/ImageFwdPass.h"

// Defined in digits.c, which `mlnn convert` writes.
extern "C" const uint32_t digits_image[];
extern "C" const std::size_t digits_image_length;

// Takes the place of what prints the type of an exception that nobody catches: 47 KB of code.
#ifdef __GLIBCXX__
void __gnu_cxx::__verbose_terminate_handler() { std::abort(); }
#endif

namespace {

constexpr int kFrameLength = 120;
constexpr float kFloor = 1e-30f;  // below it a posterior counts as this, so that its log is finite

// Adds up what the network makes of the frames of a word.
class Listener {
 public:
  Listener(mlnn::ImageFwdPass& pass, mlnn::ContextWindow& window)
      : pass_(pass),
        window_(window),
        input_(static_cast<std::size_t>(pass.numInputs())),
        posteriors_(static_cast<std::size_t>(pass.numOutputs())),
        sums_(posteriors_.size()) {}

  // Takes the next frame of the word. Returns: whether the network could be evaluated.
  bool hear(const float* frame) { return !window_.push(frame, input_.data()) || add(); }

  // Ends the word and is ready for the next. Returns: the word's class; -1 where the network could
  // not be evaluated.
  int name() {
    while (window_.finish(input_.data())) {
      if (!add()) return -1;
    }
    const auto best = std::max_element(sums_.begin(), sums_.end()) - sums_.begin();
    std::fill(sums_.begin(), sums_.end(), 0.0f);
    return static_cast<int>(best);
  }

 private:
  bool add() {
    const mlnn::InputFrames inputs(input_.data(), pass_.numInputs(), 1);
    const mlnn::OutputFrames outputs(posteriors_.data(), pass_.numOutputs(), 1);
    if (pass_.evaluate(inputs, outputs) != 0) return false;
    for (std::size_t i = 0; i < sums_.size(); ++i) {
      sums_[i] += std::log(std::max(posteriors_[i], kFloor));
    }
    return true;
  }

  mlnn::ImageFwdPass& pass_;
  mlnn::ContextWindow& window_;
  std::vector<float> input_;
  std::vector<float> posteriors_;
  std::vector<float> sums_;  // of the logs of posteriors
};

// A word on the standard input, before its frames.
struct Heading {
  int wanted = 0;  // the word's class
  int frames = 0;
};

// Reads "CLASS FRAMES" without scanf, which takes 120 KB along. Returns: whether there was a line.
bool readHeading(Heading& heading) {
  char line[32];
  if (!std::fgets(line, sizeof line, stdin)) return false;
  char* rest = line;
  heading.wanted = static_cast<int>(std::strtol(rest, &rest, 10));
  heading.frames = static_cast<int>(std::strtol(rest, &rest, 10));
  return true;
}

// Reads the frames of a word. Returns: its class; -1 without frames, and where the input ends
// before.
int nameWord(Listener& listener, int frames) {
  if (frames <= 0) return -1;
  float frame[kFrameLength];
  for (; frames > 0; --frames) {
    if (std::fread(frame, sizeof frame, 1, stdin) != 1 || !listener.hear(frame)) return -1;
  }
  return listener.name();
}

}  // namespace

int main() {
  mlnn::ImageFwdPass pass;
  if (pass.open(digits_image, digits_image_length) != 0) return 1;  // the reason is on stderr
  std::string whyNot;
  auto window =
      mlnn::ContextWindow::create(pass.featureDesc(), pass.deltasNorm(), kFrameLength, whyNot);
  if (!window || window->inputLen() != pass.numInputs()) return 1;
  Listener listener(pass, *window);
  int words = 0;
  int right = 0;
  Heading heading;
  while (readHeading(heading)) {
    const int named = nameWord(listener, heading.frames);
    if (named < 0) return 1;
    ++words;
    if (named == heading.wanted) ++right;
  }
  std::printf("%d of %d words right\n", right, words);
}
