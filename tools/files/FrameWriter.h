// FrameWriter — writes frames to a file, some at a time.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/files/OutputFile.h"

namespace mlnn {

class OutputBatch;

// As .npy when the name ends in that, else as text with nine digits, which is exact; one frame a
// row. The file appears when it is complete (OutputFile), and is the same however the frames come.
class FrameWriter {
 public:
  // Of frames of `width` values, which must all be added. Where `count` does not tell how many are
  // to come, an array's header is written at the end, and for that the array is held in memory
  // where it goes to a pipe.
  // Throws, like all members: WriteFailure; then nothing is left behind when the object goes.
  FrameWriter(const std::string& name, Eigen::Index width, std::optional<uint64_t> count);

  // Takes values x frames.
  void add(const Eigen::MatrixXf& frames);

  // Where it writes to a pipe or a device, what was added is on its way. Returns false where
  // nothing that follows can arrive, which the end will tell.
  bool handOn();

  // The end: one of these, once.
  void finish();
  void finish(OutputBatch& batch);

 private:
  void addText(const Eigen::MatrixXf& frames);
  void addValues(const Eigen::MatrixXf& frames);
  void complete();

  bool isArray_;
  Eigen::Index width_;
  uint64_t frames_ = 0;
  bool knewCount_;
  OutputFile file_;
  std::string text_;
  std::vector<float> held_;  // of an array whose header must come first
};

}  // namespace mlnn
