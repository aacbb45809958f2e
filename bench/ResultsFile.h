// ResultsFile — a file of results, from which bench/page makes tables. It begins with facts, of
// which each has a name; behind an empty line stands the table, with tabs between its columns.
#pragma once

#include <fstream>
#include <string>

namespace mlnn::bench {

class ResultsFile {
 public:
  // Begins with the facts of the processor. "" is no file, and takes whatever is written nowhere.
  explicit ResultsFile(std::string name);

  // Until it is kept it has another name.
  std::ofstream& stream() { return file_; }

  // Gives the file its name. Returns false, after a message, where it was not written.
  bool keep();

 private:
  std::string name_;
  std::ofstream file_;
};

}  // namespace mlnn::bench
