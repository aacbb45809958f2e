// FileStream — a model's file as a stream, as loading by name opens it.
#pragma once

#include <fstream>
#include <istream>
#include <memory>

namespace mlnn {

class FileStream {
 public:
  FileStream();

  // Opens the file, to be read in the classic locale: the program's global one says nothing about
  // files.
  // Returns: whether it could be opened; else, after an error line.
  bool open(const char* fileName);

  std::istream& stream() { return in_; }

 private:
  std::unique_ptr<char[]> buffer_;
  std::ifstream in_;
};

// Returns the length of the stream from its first byte, or -1 when it cannot tell; then it stands
// at its end, or has failed.
std::streamoff lengthOf(std::istream& in);

}  // namespace mlnn
