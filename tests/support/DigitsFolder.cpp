#include "tests/support/DigitsFolder.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "tests/support/SourceTree.h"

namespace mlnn::test {

const char kNoDigits[] = "no folder of trained digits; MLNN_DIGITS_DIR may name it";

std::string digitsFolder() {
  const char* named = std::getenv("MLNN_DIGITS_DIR");
  const std::string folder = named != nullptr ? named : sourcePath("../shared/digits");
  return std::filesystem::is_directory(folder) ? folder : std::string();
}

Eigen::MatrixXf readNpyFloats(const std::string& path) {
  constexpr std::size_t kPrefixLength = 10;  // magic, version and the length of the header
  std::ifstream in(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};
  if (bytes.compare(0, 8, std::string("\x93NUMPY\x01\x00", 8)) != 0 ||
      bytes.size() < kPrefixLength) {
    throw std::runtime_error(path + ": not a .npy file of format 1.0");
  }
  const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const std::size_t headerLength = byteAt(8) + 256u * byteAt(9);
  const std::string header = bytes.substr(kPrefixLength, headerLength);
  long rows = 0;
  long values = 0;
  const std::size_t shape = header.find("'shape': (");
  if (header.find("'<f4'") == std::string::npos ||
      header.find("'fortran_order': False") == std::string::npos || shape == std::string::npos ||
      std::sscanf(header.c_str() + shape, "'shape': (%ld, %ld)", &rows, &values) != 2) {
    throw std::runtime_error(path + ": not 32-bit floats in C order");
  }
  const std::size_t start = kPrefixLength + headerLength;
  Eigen::MatrixXf matrix(values, rows);
  const auto length = static_cast<std::size_t>(matrix.size()) * sizeof(float);
  if (bytes.size() != start + length) throw std::runtime_error(path + ": wrong length");
  bytes.copy(reinterpret_cast<char*>(matrix.data()), length, start);
  return matrix;
}

}  // namespace mlnn::test
