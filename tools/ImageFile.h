// ImageFile — an image that is run from where it lies in the file system, without being loaded.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "inference/ImageFwdPass.h"

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

 private:
  // A file in memory, read only.
  class Mapping {
   public:
    Mapping() = default;
    Mapping(int descriptor, std::size_t length);
    Mapping(Mapping&& other) noexcept;
    Mapping& operator=(Mapping&& other) noexcept;
    ~Mapping();

    // Null when the file could not be mapped.
    const void* data() const { return data_; }
    std::size_t length() const { return length_; }

   private:
    void* data_ = nullptr;
    std::size_t length_ = 0;
  };

  Mapping mapping_;
  ImageFwdPass pass_;
};

}  // namespace mlnn
