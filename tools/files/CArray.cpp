#include "tools/files/CArray.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <ostream>
#include <set>
#include <sstream>

#include "os/Names.h"
#include "tools/files/InputFile.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

constexpr std::size_t kWordsInLine = 8;

// Whatever the locale.
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool isLetterOrDigit(char c) { return isDigit(c) || isUpper(c) || (c >= 'a' && c <= 'z'); }

// The words of C and C++, and what the array's own headers define.
const std::set<std::string>& keywords() {
  static const std::set<std::string> words = [] {
    std::istringstream in(
        "alignas alignof and and_eq asm auto bitand bitor bool break case catch char char16_t "
        "char32_t char8_t class co_await co_return co_yield compl concept const const_cast "
        "consteval "
        "constexpr constinit continue decltype default delete do double dynamic_cast else enum "
        "explicit export extern false float for friend goto if inline int long mutable namespace "
        "new noexcept not not_eq nullptr operator or or_eq private protected public register "
        "reinterpret_cast requires restrict return short signed sizeof static static_assert "
        "static_cast struct switch template this thread_local throw true try typedef typeid "
        "typename typeof typeof_unqual union unsigned using virtual void volatile wchar_t while "
        "xor "
        "xor_eq main size_t ptrdiff_t offsetof uint32_t");
    return std::set<std::string>(std::istream_iterator<std::string>(in), {});
  }();
  return words;
}

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
  constexpr char kName[] = "model";
  constexpr char kSuffix[] = "_image";
  std::string name = nameOf(pathOf(fileName).stem());
  if (fileName == kStandardStream || std::none_of(name.begin(), name.end(), isLetterOrDigit)) {
    return std::string(kName) + kSuffix;
  }
  std::replace_if(
      name.begin(), name.end(), [](char c) { return !isLetterOrDigit(c); }, '_');
  if (isDigit(name.front())) name.insert(0, "_");
  name += kSuffix;
  return isCName(name) ? name : kName + name;  // "__" and "_A" are the languages' own
}

bool isCName(const std::string& name) {
  const auto isNamePart = [](char c) { return isLetterOrDigit(c) || c == '_'; };
  if (name.empty() || isDigit(name.front())) return false;
  if (!std::all_of(name.begin(), name.end(), isNamePart)) return false;
  const bool isReserved = name.size() > 1 && name[0] == '_' && (name[1] == '_' || isUpper(name[1]));
  return !isReserved && keywords().count(name) == 0;
}

void writeCArray(const std::vector<char>& image, const std::string& name, const std::string& remark,
                 std::ostream& out) {
  const std::string declarations = "extern const uint32_t " + name +
                                   "[];\n"
                                   "extern const size_t " +
                                   name + "_length;\n";
  out << "/* The image of a model, written by mlnn: " << image.size()
      << " bytes, for little-endian machines.\n"
      << (remark.empty() ? "" : "   " + remark + ".\n")
      << "   In C++ the declarations below need extern \"C\". */\n"
         "#include <stddef.h>\n"
         "#include <stdint.h>\n\n"
         "#ifdef __cplusplus\nextern \"C\" {\n#endif\n\n"
      << declarations << "\nconst size_t " << name << "_length = " << image.size()
      << ";\nconst uint32_t " << name << "[" << image.size() / sizeof(uint32_t) << "] = {\n";
  writeWords(image, out);
  out << "};\n\n#ifdef __cplusplus\n}\n#endif\n";
}

}  // namespace mlnn
