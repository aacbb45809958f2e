#include "tools/reports/RecordingDecisions.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "inference/Evaluation.h"
#include "tools/Failure.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr std::size_t kMostHeld = std::size_t{1} << 16;

[[noreturn]] void fail(const char* what) {
  throw Failure("cannot " + std::string(what) +
                " the temporary file of decisions: " + std::strerror(errno));
}

}  // namespace

void RecordingDecisions::add(const Eigen::MatrixXf& outputs) {
  for (Index f = 0; f < outputs.cols(); ++f) {
    const Index best = bestClass(outputs.col(f));
    held_.push_back({static_cast<int32_t>(best), best < 0 ? 0.0f : outputs(best, f)});
    undecided_ += best < 0 ? 1 : 0;
  }
  frames_ += static_cast<uint64_t>(outputs.cols());
  if (arePosteriors_) addSumOfLogs(outputs, sums_);
  if (held_.size() >= kMostHeld) putAway();
}

void RecordingDecisions::putAway() {
  if (!file_ && frames_ == held_.size()) file_.reset(std::tmpfile());
  if (!file_) return;
  const std::size_t count = std::fwrite(held_.data(), sizeof held_[0], held_.size(), file_.get());
  if (count != held_.size()) fail("write");
  held_.clear();
}

void RecordingDecisions::forEach(
    const std::function<void(uint64_t frame, const FrameDecision&)>& use) const {
  uint64_t frame = 0;
  if (file_) {
    if (std::fflush(file_.get()) != 0 || std::fseek(file_.get(), 0, SEEK_SET) != 0) fail("write");
    for (FrameDecision decision; frame < frames_ - held_.size(); ++frame) {
      if (std::fread(&decision, sizeof decision, 1, file_.get()) != 1) fail("read");
      use(frame, decision);
    }
  }
  for (const FrameDecision& decision : held_) use(frame++, decision);
}

}  // namespace mlnn
