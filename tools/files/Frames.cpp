#include "tools/files/Frames.h"

#include <cstdint>

#include "text/Numbers.h"
#include "tools/Failure.h"
#include "tools/files/FrameText.h"
#include "tools/files/FrameWriter.h"
#include "tools/files/InputFile.h"
#include "tools/files/Npy.h"

namespace mlnn {

Eigen::MatrixXf readFrames(const std::string& name) {
  return parseFrames(readInput(name), inputName(name));
}

Eigen::MatrixXf readRecording(const std::string& name) {
  Eigen::MatrixXf frames = readFrames(name);
  const std::string warning = notFiniteWarning(frames, name);
  if (!warning.empty()) printWarning(warning);
  return frames;
}

std::string notFiniteWarning(const Eigen::MatrixXf& frames, const std::string& name) {
  return notFiniteWarning(static_cast<uint64_t>(frames.size() - frames.array().isFinite().count()),
                          name);
}

std::string notFiniteWarning(uint64_t notFinite, const std::string& name) {
  if (notFinite == 0) return "";
  return inputName(name) + " holds " + counted(static_cast<std::size_t>(notFinite), "value") +
         " not finite";
}

Eigen::MatrixXf parseFrames(const std::string& bytes, const std::string& what) {
  if (isNpy(bytes)) return parseNpy(bytes, what);
  FrameTextParser text(what);
  text.addLines(bytes);
  text.finish();
  return text.take();
}

void writeFrames(const std::string& name, const Eigen::MatrixXf& frames) {
  FrameWriter writer(name, frames.rows(), static_cast<uint64_t>(frames.cols()));
  writer.add(frames);
  writer.finish();
}

void writeFrames(const std::string& name, const Eigen::MatrixXf& frames, OutputBatch& batch) {
  FrameWriter writer(name, frames.rows(), static_cast<uint64_t>(frames.cols()));
  writer.add(frames);
  writer.finish(batch);
}

}  // namespace mlnn
