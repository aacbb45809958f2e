#include "fuzz/mutators/Mutation.h"

extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed) {
  mlnn::fuzz::Random random(seed);
  std::string image(reinterpret_cast<const char*>(data), size);
  mlnn::fuzz::mutateImage(image, random);
  return mlnn::fuzz::give(image, data, maxSize);
}
