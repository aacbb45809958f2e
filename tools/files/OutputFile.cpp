#include "tools/files/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <utility>

#include "text/Escape.h"
#include "tools/files/InputFile.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

// Whether the folder is one in which the system shows the own descriptors: /proc/PID/fd, or
// /proc/PID/task/TID/fd, which each thread has for itself.
bool showsOwnDescriptors(const fs::path& folder) {
  std::error_code error;
  const fs::path own = fs::canonical("/proc/self", error);
  if (error) return false;
  const fs::path shown = fs::canonical(folder, error);
  return !error && (shown == own / "fd" || (shown.filename() == "fd" &&
                                            shown.parent_path().parent_path() == own / "task"));
}

// The number of the own descriptor that the path stands for, as /dev/fd/3 does; else nothing.
std::optional<int> descriptorNamed(const fs::path& path) {
  if (!showsOwnDescriptors(path.parent_path())) return std::nullopt;
  const std::string name = path.filename().string();
  const char* const end = name.data() + name.size();
  int number = 0;
  const std::from_chars_result result = std::from_chars(name.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return number;
}

// Follows symbolic links to what they name, which need not exist. Those of own descriptors stay:
// the file that is behind one may have another name by now, or none.
fs::path withoutLinks(fs::path path) {
  constexpr int kMaxLinks = 40;
  std::array<char, PATH_MAX> target;
  for (int i = 0; i < kMaxLinks && !descriptorNamed(path); ++i) {
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

// Gives the file the owner and the group of another one, or the group alone. Returns whether the
// process may do any of it.
bool takeOwner(int descriptor, const struct stat& other) {
  constexpr auto kSame = static_cast<uid_t>(-1);
  return fchown(descriptor, other.st_uid, other.st_gid) == 0 ||
         fchown(descriptor, kSame, other.st_gid) == 0;
}

// Waits until the file is on the disk. Some file systems have no such request.
bool reachesDisk(int descriptor) {
  return fsync(descriptor) == 0 || errno == EINVAL || errno == ENOTSUP;
}

// `error` is an errno, 0 where it is not known.
[[noreturn]] void failToWrite(const std::string& name, int error) {
  const bool isStandard = name == kStandardStream;
  throw WriteFailure(isStandard ? "to standard output" : inQuotes(name), error);
}

}  // namespace

WriteFailure::WriteFailure(const std::string& what, int error)
    : Failure(cannotWrite(what, error)), error_(error) {}

OutputFile::OutputFile(const std::string& name)
    : name_(name), descriptor_(open()), buffer_(descriptor_.get()), stream_(&buffer_) {}

FileDescriptor OutputFile::open() {
  if (name_ == kStandardStream) return copyOf(STDOUT_FILENO);
  const fs::path path = withoutLinks(name_);
  if (const std::optional<int> own = descriptorNamed(path)) return copyOf(*own);
  path_ = path.string();
  struct stat status;
  // By its name: a link of /proc to another's pipe leads there, but has no path as its text.
  if (stat(name_.c_str(), &status) != 0) {
    if (errno != ENOENT) fail(errno);
    return openBeside(nullptr);
  }
  FileDescriptor present(::open(name_.c_str(), O_WRONLY | O_CLOEXEC));
  if (!present.isOpen()) fail(errno);
  return S_ISREG(status.st_mode) ? openBeside(&status) : std::move(present);
}

// It goes on where the descriptor is, and whoever has that goes on where this ends.
FileDescriptor OutputFile::copyOf(int descriptor) {
  std::cout.flush();  // what was printed comes first
  FileDescriptor copy(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  if (!copy.isOpen()) fail(errno);
  return copy;
}

FileDescriptor OutputFile::openBeside(const struct stat* replaced) {
  FileDescriptor descriptor = unfinished_.makeIn(fs::path(path_).parent_path().string());
  if (!descriptor.isOpen()) fail(errno);
  if (replaced != nullptr) takeOwner(descriptor.get(), *replaced);  // where it may
  // After the owner, whose change may take permissions away.
  const mode_t mode = replaced != nullptr ? replaced->st_mode & 0777 : modeOfNewFile();
  if (fchmod(descriptor.get(), mode) != 0) fail(errno);
  return descriptor;
}

void OutputFile::finish() {
  Whole file = whole();
  file.waitForDisk();
  file.takeName();
}

OutputFile::Whole OutputFile::whole() {
  stream_.flush();
  if (!stream_) fail(buffer_.error());
  return Whole(name_, path_, std::move(unfinished_), std::move(descriptor_));
}

void OutputFile::fail(int error) const { failToWrite(name_, error); }

OutputFile::Whole::Whole(std::string name, std::string path, UnfinishedFile unfinished,
                         FileDescriptor descriptor)
    : name_(std::move(name)),
      path_(std::move(path)),
      unfinished_(std::move(unfinished)),
      descriptor_(std::move(descriptor)) {}

void OutputFile::Whole::waitForDisk() const {
  if (hasNoName() && !reachesDisk(descriptor_.get())) failToWrite(name_, errno);
}

void OutputFile::Whole::takeName() {
  if (!descriptor_.close()) failToWrite(name_, errno);
  if (!hasNoName()) return;
  if (std::rename(unfinished_.path().c_str(), path_.c_str()) != 0) failToWrite(name_, errno);
  unfinished_.release();
}

}  // namespace mlnn
