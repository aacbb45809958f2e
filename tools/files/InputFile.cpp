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

InputStream::InputStream(const std::string& name)
    : name_(name), file_(openInput(name)), most_(kUnbounded) {
  constexpr std::size_t kMostOfDevice = std::size_t{1} << 20;
  if (!file_.isOpen()) failToRead(name);
  FileStatus status;
  if (!readStatus(file_.get(), status)) return;
  if (status.kind == FileKind::kRegular) {
    begin_ = static_cast<uint64_t>(std::max<int64_t>(placeIn(file_.get()), 0));
    length_ = std::max(status.length, begin_) - begin_;  // of "-", somebody may have read some
    return;
  }
  isDevice_ = status.kind == FileKind::kCharacterDevice && !isTerminal(file_.get());
  most_ = isDevice_ ? kMostOfDevice : quarterOfMemory();
}

std::size_t InputStream::append(std::string& bytes, std::size_t count) {
  const std::size_t before = bytes.size();
  bytes.resize(before + count);
  std::ptrdiff_t got = -1;
  while ((got = readBytes(file_.get(), &bytes[before], count)) < 0 && errno == EINTR) continue;
  if (got < 0) failToRead(name_);
  bytes.resize(before + static_cast<std::size_t>(got));
  return static_cast<std::size_t>(got);
}

std::size_t InputStream::readAt(uint64_t place, char* target, std::size_t count) const {
  std::size_t done = 0;
  while (done < count) {
    const std::ptrdiff_t got =
        readBytesAt(file_.get(), begin_ + place + done, target + done, count - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) failToRead(name_);
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

bool InputStream::isReady() const { return hasBytesReady(file_.get()); }

void InputStream::failWithoutEnd() const {
  throw Failure("cannot read " + inputName(name_) + ": it does not end within " +
                std::to_string(most_) + " bytes");
}

std::string readRest(InputStream& input, std::string bytes) {
  constexpr std::size_t kChunk = std::size_t{1} << 17;
  if (const std::optional<uint64_t> length = input.length()) {
    bytes.reserve(static_cast<std::size_t>(std::min<uint64_t>(*length, kUnbounded - 1) +
                                           1));  // one to see the end with
  }
  // A byte more than the capacity makes the string double it.
  while (input.append(bytes, std::clamp<std::size_t>(bytes.capacity() - bytes.size(), 1, kChunk)) >
         0) {
    if (bytes.size() > input.most()) input.failWithoutEnd();
  }
  return bytes;
}

std::string readInput(const std::string& name) {
  InputStream input(name);
  return readRest(input, {});
}

}  // namespace mlnn
