// OwnInputs — the files that a command reads, which its results must not replace.
#pragma once

#include <map>
#include <string>

#include "tools/files/RegularFile.h"

namespace mlnn {

// Knows files by what they are, not by their names: a link to an input is that input. What is not
// a regular file, such as the standard input or a pipe, can be read and written.
class OwnInputs {
 public:
  // `kind` is what messages call the file: "model", "frames".
  void add(const std::string& name, const std::string& kind);

  // Makes sure that a result of that name replaces no input. None of that name need exist.
  // Throws: UsageError.
  void refuse(const std::string& result) const;

 private:
  std::map<FileIdentity, std::string> inputs_;  // as messages call them
};

}  // namespace mlnn
