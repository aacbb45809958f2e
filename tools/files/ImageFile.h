// ImageFile — an image that is run from where it lies in the file system, without being loaded.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "inference/ImageFwdPass.h"
#include "tools/files/MappedFile.h"

namespace mlnn {

class ImageFile {
 public:
  // Maps and opens the image. Nothing is returned for what is not a regular file that begins as
  // images do.
  // Prints: the reader's lines, as loadModel does.
  // Throws: Failure, after these lines, when the image is refused.
  static std::optional<ImageFile> open(const std::string& name, bool verbose);

  ImageFwdPass& pass() { return pass_; }
  const ImageFwdPass& pass() const { return pass_; }

  // Makes another pass over the same bytes, which are taken for verified. Prints nothing.
  // Returns: null when the image is refused by now.
  // Lifetime: this object must outlive it.
  std::unique_ptr<ImageFwdPass> anotherPass() const;

 private:
  MappedFile file_;
  ImageFwdPass pass_;
};

}  // namespace mlnn
