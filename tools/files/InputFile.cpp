#include "tools/files/InputFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>

#include "os/Descriptors.h"
#include "os/Memory.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/FileDescriptor.h"

namespace mlnn {
namespace {

FileDescriptor openInput(const std::string& name) {
  return FileDescriptor(name == kStandardStream ? duplicated(kStandardInput)
                                                : openForReading(name.c_str()));
}

[[noreturn]] void failToRead(const std::string& name) {
  throw Failure("cannot read " + inputName(name) + ": " + std::strerror(errno));
}

constexpr std::size_t kUnbounded = std::numeric_limits<std::size_t>::max();

// A quarter of the memory that this process may have: what is read grows by copies, and is parsed.
std::size_t quarterOfMemory() {
  return static_cast<std::size_t>(std::min(memoryOfProcess(), uint64_t{kUnbounded}) / 4);
}

// What an input is going to need, and may.
struct Expected {
  std::size_t length = 0;  // 0 where that is not known
  std::size_t most = kUnbounded;
};

// Of a device that is no terminal, as /dev/zero is not, there is no end to wait for.
Expected expectedOf(int descriptor) {
  constexpr std::size_t kMostOfDevice = std::size_t{1} << 20;
  FileStatus status;
  if (!readStatus(descriptor, status)) return {};
  if (status.kind == FileKind::kRegular) {
    return {static_cast<std::size_t>(status.length), kUnbounded};
  }
  const bool isDevice = status.kind == FileKind::kCharacterDevice && !isTerminal(descriptor);
  return {0, isDevice ? kMostOfDevice : quarterOfMemory()};
}

[[noreturn]] void failWithoutEnd(const std::string& name, std::size_t most) {
  throw Failure("cannot read " + inputName(name) + ": it does not end within " +
                std::to_string(most) + " bytes");
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
  const Expected expected = expectedOf(file.get());
  bytes.reserve(std::max(expected.length + 1, kChunk));
  for (std::size_t length = 0;;) {
    // One byte more than the capacity makes the string double it.
    bytes.resize(std::max(length + 1, std::min(bytes.capacity(), length + kChunk)));
    const std::ptrdiff_t count = readBytes(file.get(), &bytes[length], bytes.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) failToRead(name);
    length += static_cast<std::size_t>(count);
    if (length > expected.most) failWithoutEnd(name, expected.most);
    if (count == 0) {
      bytes.resize(length);
      return bytes;
    }
  }
}

}  // namespace mlnn
