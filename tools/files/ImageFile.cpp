#include "tools/files/ImageFile.h"

#include <cstdint>
#include <limits>
#include <vector>

#include "layers/Messages.h"
#include "model/ModelFormat.h"
#include "os/Descriptors.h"
#include "tools/Failure.h"
#include "tools/files/FileDescriptor.h"
#include "tools/files/InputFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/RegularFile.h"

namespace mlnn {
namespace {

// The length of a regular file; nothing for anything else, or what memory could not hold.
std::optional<std::size_t> lengthOf(int descriptor) {
  FileStatus status;
  if (!readStatus(descriptor, status) || status.kind != FileKind::kRegular) return std::nullopt;
  if (status.length > std::numeric_limits<std::size_t>::max()) return std::nullopt;
  return static_cast<std::size_t>(status.length);
}

}  // namespace

std::optional<ImageFile> ImageFile::open(const std::string& name, bool verbose) {
  if (!identityOfRegularFile(name)) return std::nullopt;
  const FileDescriptor file(openForReading(name.c_str()));
  const std::optional<std::size_t> length = lengthOf(file.get());
  if (!length || *length < kMinImageLength) return std::nullopt;
  ImageFile image;
  image.file_ = MappedFile(file.get(), *length, name);
  const void* const data = image.file_.data();
  if (data == nullptr || !isImage({static_cast<const char*>(data), *length})) return std::nullopt;
  int result;
  std::vector<Message> messages;
  {
    const CollectedMessages said;
    result = image.pass_.open(data, *length);
    messages = said.messages();
  }
  showMessages(messages, verbose);
  if (result != 0) throw Failure("could not load the model " + inputName(name));
  return image;
}

std::unique_ptr<ImageFwdPass> ImageFile::anotherPass() const {
  auto pass = std::make_unique<ImageFwdPass>();
  const CollectedMessages said;
  if (pass->open(file_.data(), file_.length(), ImageChecksum::kDeclined) != 0) return nullptr;
  return pass;
}

}  // namespace mlnn
