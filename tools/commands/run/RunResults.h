// RunResults — what `mlnn run` has found, told recording by recording or, as JSON, at the end.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/Failure.h"
#include "tools/commands/run/RunJobs.h"
#include "tools/reports/Json.h"
#include "tools/reports/PosteriorLine.h"
#include "tools/reports/RecordingDecisions.h"
#include "tools/reports/RunReport.h"
#include "tools/reports/Terminal.h"

namespace mlnn {

enum class RunForm {
  kTable,
  kJson,       // one value, at the end
  kJsonLines,  // one a line and recording; no more than what is not settled is held
};

class RunResults {
 public:
  RunResults(RunForm form, std::string model, OutputSide network, bool named);

  // Begins with the next recording. Where its frames arrive, a table of them is printed as they do.
  void begin(const RunJob& job, bool arrives);

  // Adds outputs x frames.
  void addOutputs(const Eigen::MatrixXf& outputs);

  // The recording is complete.
  void end();

  // The next recording, or the one that was begun, has failed.
  void addFailure(const RunJob& job, const Failure& failure);

  // What was added so many recordings after the last call of settle() has failed after all.
  void failAfterAll(std::size_t place, const RunJob& job, const Failure& failure);

  // Nothing that was added can fail any more.
  void settle();

  void finish();

 private:
  struct Entry {
    std::string file;
    std::optional<std::string> error;  // else:
    std::optional<RecordingDecisions> decisions;
  };

  bool isTable() const { return form_ == RunForm::kTable; }
  void printName();
  void print(const Entry& entry, JsonPrinter& out) const;

  RunForm form_;
  std::string model_;
  OutputSide network_;
  bool named_;  // whether tables have the names of the recordings above them
  bool isFirst_ = true;

  // Of the recording that was begun last.
  std::string file_;
  bool goesToFile_ = false;
  std::optional<ArrivingDecisions> arriving_;
  std::optional<RecordingDecisions> decisions_;
  std::optional<TerminalLook> look_;  // of the line of posteriors, where there is to be one
  CoarseOutputs line_;

  std::vector<Entry> entries_;  // for JSON
  std::size_t settled_ = 0;     // of these
};

}  // namespace mlnn
