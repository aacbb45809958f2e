// Either format, with the two bytes behind it that tell how the stream behaves.
#include "fuzz/mutators/Mutation.h"

extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed) {
  constexpr std::size_t kTail = 2;
  mlnn::fuzz::Random random(seed);
  std::string bytes(reinterpret_cast<const char*>(data), size);
  std::string tail(kTail, '\1');
  if (bytes.size() >= kTail) {
    tail = bytes.substr(bytes.size() - kTail);
    bytes.resize(bytes.size() - kTail);
  }
  if (random.oneIn(4)) tail[random.below(kTail)] = static_cast<char>(random.word());
  const bool isImage = bytes.compare(0, 4, "MLNN") == 0;
  if (isImage != random.oneIn(32)) {
    mlnn::fuzz::mutateImage(bytes, random);
  } else {
    mlnn::fuzz::mutateText(bytes, random);
  }
  return mlnn::fuzz::give(bytes + tail, data, maxSize);
}
