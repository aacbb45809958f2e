#include "os/Replacing.h"

#include <fcntl.h>
#include <io.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "os/Names.h"
#include "os/windows/Errors.h"
#include "os/windows/Handle.h"
#include "os/windows/WideText.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

constexpr std::size_t kMostOfName = 32768;  // of any name, with its end

// Without memory from the heap, which a handler may find locked. False for what is no name.
bool widen(const char* name, std::array<wchar_t, kMostOfName>& wide) {
  return MultiByteToWideChar(CP_UTF8, 0, name, -1, wide.data(), static_cast<int>(wide.size())) > 0;
}

// Another number each time, in this process and in most others.
uint64_t nextNumber() {
  static std::atomic<uint64_t> count{0};
  LARGE_INTEGER ticks;
  QueryPerformanceCounter(&ticks);
  const uint64_t seed = static_cast<uint64_t>(ticks.QuadPart) * 0x9E3779B97F4A7C15u;
  return (seed ^ uint64_t{GetCurrentProcessId()} << 20) + count.fetch_add(0x632BE5AB);
}

void setEnding(char* end) {
  constexpr char kCharacters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  uint64_t number = nextNumber() >> 8;
  for (std::size_t i = 0; i < kEndingOfNewFile; ++i, number /= sizeof kCharacters - 1) {
    end[i] = kCharacters[number % (sizeof kCharacters - 1)];
  }
}

// Others may remove the file while it is open, as a handler does when the process is to end.
HANDLE createNew(const char* name) {
  std::array<wchar_t, kMostOfName> wide;
  if (!widen(name, wide)) return INVALID_HANDLE_VALUE;
  return CreateFileW(wide.data(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                     nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
}

int descriptorOf(HANDLE file) {
  Handle owned(file);
  const int descriptor =
      _open_osfhandle(reinterpret_cast<intptr_t>(file), _O_RDWR | _O_BINARY | _O_NOINHERIT);
  if (descriptor >= 0) owned.release();
  return descriptor;
}

// Whether the name is a symbolic link or the like.
bool isLink(const fs::path& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

}  // namespace

// No name stands for a descriptor.
std::optional<int> descriptorNamed(const fs::path&) { return std::nullopt; }

// A link to what does not exist stays: there is no file to open behind it.
fs::path withoutLinks(fs::path path) {
  if (!isLink(path)) return path;
  const Handle file(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                                OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (!file.isOpen()) return path;
  std::wstring target(kMostOfName, L'\0');
  const DWORD length =
      GetFinalPathNameByHandleW(file.get(), target.data(), static_cast<DWORD>(target.size()), 0);
  if (length == 0 || length >= target.size()) return path;
  target.resize(length);
  return target;
}

int makeNewFile(std::string& beginning) {
  constexpr int kTries = 100;
  beginning += "XXXXXX";
  for (int i = 0; i < kTries; ++i) {
    setEnding(&beginning[beginning.size() - kEndingOfNewFile]);
    HANDLE const file = createNew(beginning.c_str());
    if (file != INVALID_HANDLE_VALUE) return descriptorOf(file);
    errno = errnoOf(GetLastError());
    if (errno != EEXIST) break;
  }
  return -1;
}

// The folder hands that down.
bool takeAccess(int, const FileAccess*) { return true; }

bool reachesDisk(int descriptor) { return _commit(descriptor) == 0 || errno == EINVAL; }

bool reachDiskTogether(const std::vector<std::string>&) { return false; }

bool replaceFile(const std::string& file, const std::string& replaced) {
  const bool isReplaced = MoveFileExW(pathOf(file).c_str(), pathOf(replaced).c_str(),
                                      MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
  if (!isReplaced) errno = errnoOf(GetLastError());
  return isReplaced;
}

void removeFile(const char* name) {
  std::array<wchar_t, kMostOfName> wide;
  if (widen(name, wide)) DeleteFileW(wide.data());
}

long mostDescriptors() { return _getmaxstdio(); }

}  // namespace mlnn
