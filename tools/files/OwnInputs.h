// OwnInputs — the files that a command reads, which its results must not replace.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

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
  // Device and number of a file. The system's own types have another width where a program is
  // built for short numbers of files.
  using Identity = std::pair<uint64_t, uint64_t>;

  std::map<Identity, std::string> inputs_;  // as messages call them
};

}  // namespace mlnn
