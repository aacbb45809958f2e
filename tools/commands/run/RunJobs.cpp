#include "tools/commands/run/RunJobs.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <system_error>

#include "os/Names.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/InputFile.h"
#include "tools/files/OwnInputs.h"
#include "tools/files/TraceWriter.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

// Whether the name is that of a folder, or asks for one.
bool isFolder(const std::string& name) {
  std::error_code error;
  return fs::is_directory(pathOf(name), error) || (!name.empty() && !pathOf(name).has_filename());
}

std::vector<RunJob> jobsInFolder(const std::vector<RecordingFile>& recordings,
                                 const std::string& out) {
  std::vector<RunJob> jobs;
  std::set<std::string> names;
  for (const RecordingFile& recording : recordings) {
    if (isNoEntry(recording.name)) {
      throw UsageError("the result of " + inputName(recording.file) +
                       " has no name in the folder " + inQuotes(out));
    }
    if (!names.insert(recording.name).second) {
      throw UsageError("two results would be called " + inQuotes(recording.name) +
                       " in the folder " + inQuotes(out));
    }
    jobs.push_back({recording.file, nameOf(pathOf(out) / pathOf(recording.name)), ""});
  }
  return jobs;
}

void addTraces(const std::vector<RecordingFile>& recordings, const std::string& trace,
               std::vector<RunJob>& jobs) {
  if (trace.empty()) return;
  const std::vector<std::string> folders = traceFolders(trace, recordings);
  for (std::size_t i = 0; i < jobs.size(); ++i) jobs[i].trace = folders[i];
}

// Whether a recording comes out of a folder, whose name is a part of its own.
bool isFromFolder(const RecordingFile& recording) {
  return pathOf(recording.name).has_parent_path();
}

// When a file was last changed; nothing for what is no file.
std::optional<fs::file_time_type> changeOf(const std::string& name) {
  std::error_code error;
  const fs::path path = pathOf(name);
  if (!fs::is_regular_file(path, error)) return std::nullopt;
  const fs::file_time_type time = fs::last_write_time(path, error);
  return error ? std::nullopt : std::optional(time);
}

void makeFolder(const std::string& name) {
  std::error_code error;
  if (!fs::create_directory(pathOf(name), error) && error) {
    throw Failure("cannot make the folder " + inQuotes(name) + ": " + error.message());
  }
}

}  // namespace

RunJobs runJobs(const std::vector<RecordingFile>& recordings, const std::string& out,
                const std::string& trace) {
  RunJobs result;
  result.intoFolder =
      !out.empty() && (recordings.size() > 1 || isFolder(out) || isFromFolder(recordings.front()));
  if (result.intoFolder) {
    result.jobs = jobsInFolder(recordings, out);
  } else {
    for (const RecordingFile& recording : recordings) {
      result.jobs.push_back({recording.file, out, ""});
    }
  }
  addTraces(recordings, trace, result.jobs);
  return result;
}

void refuseLossOfInputs(const std::string& model, const std::vector<RunJob>& jobs) {
  OwnInputs inputs;
  inputs.add(model, "model");
  for (const RunJob& job : jobs) inputs.add(job.frames, "frames");
  for (const RunJob& job : jobs) {
    inputs.refuse(job.out);
    if (!job.trace.empty()) refuseTraceOf(inputs, job.trace);
  }
}

void leaveOutDone(const std::string& model, std::vector<RunJob>& jobs) {
  const std::optional<fs::file_time_type> modelChange = changeOf(model);
  if (!modelChange) return;
  const auto isDone = [&](const RunJob& job) {
    const std::optional<fs::file_time_type> change = changeOf(job.frames);
    const std::optional<fs::file_time_type> result = changeOf(job.out);
    return change && result && *result > *change && *result > *modelChange;
  };
  jobs.erase(std::remove_if(jobs.begin(), jobs.end(), isDone), jobs.end());
}

void makeFolders(const std::string& out, const RunJobs& jobs) {
  if (!jobs.intoFolder) return;
  makeFolder(out);
  std::set<std::string> folders;
  for (const RunJob& job : jobs.jobs) folders.insert(nameOf(pathOf(job.out).parent_path()));
  for (const std::string& folder : folders) makeFolder(folder);
}

}  // namespace mlnn
