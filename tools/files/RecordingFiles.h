// RecordingFiles — the recordings that a command line asks for.
#pragma once

#include <string>
#include <vector>

namespace mlnn {

struct RecordingFile {
  std::string file;  // "-" is standard input
  std::string name;  // under which its results go into a folder; may be none (isNoEntry)
};

// What a command line says of them.
struct RecordingOptions {
  std::vector<std::string> frames;  // files and folders
  std::string filesFrom;            // a file with more of these; "" for none
  bool nulSeparated = false;        // the names in it end with NUL, else with the line
};

// Returns: the files in the order given; for a folder what is in it and is no folder, in the order
// of the names, without names that begin with a dot. A file's results have its own name; those of
// a file out of the folder `words` are called words/NAME.
// Throws: UsageError when there are none; Failure when the list or a folder cannot be read, or the
// folder holds none.
std::vector<RecordingFile> recordingFiles(const RecordingOptions& options);

}  // namespace mlnn
