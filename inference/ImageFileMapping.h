// The file of an image, mapped. Internal: not installed.
#pragma once

#include <memory>

#include "os/FileMapping.h"

namespace mlnn {

// Maps the file of an image. Returns: null where that cannot be done, after an error line.
std::shared_ptr<const FileMapping> mapImageFile(const char* fileName);

}  // namespace mlnn
