// Inputs without a structure that the fuzzer's own mutations and dictionary would not find.
#include "fuzz/mutators/Mutation.h"

extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int) {
  return LLVMFuzzerMutate(data, size, maxSize);
}
