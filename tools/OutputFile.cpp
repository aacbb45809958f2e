#include "tools/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "tools/Escape.h"
#include "tools/Failure.h"
#include "tools/InputFile.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

// The unfinished file that a signal handler removes; handlers reach nothing but globals.
std::atomic<const char*> fileToRemove{nullptr};

extern "C" void removeAndDie(int signal) {
  if (const char* path = fileToRemove.load()) unlink(path);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

// A signal that the caller had ignored (as nohup does) stays ignored.
void removeOnSignal(const char* path) {
  fileToRemove = path;
  for (const int signal : kSignals) {
    if (std::signal(signal, removeAndDie) == SIG_IGN) std::signal(signal, SIG_IGN);
  }
}

void removeNoMore() {
  fileToRemove = nullptr;
  for (const int signal : kSignals) {
    if (std::signal(signal, SIG_DFL) == SIG_IGN) std::signal(signal, SIG_IGN);
  }
}

// Follows symbolic links to what they name, which need not exist.
fs::path withoutLinks(fs::path path) {
  constexpr int kMaxLinks = 40;
  std::error_code error;
  for (int i = 0; i < kMaxLinks && fs::is_symlink(path, error); ++i) {
    path = path.parent_path() / fs::read_symlink(path, error);
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

OutputFile::OutputFile(const std::string& name) : name_(name), stream_(&file_) {
  if (name == kStandardStream) {
    stream_ = &std::cout;
    return;
  }
  path_ = withoutLinks(name).string();
  struct stat status;
  const bool exists = stat(path_.c_str(), &status) == 0;
  if (exists && !S_ISREG(status.st_mode)) {
    openDirectly();
    return;
  }
  if (exists && access(path_.c_str(), W_OK) != 0) fail();
  openBeside();
  chmod(unfinished_.path().c_str(), exists ? status.st_mode & 0777 : modeOfNewFile());
}

OutputFile::Unfinished::~Unfinished() {
  if (path_.empty()) return;
  unlink(path_.c_str());
  release();
}

void OutputFile::Unfinished::hold(const std::string& path) {
  path_ = path;
  removeOnSignal(path_.c_str());
}

void OutputFile::Unfinished::release() {
  removeNoMore();
  path_.clear();
}

void OutputFile::openDirectly() {
  file_.open(path_, std::ios::binary);
  if (!file_) fail();
}

void OutputFile::openBeside() {
  std::string path = (fs::path(path_).parent_path() / ".mlnn-XXXXXX").string();
  const int descriptor = mkstemp(path.data());
  if (descriptor < 0) fail();
  close(descriptor);
  unfinished_.hold(path);
  file_.open(path, std::ios::binary);
  if (!file_) fail();
}

void OutputFile::finish() {
  errno = 0;
  stream_->flush();
  if (!*stream_) fail();
  if (stream_ == &std::cout) return;
  file_.close();
  if (!file_) fail();
  if (unfinished_.path().empty()) return;
  if (std::rename(unfinished_.path().c_str(), path_.c_str()) != 0) fail();
  unfinished_.release();
}

void OutputFile::fail() const {
  const std::string reason = errno == 0 ? "" : std::string(": ") + std::strerror(errno);
  const bool isStandard = name_ == kStandardStream;
  throw Failure("cannot write " + (isStandard ? "to standard output" : inQuotes(name_)) + reason);
}

}  // namespace mlnn
