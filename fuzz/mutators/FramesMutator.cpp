// Frames as text, or as a .npy file whose header length and amount of values are put right.
#include <algorithm>

#include "fuzz/mutators/Mutation.h"

namespace {

using mlnn::fuzz::Random;

constexpr std::size_t kHeadLength = 10;  // magic, version, length of the header
constexpr char kMagic[] = "\x93NUMPY";

std::string makeNpy(Random& random) {
  constexpr const char* kTypes[] = {"<f4", "<f8", ">f4", "|b1"};
  constexpr const char* kOrders[] = {"False", "True"};
  const std::size_t frames = random.below(4);
  const std::size_t values = random.below(4);
  const std::size_t type = random.below(random.oneIn(8) ? 4 : 2);
  const std::string header = std::string("{'descr': '") + kTypes[type] +
                             "', 'fortran_order': " + random.of(kOrders) + ", 'shape': (" +
                             std::to_string(frames) + ", " + std::to_string(values) + "), }\n";
  std::string file = std::string(kMagic) + '\1' + '\0' + static_cast<char>(header.size()) + '\0';
  file += header;
  for (std::size_t i = frames * values * (type == 0 ? 4 : 8); i > 0; --i) {
    file += static_cast<char>(random.word());
  }
  return file;
}

void repairNpy(std::string& file) {
  const std::size_t end = file.find('\n', kHeadLength);
  if (end == std::string::npos) return;
  const std::size_t length = end + 1 - kHeadLength;
  std::copy_n(kMagic, sizeof kMagic - 1, file.begin());
  file[8] = static_cast<char>(length & 0xFF);
  file[9] = static_cast<char>(length >> 8 & 0xFF);
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed) {
  Random random(seed);
  std::string bytes(reinterpret_cast<const char*>(data), size);
  if (random.oneIn(32)) return mlnn::fuzz::give(makeNpy(random), data, maxSize);
  const bool isNpy = bytes.size() >= kHeadLength && bytes[0] == kMagic[0];
  mlnn::fuzz::mutateBytes(bytes, 32);
  if (isNpy && bytes.size() >= kHeadLength && !random.oneIn(4)) repairNpy(bytes);
  return mlnn::fuzz::give(bytes, data, maxSize);
}
