// RunJobs — which recordings `mlnn run` goes through, and where the results of each go.
#pragma once

#include <string>
#include <vector>

#include "tools/files/RecordingFiles.h"

namespace mlnn {

// One recording: where its frames come from, where the outputs go ("" for the table), and the
// folder for what every layer computes ("" for none).
struct RunJob {
  std::string frames;
  std::string out;
  std::string trace;
};

struct RunJobs {
  std::vector<RunJob> jobs;
  bool intoFolder;  // whether the outputs are files in the folder `out`
};

// `out` and `trace` are what the command line says, "" for neither.
// Throws: UsageError when a result has no name of its own.
RunJobs runJobs(const std::vector<RecordingFile>& recordings, const std::string& out,
                const std::string& trace);

// Throws: UsageError when a result would replace the model or frames.
void refuseLossOfInputs(const std::string& model, const std::vector<RunJob>& jobs);

// Leaves out the jobs that an earlier run has done: whose result is a regular file that was written
// after both the model and the frames, which are files as well, were last changed. A result takes
// its name when it is whole, so no part of one counts.
void leaveOutDone(const std::string& model, std::vector<RunJob>& jobs);

// Makes the folder `out`, and those in it that results need.
// Throws: Failure.
void makeFolders(const std::string& out, const RunJobs& jobs);

}  // namespace mlnn
