#include "tools/commands/run/RecordingGroup.h"

#include <utility>

#include "inference/Evaluation.h"
#include "layers/Messages.h"
#include "os/Descriptors.h"
#include "tools/commands/Recordings.h"
#include "tools/files/Frames.h"

namespace mlnn {
namespace {

constexpr std::size_t kRecordingsEach = 8;  // so that threads seldom wait for the last one

std::string warningLine(const std::string& text) {
  return text.empty() ? "" : "Warning: " + text + "\n";
}

EvaluatedRecording evaluated(const InputSide& network, bool stacked, FwdPass& pass,
                             const std::string& fileName) {
  EvaluatedRecording result;
  const CollectedMessages messages;
  try {
    const Eigen::MatrixXf frames = readFrames(fileName);
    result.said += warningLine(notFiniteWarning(frames, fileName));
    std::string warning;
    const RecordingInputs inputs = inputsFor(network, frames.rows(), stacked, fileName, warning);
    result.said += warningLine(warning);
    std::optional<Eigen::MatrixXf> outputs = evaluateFrames(pass, frames, inputs);
    result.said += messages.text();
    result.outputs = orFail(std::move(outputs), kCannotBeRun);
  } catch (const Failure& failure) {
    result.failure = failure;
  }
  return result;
}

}  // namespace

RecordingGroup::RecordingGroup(const InputSide& network, bool stacked, int threads, FwdPass& first,
                               MakePass makePass)
    : network_(network),
      stacked_(stacked),
      threads_(static_cast<std::size_t>(threads)),
      makePass_(std::move(makePass)),
      passes_{&first} {}

bool RecordingGroup::isShort(const RunJob& job) {
  constexpr uint64_t kMostBytes = uint64_t{1} << 20;
  FileStatus found;
  return job.trace.empty() && readStatus(job.frames.c_str(), found) &&
         found.kind == FileKind::kRegular && found.length <= kMostBytes;
}

std::size_t RecordingGroup::length(const std::vector<RunJob>& jobs, std::size_t begin) const {
  if (threads_ <= 1) return 1;
  std::size_t end = begin;
  while (end < jobs.size() && end - begin < kRecordingsEach * threads_ && isShort(jobs[end])) ++end;
  return end - begin;
}

void RecordingGroup::startThreads() {
  if (pool_ != nullptr) return;
  while (passes_.size() < threads_) {
    std::unique_ptr<FwdPass> pass = makePass_();
    if (pass == nullptr) break;
    passes_.push_back(pass.get());
    further_.push_back(std::move(pass));
  }
  pool_ = std::make_unique<WorkerPool>(static_cast<int>(passes_.size()));
}

std::vector<EvaluatedRecording> RecordingGroup::evaluate(const std::vector<RunJob>& jobs,
                                                         std::size_t begin, std::size_t count) {
  startThreads();
  std::vector<EvaluatedRecording> results(count);
  pool_->run(static_cast<int>(count), [&](int part, int worker) {
    const auto place = static_cast<std::size_t>(part);
    FwdPass& pass = *passes_[static_cast<std::size_t>(worker)];
    results[place] = evaluated(network_, stacked_, pass, jobs[begin + place].frames);
  });
  return results;
}

}  // namespace mlnn
