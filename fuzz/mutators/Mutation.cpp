#include "fuzz/mutators/Mutation.h"

#include <algorithm>

namespace mlnn::fuzz {

std::size_t give(const std::string& made, uint8_t* data, std::size_t maxSize) {
  const std::size_t length = std::min(made.size(), maxSize);
  std::copy_n(made.begin(), length, data);
  return length;
}

void mutateBytes(std::string& bytes, std::size_t room) {
  const std::size_t length = bytes.size();
  bytes.resize(length + room);
  bytes.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t*>(bytes.data()), length, bytes.size()));
}

}  // namespace mlnn::fuzz
