// readFrames — the frames of a recording, for the examples.
#pragma once

#include <Eigen/Core>
#include <fstream>
#include <iterator>
#include <string>

// Reads a .npy file of version 1 with 32-bit floats, frames x width values, as width x frames.
// Returns: a matrix without frames where that is not what the file holds.
inline Eigen::MatrixXf readFrames(const std::string& name, Eigen::Index width) {
  std::ifstream in(name, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};
  if (bytes.size() < 10 || bytes.compare(0, 7, "\x93NUMPY\x01") != 0) return {};
  const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const std::size_t start = 10 + byteAt(8) + 256u * byteAt(9);
  const auto frameBytes = static_cast<std::size_t>(width) * sizeof(float);
  if (start > bytes.size() || (bytes.size() - start) % frameBytes != 0) return {};
  Eigen::MatrixXf frames(width, static_cast<Eigen::Index>((bytes.size() - start) / frameBytes));
  bytes.copy(reinterpret_cast<char*>(frames.data()), bytes.size() - start, start);
  return frames;
}
