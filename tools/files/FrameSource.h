// FrameSource — the frames of a recording, some at a time.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace mlnn {

// Gives the frames that readFrames (tools/files/Frames.h) would return, and fails where that does,
// with the same message, once the frames before have been given. Holds no more than what is asked
// for at once, unless the input is a device, or an array in Fortran's order that comes by a pipe.
class FrameSource {
 public:
  // Opens a file, a pipe or the standard input ("-"), and reads it up to where it tells the width
  // of a frame: its header, or its first line.
  // Throws: Failure, like next().
  static std::unique_ptr<FrameSource> open(const std::string& name);

  virtual ~FrameSource() = default;

  // How many values a frame has.
  uint64_t width() const { return width_; }

  // How many frames there are, where the input says so before it ends.
  std::optional<uint64_t> count() const { return count_; }

  // About how many there are; 0 where nothing tells.
  uint64_t expected() const { return count_.value_or(expected_); }

  // Whether frames come when somebody sends them, so that none should wait for others.
  bool arrives() const { return arrives_; }

  // Puts further frames into `frames`, values x frames: at least one, at most `most`, fewer where
  // one would have to wait for the others.
  // Returns: false where there are none.
  // REQUIRES: most > 0
  virtual bool next(Eigen::Index most, Eigen::MatrixXf& frames) = 0;

 protected:
  uint64_t width_ = 0;
  std::optional<uint64_t> count_;
  uint64_t expected_ = 0;
  bool arrives_ = false;
};

}  // namespace mlnn
