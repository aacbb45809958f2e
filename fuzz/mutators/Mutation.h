// Random choices of the mutators, and models that they make up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

extern "C" std::size_t LLVMFuzzerMutate(uint8_t* data, std::size_t size, std::size_t maxSize);

namespace mlnn::fuzz {

class Random {
 public:
  explicit Random(unsigned int seed) : source_(seed) {}
  uint32_t word() {
    return static_cast<uint32_t>(source_()) << 16 ^ static_cast<uint32_t>(source_());
  }
  std::size_t below(std::size_t limit) { return word() % limit; }
  bool oneIn(std::size_t times) { return below(times) == 0; }

  template <typename T, std::size_t N>
  const T& of(const T (&choices)[N]) {
    return choices[below(N)];
  }

 private:
  std::minstd_rand source_;
};

// Copies `made` into the fuzzer's block, cut where it is too long.
std::size_t give(const std::string& made, uint8_t* data, std::size_t maxSize);

// Applies the fuzzer's own mutation to a string, which becomes at most `room` longer.
void mutateBytes(std::string& bytes, std::size_t room);

// A well-formed layer record of a few units, and an image of some of them.
std::string makeRecord(Random& random);
std::string makeImage(Random& random);

// The length of the record at the start of these bytes, 0 where there is none.
std::size_t recordLength(const char* bytes, std::size_t available);

// Puts magic, lengths and checksum right in an image that is long enough to have them.
void repairImage(std::string& image);

// Changes an image or record where its fields are.
void mutateImage(std::string& image, Random& random);
void mutateRecord(std::string& record, Random& random);

// A small text model, and a change to a text that keeps its lines and words.
std::string makeText(Random& random);
void mutateText(std::string& text, Random& random);

}  // namespace mlnn::fuzz
