#include "fuzz/mutators/Mutation.h"

extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed) {
  mlnn::fuzz::Random random(seed);
  std::string record(reinterpret_cast<const char*>(data), size);
  mlnn::fuzz::mutateRecord(record, random);
  return mlnn::fuzz::give(record, data, maxSize);
}
