// ImageChecksum — whether a pass over an image verifies it.
#pragma once

namespace mlnn {

// Whether an image's checksum is computed when it is opened. To decline it saves a walk over the
// whole image, which may have been verified elsewhere. All else is checked all the same, so that
// whatever the bytes are, nothing outside the image is read.
enum class ImageChecksum { kVerified, kDeclined };

}  // namespace mlnn
