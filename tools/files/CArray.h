// The bytes of an image as a C source file, for devices without a file system.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace mlnn {

// Returns the name of the array in a file of that name: what stands before the ending, with '_'
// for whatever C names cannot hold, and "_image", with "model" before what C keeps for itself;
// "model_image" for the standard output, and where C names can hold nothing of it.
std::string arrayName(const std::string& fileName);

// Whether C and C++ take the name for a variable: letters of ASCII, digits and '_', none of the
// words of either language, and not one that they keep for themselves ("__a", "_B").
bool isCName(const std::string& name);

// Writes a C and C++ source that defines `name`, an array of 32-bit words, so that an image lies
// where its floats may, and `name`_length, its length in bytes.
// `remark` is a line of its comment, "" for none.
// REQUIRES: the length is a multiple of 4, as that of every image is. The remark ends no comment.
void writeCArray(const std::vector<char>& image, const std::string& name, const std::string& remark,
                 std::ostream& out);

}  // namespace mlnn
