#include "tools/OutputFile.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <utility>

#include "tools/Escape.h"
#include "tools/Failure.h"
#include "tools/InputFile.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

// Follows symbolic links to what they name, which need not exist.
fs::path withoutLinks(fs::path path) {
  constexpr int kMaxLinks = 40;
  std::array<char, PATH_MAX> target;
  for (int i = 0; i < kMaxLinks; ++i) {
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    if (length < 0) break;
    path = path.parent_path() / fs::path(target.data(), target.data() + length);
  }
  return path;
}

// What open() would give a new file.
mode_t modeOfNewFile() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

OutputFile::OutputFile(const std::string& name)
    : name_(name), descriptor_(open()), buffer_(descriptor_.get()), stream_(&buffer_) {}

FileDescriptor OutputFile::open() {
  if (name_ == kStandardStream) {
    std::cout.flush();  // what was printed comes first
    FileDescriptor copy(dup(STDOUT_FILENO));
    if (!copy.isOpen()) fail(errno);
    return copy;
  }
  path_ = withoutLinks(name_).string();
  struct stat status;
  // By its name: a link of /proc to a pipe leads there, but has no path as its text.
  if (stat(name_.c_str(), &status) != 0) {
    if (errno != ENOENT) fail(errno);
    return openBeside(modeOfNewFile());
  }
  FileDescriptor present(::open(name_.c_str(), O_WRONLY | O_CLOEXEC));
  if (!present.isOpen()) fail(errno);
  return S_ISREG(status.st_mode) ? openBeside(status.st_mode & 0777) : std::move(present);
}

FileDescriptor OutputFile::openBeside(unsigned mode) {
  std::string path = (fs::path(path_).parent_path() / ".mlnn-XXXXXX").string();
  FileDescriptor descriptor(mkostemp(path.data(), O_CLOEXEC));
  if (!descriptor.isOpen()) fail(errno);
  unfinished_.hold(path);
  if (fchmod(descriptor.get(), mode) != 0) fail(errno);
  return descriptor;
}

void OutputFile::finish() {
  stream_.flush();
  if (!stream_) fail(buffer_.error());
  if (!descriptor_.close()) fail(errno);
  if (unfinished_.path().empty()) return;
  if (std::rename(unfinished_.path().c_str(), path_.c_str()) != 0) fail(errno);
  unfinished_.release();
}

// `error` is an errno, 0 where it is not known.
void OutputFile::fail(int error) const {
  const bool isStandard = name_ == kStandardStream;
  throw Failure(cannotWrite(isStandard ? "to standard output" : inQuotes(name_), error));
}

}  // namespace mlnn
