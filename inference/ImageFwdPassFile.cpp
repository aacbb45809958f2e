// Opening an image by the name of its file. A source of its own, so that programs on devices that
// have no files are spared what it takes.
#include <cerrno>
#include <cstring>

#include "inference/ImageFileMapping.h"
#include "inference/ImageFwdPass.h"
#include "layers/Report.h"

namespace mlnn {

std::shared_ptr<const FileMapping> mapImageFile(const char* fileName) {
  const auto file = std::make_shared<const FileMapping>(fileName);
  if (file->data() != nullptr) return file;
  const int error = errno;
  report({"ERROR: ImageFwdPass: could not map file: ", fileName, ": ", std::strerror(error)});
  return nullptr;
}

int ImageFwdPass::openFile(const char* fileName, ImageChecksum checksum) {
  close();
  const std::shared_ptr<const FileMapping> file = mapImageFile(fileName);
  if (!file || open(file->data(), file->length(), checksum) != 0) return 1;
  file_ = file;
  return 0;
}

}  // namespace mlnn
