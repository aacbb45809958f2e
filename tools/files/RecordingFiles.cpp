#include "tools/files/RecordingFiles.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "os/Names.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/InputFile.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

std::vector<std::string> namesIn(const fs::path& folder) {
  std::error_code error;
  std::vector<std::string> names;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    std::string name = nameOf(entry->path().filename());
    std::error_code ignored;  // of what cannot be looked at: opening it will tell
    if (name.front() != '.' && !entry->is_directory(ignored)) names.push_back(std::move(name));
  }
  if (error) {
    throw Failure("cannot read the folder " + inQuotes(nameOf(folder)) + ": " + error.message());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void addFolder(const std::string& folder, std::vector<RecordingFile>& files) {
  const std::vector<std::string> names = namesIn(pathOf(folder));
  if (names.empty()) throw Failure("the folder " + inQuotes(folder) + " holds no recordings");
  const fs::path path = pathOf(folder) / "";  // which has no name behind the slash
  const std::string own = nameOf(path.parent_path().filename());
  for (const std::string& name : names) {
    const fs::path below = isNoEntry(own) ? pathOf(name) : pathOf(own) / pathOf(name);
    files.push_back({nameOf(path / pathOf(name)), nameOf(below)});
  }
}

void addRecording(const std::string& argument, std::vector<RecordingFile>& files) {
  std::error_code error;
  if (argument != kStandardStream && fs::is_directory(pathOf(argument), error)) {
    addFolder(argument, files);
    return;
  }
  const std::string name = nameOf(pathOf(argument).filename());
  files.push_back({argument, argument == kStandardStream ? "" : name});
}

void addList(const RecordingOptions& options, std::vector<RecordingFile>& files) {
  const std::string list = readInput(options.filesFrom);
  std::string_view rest = list;
  while (!rest.empty()) {
    const std::size_t end = rest.find(options.nulSeparated ? '\0' : '\n');
    const std::string_view name = rest.substr(0, end);
    if (!name.empty()) addRecording(std::string(name), files);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
}

}  // namespace

std::vector<RecordingFile> recordingFiles(const RecordingOptions& options) {
  if (options.frames.empty() && options.filesFrom.empty()) {
    throw UsageError("FRAMES is required, or --files-from with their names");
  }
  std::vector<RecordingFile> files;
  for (const std::string& argument : options.frames) addRecording(argument, files);
  if (!options.filesFrom.empty()) addList(options, files);
  if (files.empty()) throw Failure(inputName(options.filesFrom) + " names no recordings");
  return files;
}

}  // namespace mlnn
