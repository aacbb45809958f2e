// Files, pipes and the standard input: the whole of one in memory, or piece by piece.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/files/FileDescriptor.h"

namespace mlnn {

// The name that stands for the standard input, and for the standard output.
inline constexpr char kStandardStream[] = "-";

// How messages call a file: its quoted name, or "standard input".
std::string inputName(const std::string& name);

// Whether something of that name cannot be put into a folder: "" is no name, and "." and ".."
// are that folder and the one around it.
bool isNoEntry(const std::string& name);

// Makes sure that at most one of the files is the standard input, which is over after the first.
// Throws: UsageError.
void refuseSecondStandardInput(const std::vector<std::string>& names);

// What a file, or the standard input for "-", gives from its beginning on.
// Throws: Failure, from all members that read, that names the file and the reason.
class InputStream {
 public:
  explicit InputStream(const std::string& name);

  // How many bytes a regular file has; nothing of others.
  std::optional<uint64_t> length() const { return length_; }

  // Whether it is a device that is no terminal: of such there is no end to wait for.
  bool isDevice() const { return isDevice_; }

  // How many bytes may be held of it at a time: what readInput says.
  std::size_t most() const { return most_; }

  // Waits for bytes, and puts at most so many of those that are there behind the others of `bytes`.
  // Returns: how many; 0 behind the last one.
  std::size_t append(std::string& bytes, std::size_t count);

  // Puts `count` bytes of a regular file, from this place on, to `target`; fewer where it ends.
  // Returns: how many.
  std::size_t readAt(uint64_t place, char* target, std::size_t count) const;

  // Whether append() would return at once.
  bool isReady() const;

  [[noreturn]] void failWithoutEnd() const;

 private:
  std::string name_;
  FileDescriptor file_;
  uint64_t begin_ = 0;  // where a regular file was when it came
  std::optional<uint64_t> length_;
  std::size_t most_;
  bool isDevice_ = false;
};

// Appends the rest of the input to what was read of it.
// Returns: all of it. Throws: as readInput.
std::string readRest(InputStream& input, std::string bytes);

// Returns the bytes of the file, or of the standard input for "-". What does not end is refused: of
// a device that is no terminal at most 1 MiB is read, of a pipe a quarter of the memory that the
// process may have. Throws: Failure that names the file and the reason.
std::string readInput(const std::string& name);

}  // namespace mlnn
