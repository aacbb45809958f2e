#include "tools/files/OutputFile.h"

#include <cerrno>
#include <iostream>
#include <optional>
#include <utility>

#include "os/Names.h"
#include "os/Replacing.h"
#include "text/Escape.h"
#include "tools/files/InputFile.h"

namespace mlnn {
namespace {

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
  if (name_ == kStandardStream) return copyOf(kStandardOutput);
  const std::filesystem::path path = withoutLinks(pathOf(name_));
  if (const std::optional<int> own = descriptorNamed(path)) return copyOf(*own);
  path_ = nameOf(path);
  FileStatus status;
  // By its name: a link of /proc to another's pipe leads there, but has no path as its text.
  if (!readStatus(name_.c_str(), status)) {
    if (errno != ENOENT) fail(errno);
    return openBeside(nullptr);
  }
  FileDescriptor present(openForWriting(name_.c_str()));
  if (!present.isOpen()) fail(errno);
  return status.kind == FileKind::kRegular ? openBeside(&status.access) : std::move(present);
}

// It goes on where the descriptor is, and whoever has that goes on where this ends.
FileDescriptor OutputFile::copyOf(int descriptor) {
  std::cout.flush();  // what was printed comes first
  FileDescriptor copy(duplicated(descriptor));
  if (!copy.isOpen()) fail(errno);
  return copy;
}

FileDescriptor OutputFile::openBeside(const FileAccess* replaced) {
  FileDescriptor descriptor = unfinished_.makeIn(nameOf(pathOf(path_).parent_path()));
  if (!descriptor.isOpen()) fail(errno);
  if (!takeAccess(descriptor.get(), replaced)) fail(errno);
  return descriptor;
}

void OutputFile::overwrite(const std::string& bytes) {
  stream_.flush();
  if (!stream_) fail(buffer_.error());
  const int64_t end = placeIn(descriptor_.get());
  if (end < 0 || !moveTo(descriptor_.get(), 0)) fail(errno);
  stream_ << bytes << std::flush;
  if (!stream_) fail(buffer_.error());
  if (!moveTo(descriptor_.get(), static_cast<uint64_t>(end))) fail(errno);
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
  if (!replaceFile(unfinished_.path(), path_)) failToWrite(name_, errno);
  unfinished_.release();
}

}  // namespace mlnn
