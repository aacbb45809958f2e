#include "tools/files/CArray.h"

#include <cctype>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <ostream>

#include "tools/files/InputFile.h"

namespace mlnn {
namespace {

constexpr std::size_t kWordsInLine = 8;

void writeWords(const std::vector<char>& image, std::ostream& out) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string line;
  const std::size_t count = image.size() / sizeof(uint32_t);
  for (std::size_t i = 0; i < count; ++i) {
    uint32_t word;
    std::memcpy(&word, image.data() + i * sizeof word, sizeof word);
    line += i % kWordsInLine == 0 ? "    0x" : " 0x";
    for (int shift = 28; shift >= 0; shift -= 4) line += kDigits[word >> shift & 0xF];
    line += ',';
    if (i + 1 < count && (i + 1) % kWordsInLine != 0) continue;
    line += '\n';
    out << line;
    line.clear();
  }
}

}  // namespace

std::string arrayName(const std::string& fileName) {
  std::string name =
      fileName == kStandardStream ? "model" : std::filesystem::path(fileName).stem().string();
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) || static_cast<unsigned char>(c) > 127)
      c = '_';
  }
  if (name.empty() || std::isdigit(static_cast<unsigned char>(name.front()))) name.insert(0, "_");
  return name + "_image";
}

void writeCArray(const std::vector<char>& image, const std::string& name, std::ostream& out) {
  const std::string declarations = "extern const uint32_t " + name +
                                   "[];\n"
                                   "extern const size_t " +
                                   name + "_length;\n";
  out << "/* The image of a model, written by mlnn: " << image.size()
      << " bytes, for little-endian machines.\n"
         "   In C++ the declarations below need extern \"C\". */\n"
         "#include <stddef.h>\n"
         "#include <stdint.h>\n\n"
         "#ifdef __cplusplus\nextern \"C\" {\n#endif\n\n"
      << declarations << "\nconst size_t " << name << "_length = " << image.size()
      << ";\nconst uint32_t " << name << "[" << image.size() / sizeof(uint32_t) << "] = {\n";
  writeWords(image, out);
  out << "};\n\n#ifdef __cplusplus\n}\n#endif\n";
}

}  // namespace mlnn
