// How a model file's format is called.
#pragma once

#include <string>

#include "tools/files/ModelLoading.h"

namespace mlnn {

// For programs: the word that --to takes.
inline const char* formatWord(ModelFormat format) {
  return format == ModelFormat::kText ? kTextFormatWord : kBinaryFormatWord;
}

// For people: "text, version 2", "binary image".
inline std::string formatText(const ModelFile& file) {
  return file.format == ModelFormat::kText ? "text, version " + std::to_string(file.textVersion)
                                           : std::string("binary image");
}

}  // namespace mlnn
