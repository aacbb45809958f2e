// Names spoken words with a network from flash, a frame at a time, in an array of its own: no heap,
// no exceptions, no streams. See README.md beside this file.
//
// The recordings are those that examples/rom/print-words prints: for each a line with the word's
// class and its number of frames, then the frames as floats of this machine.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "examples/device/Board.h"
#include "inference/DevicePass.h"
#include "layers/Crc32c.h"
#include "layers/Messages.h"

// Defined in digits.c, which `mlnn convert` writes.
extern "C" const uint32_t digits_image[];
extern "C" const std::size_t digits_image_length;

namespace {

constexpr int kInputs = 600;  // of the network, and its widest layer's outputs
constexpr int kWidest = 64;
constexpr int kFrameLen = 120;
constexpr int kClasses = 10;
constexpr float kFloor = 1e-30f;  // below it a posterior counts as this, so that its log is finite

alignas(mlnn::kDeviceAlignment) char memory[mlnn::deviceMemoryBytes(kInputs, kWidest)];

void showNumber(std::size_t number) {
  char digits[24];
  char* first = digits + sizeof digits - 1;
  *first = '\0';
  do {
    *--first = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number != 0);
  show(first);
}

void showHexadecimal(uint32_t number) {
  char digits[9] = {};
  for (int i = 7; i >= 0; --i, number >>= 4) digits[i] = "0123456789abcdef"[number & 15];
  show(digits);
}

// Reads a number and the byte behind it. Returns: whether there was one.
bool readNumber(int& number) {
  number = 0;
  char byte;
  int digits = 0;
  for (; readWords(&byte, 1) && byte >= '0' && byte <= '9' && digits < 9; ++digits) {
    number = 10 * number + (byte - '0');
  }
  return digits > 0;
}

// What the network makes of words.
class Listener {
 public:
  explicit Listener(mlnn::DevicePass& pass) : pass_(pass) {}

  // Reads a word of so many frames. Returns: its class; -1 where the recordings end before.
  int name(int frames) {
    std::fill_n(sums_, kClasses, 0.0f);
    float frame[kFrameLen];
    for (; frames > 0; --frames) {
      if (!readWords(frame, sizeof frame)) return -1;
      add(pass_.push(frame));
    }
    while (const float* posteriors = pass_.finish()) add(posteriors);
    return static_cast<int>(std::max_element(sums_, sums_ + kClasses) - sums_);
  }

  int frames() const { return frames_; }
  uint32_t checksum() const { return checksum_.value(); }

 private:
  void add(const float* posteriors) {
    if (posteriors == nullptr) return;
    for (int i = 0; i < kClasses; ++i) sums_[i] += std::log(std::max(posteriors[i], kFloor));
    checksum_.add(posteriors, kClasses * sizeof(float));
    ++frames_;
  }

  mlnn::DevicePass& pass_;
  float sums_[kClasses] = {};  // of the logs of posteriors
  mlnn::Crc32c checksum_;      // of all posteriors
  int frames_ = 0;
};

void tell(mlnn::Severity, std::string_view text, void*) {
  show(text.data());
  show("\n");
}

// Takes the image. Returns: whether it is the network that this program was made for.
bool openImage(mlnn::DevicePass& pass) {
  if (mlnn::DevicePass::memoryBytes(digits_image, digits_image_length) != sizeof memory)
    return false;
  if (pass.open(digits_image, digits_image_length, memory, sizeof memory) != 0) return false;
  return pass.frameLen() == kFrameLen && pass.numOutputs() == kClasses;
}

void showResults(const Listener& listener, int words, int right) {
  showNumber(static_cast<std::size_t>(right));
  show(" of ");
  showNumber(static_cast<std::size_t>(words));
  show(" words right\n");
  showNumber(static_cast<std::size_t>(listener.frames()));
  show(" frames, checksum of the posteriors ");
  showHexadecimal(listener.checksum());
  show("\n");
  showNumber(sizeof memory);
  show(" bytes of memory for the pass, ");
  showNumber(stackUsed());
  show(" bytes of stack\n");
}

}  // namespace

int main() {
  mlnn::setMessageSink(tell, nullptr);
  mlnn::DevicePass pass;
  if (!openImage(pass)) return 1;
  Listener listener(pass);
  int words = 0;
  int right = 0;
  int wanted;
  int frames;
  while (readNumber(wanted) && readNumber(frames)) {
    const int named = listener.name(frames);
    if (named < 0) return 1;
    ++words;
    if (named == wanted) ++right;
  }
  showResults(listener, words, right);
  return words > 0 ? 0 : 1;
}
