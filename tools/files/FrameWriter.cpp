#include "tools/files/FrameWriter.h"

#include <ostream>

#include "text/FloatText.h"
#include "text/Numbers.h"
#include "text/TextParts.h"
#include "tools/files/Npy.h"
#include "tools/files/OutputBatch.h"

namespace mlnn {
namespace {

using Eigen::Index;

void write(const float* values, std::size_t count, std::ostream& out) {
  out.write(reinterpret_cast<const char*>(values),
            static_cast<std::streamsize>(count * sizeof *values));
}

}  // namespace

FrameWriter::FrameWriter(const std::string& name, Index width, std::optional<uint64_t> count)
    : isArray_(endsWith(name, ".npy")), width_(width), knewCount_(count.has_value()), file_(name) {
  if (isArray_ && (knewCount_ || file_.canBeginAgain())) {
    file_.stream() << npyHeader(count.value_or(0), static_cast<uint64_t>(width));
  }
}

void FrameWriter::add(const Eigen::MatrixXf& frames) {
  frames_ += static_cast<uint64_t>(frames.cols());
  if (isArray_) {
    addValues(frames);
  } else {
    addText(frames);
  }
}

void FrameWriter::addValues(const Eigen::MatrixXf& frames) {
  if (knewCount_ || file_.canBeginAgain()) {
    write(frames.data(), static_cast<std::size_t>(frames.size()), file_.stream());
  } else {
    held_.insert(held_.end(), frames.data(), frames.data() + frames.size());
  }
}

void FrameWriter::addText(const Eigen::MatrixXf& frames) {
  constexpr std::size_t kLongest = floatTextLength(kExactDigits) + 1;  // and what is behind it
  for (Index f = 0; f < frames.cols(); ++f) {
    text_.resize(static_cast<std::size_t>(frames.rows()) * kLongest + 1);
    char* end = text_.data();
    for (Index v = 0; v < frames.rows(); ++v) {
      if (v > 0) *end++ = ' ';
      end = formatFloat(end, frames(v, f), kExactDigits);
    }
    *end++ = '\n';
    file_.stream().write(text_.data(), end - text_.data());
  }
}

bool FrameWriter::handOn() {
  if (!file_.canBeginAgain()) file_.stream().flush();
  return static_cast<bool>(file_.stream());
}

void FrameWriter::finish() {
  complete();
  file_.finish();
}

void FrameWriter::finish(OutputBatch& batch) {
  complete();
  batch.add(file_);
}

void FrameWriter::complete() {
  if (!isArray_ || knewCount_) return;
  const std::string header = npyHeader(frames_, static_cast<uint64_t>(width_));
  if (file_.canBeginAgain()) {
    file_.overwrite(header);
  } else {
    file_.stream() << header;
    write(held_.data(), held_.size(), file_.stream());
  }
}

}  // namespace mlnn
