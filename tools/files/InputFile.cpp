#include "tools/files/InputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/FileDescriptor.h"

namespace mlnn {
namespace {

FileDescriptor openInput(const std::string& name) {
  return FileDescriptor(name == kStandardStream ? dup(STDIN_FILENO)
                                                : open(name.c_str(), O_RDONLY | O_CLOEXEC));
}

[[noreturn]] void failToRead(const std::string& name) {
  throw Failure("cannot read " + inputName(name) + ": " + std::strerror(errno));
}

// What a regular file is going to need; 0 for anything else.
std::size_t expectedLength(int descriptor) {
  struct stat status;
  if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return 0;
  return static_cast<std::size_t>(status.st_size);
}

}  // namespace

std::string inputName(const std::string& name) {
  return name == kStandardStream ? "standard input" : inQuotes(name);
}

bool isNoEntry(const std::string& name) { return name.empty() || name == "." || name == ".."; }

void refuseSecondStandardInput(const std::vector<std::string>& names) {
  if (std::count(names.begin(), names.end(), kStandardStream) > 1) {
    throw UsageError("only one of the files can be the standard input");
  }
}

std::string readInput(const std::string& name) {
  const FileDescriptor file = openInput(name);
  if (!file.isOpen()) failToRead(name);
  constexpr std::size_t kChunk = std::size_t{1} << 17;
  std::string bytes;
  bytes.reserve(std::max(expectedLength(file.get()) + 1, kChunk));
  for (std::size_t length = 0;;) {
    // One byte more than the capacity makes the string double it.
    bytes.resize(std::max(length + 1, std::min(bytes.capacity(), length + kChunk)));
    const ssize_t count = read(file.get(), &bytes[length], bytes.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) failToRead(name);
    length += static_cast<std::size_t>(count);
    if (count == 0) {
      bytes.resize(length);
      return bytes;
    }
  }
}

}  // namespace mlnn
