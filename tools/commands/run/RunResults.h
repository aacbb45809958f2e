// RunResults — what `mlnn run` has found, told recording by recording or, as JSON, at the end.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <string>
#include <vector>

#include "tools/Failure.h"
#include "tools/commands/run/RunJobs.h"
#include "tools/reports/Json.h"
#include "tools/reports/RunReport.h"

namespace mlnn {

enum class RunForm {
  kTable,
  kJson,       // one value, at the end
  kJsonLines,  // one a line and recording; no more than what is not settled is held
};

class RunResults {
 public:
  RunResults(RunForm form, std::string model, OutputSide network, bool named);

  // Adds the next recording. `outputs` are outputs x frames.
  void add(const RunJob& job, const Eigen::MatrixXf& outputs);
  void addFailure(const RunJob& job, const Failure& failure);

  // What was added so many recordings after the last call of settle() has failed after all.
  void failAfterAll(std::size_t place, const RunJob& job, const Failure& failure);

  // Nothing that was added can fail any more.
  void settle();

  void finish();

 private:
  void remember(Json entry);

  RunForm form_;
  std::string model_;
  OutputSide network_;
  bool named_;  // whether tables have the names of the recordings above them
  bool isFirst_ = true;
  std::vector<Json> entries_;  // for JSON
  std::size_t settled_ = 0;    // of these
};

}  // namespace mlnn
