// RecordingGroup — evaluates several short recordings at once, each in one thread.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "inference/FwdPass.h"
#include "inference/RecordingInputs.h"
#include "inference/WorkerPool.h"
#include "tools/Failure.h"
#include "tools/commands/run/RunJobs.h"

namespace mlnn {

// What came of a recording, for whoever tells of all of them in their order.
struct EvaluatedRecording {
  std::string said;                // what goes to the standard error stream
  std::optional<Failure> failure;  // else:
  Eigen::MatrixXf outputs;
};

class RecordingGroup {
 public:
  // Makes a further pass over what the first one runs; null where there is no other one.
  using MakePass = std::function<std::unique_ptr<FwdPass>()>;

  // `network` is what its passes take; `stacked` says that frames are input vectors.
  // Starts no thread before it is asked for a group.
  // Lifetime: `first` must outlive the object, and so must whatever `makePass` uses.
  RecordingGroup(const InputSide& network, bool stacked, int threads, FwdPass& first,
                 MakePass makePass);

  // Whether a recording is a file that is read, evaluated and told of in a moment.
  static bool isShort(const RunJob& job);

  // How many of the recordings from `begin` on are to be evaluated at once: short ones, and fewer
  // than fill the memory; at most 1 where the next one is none of these.
  std::size_t length(const std::vector<RunJob>& jobs, std::size_t begin) const;

  // Evaluates as many.
  // Throws: std::bad_alloc.
  std::vector<EvaluatedRecording> evaluate(const std::vector<RunJob>& jobs, std::size_t begin,
                                           std::size_t count);

 private:
  void startThreads();

  InputSide network_;
  bool stacked_;
  std::size_t threads_;
  MakePass makePass_;
  std::vector<FwdPass*> passes_;  // one for each thread
  std::vector<std::unique_ptr<FwdPass>> further_;
  std::unique_ptr<WorkerPool> pool_;  // null before the first group
};

}  // namespace mlnn
