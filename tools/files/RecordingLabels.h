// RecordingLabels — what recordings are known to be, from a table.
#pragma once

#include <map>
#include <string>

namespace mlnn {

class RecordingLabels {
 public:
  // Reads a table (tools/files/Csv.h) whose heading has the columns "file" and "label", among any
  // others. "-" is the standard input.
  // Throws: Failure.
  static RecordingLabels read(const std::string& name);

  // Returns the label of a recording, which is found by the name of its file, without folders.
  // Throws: Failure when there is none.
  const std::string& of(const std::string& recording) const;

 private:
  explicit RecordingLabels(std::string name) : name_(std::move(name)) {}

  std::string name_;  // of the table
  std::map<std::string, std::string> labels_;
};

}  // namespace mlnn
