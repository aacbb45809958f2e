// Frames of the tool, as .npy files and as text: what is accepted writes and reads back the same
// in both forms, what is refused is refused with a reason.
#include "tools/files/Frames.h"

#include <cstring>
#include <sstream>

#include "fuzz/Support.h"
#include "text/Numbers.h"
#include "tools/Failure.h"
#include "tools/files/Npy.h"

namespace {

using Eigen::MatrixXf;
using mlnn::fuzz::require;

bool sameBits(const MatrixXf& a, const MatrixXf& b) {
  return a.rows() == b.rows() && a.cols() == b.cols() &&
         std::memcmp(a.data(), b.data(), static_cast<std::size_t>(a.size()) * sizeof(float)) == 0;
}

bool holdsNan(const MatrixXf& frames) { return (frames.array() != frames.array()).any(); }

std::string textOf(const MatrixXf& frames) {
  std::string text;
  for (Eigen::Index f = 0; f < frames.cols(); ++f) {
    for (Eigen::Index v = 0; v < frames.rows(); ++v) {
      text += (v > 0 ? " " : "") +
              mlnn::generalNumber(static_cast<double>(frames(v, f)), mlnn::kExactDigits);
    }
    text += "\n";
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  MatrixXf frames;
  const mlnn::fuzz::Limits limits(size, 16, 65536);
  try {
    frames = mlnn::parseFrames(bytes, "input");
    limits.check();
  } catch (const mlnn::Failure& failure) {
    limits.check();
    const std::string reason = failure.what();
    require(reason.compare(0, 5, "input") == 0 && reason.size() > 10, "refused without a reason");
    for (const char c : reason) {
      require(static_cast<unsigned char>(c) >= ' ' && c != '\x7f', "a raw character in a message");
    }
    return 0;
  }
  require(frames.size() > 0, "no frames are accepted");
  std::ostringstream npy;
  mlnn::writeNpy(frames, npy);
  require(sameBits(mlnn::parseFrames(npy.str(), "npy"), frames), ".npy reads back otherwise");
  // A NaN keeps its payload in .npy alone.
  if (holdsNan(frames)) return 0;
  require(sameBits(mlnn::parseFrames(textOf(frames), "text"), frames), "text reads back otherwise");
  return 0;
}
