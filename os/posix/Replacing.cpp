#include "os/Replacing.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>

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

// What open() would give a new file.
mode_t modeOfNewFile() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

// Gives the file the owner and the group of another one, or the group alone. Returns whether the
// process may do any of it.
bool takeOwner(int descriptor, const FileAccess& other) {
  constexpr auto kSame = static_cast<uid_t>(-1);
  return fchown(descriptor, other.owner, other.group) == 0 ||
         fchown(descriptor, kSame, other.group) == 0;
}

#ifdef __linux__

// Whether syncfs tells that something did not reach the disk: Linux does since 5.8.
bool tellsFailures() {
  utsname system;
  if (uname(&system) != 0) return false;
  char* rest = nullptr;
  const long major = std::strtol(system.release, &rest, 10);
  const long minor = *rest == '.' ? std::strtol(rest + 1, nullptr, 10) : 0;
  return major > 5 || (major == 5 && minor >= 8);
}

// Waits until all that was written to the file system of the folder is on the disk.
bool syncAround(const std::string& folder) {
  const int descriptor =
      open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool isOnDisk = syncfs(descriptor) == 0;
  close(descriptor);
  return isOnDisk;
}

#else

bool tellsFailures() { return false; }
bool syncAround(const std::string&) { return false; }

#endif

}  // namespace

std::optional<int> descriptorNamed(const fs::path& path) {
  if (!showsOwnDescriptors(path.parent_path())) return std::nullopt;
  const std::string name = path.filename().string();
  const char* const end = name.data() + name.size();
  int number = 0;
  const std::from_chars_result result = std::from_chars(name.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return number;
}

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

int makeNewFile(std::string& beginning) {
  beginning += "XXXXXX";
  return mkostemp(beginning.data(), O_CLOEXEC);
}

bool takeAccess(int descriptor, const FileAccess* replaced) {
  if (replaced != nullptr) takeOwner(descriptor, *replaced);  // where it may
  // After the owner, whose change may take permissions away.
  const mode_t mode = replaced != nullptr ? replaced->permissions : modeOfNewFile();
  return fchmod(descriptor, mode) == 0;
}

bool reachesDisk(int descriptor) {
  return fsync(descriptor) == 0 || errno == EINVAL || errno == ENOTSUP;
}

bool reachDiskTogether(const std::vector<std::string>& folders) {
  return tellsFailures() && std::all_of(folders.begin(), folders.end(), syncAround);
}

bool replaceFile(const std::string& file, const std::string& replaced) {
  return std::rename(file.c_str(), replaced.c_str()) == 0;
}

void removeFile(const char* name) { unlink(name); }

long mostDescriptors() { return sysconf(_SC_OPEN_MAX); }

}  // namespace mlnn
