#include "tools/reports/XmlText.h"

#include "text/Escape.h"
#include "text/TextParts.h"

namespace mlnn {
namespace {

// U+FFFE and U+FFFF are UTF-8, but no characters of XML.
constexpr char kNoCharacter[] = "\xEF\xBF\xBE";
constexpr char kNorThis[] = "\xEF\xBF\xBF";

void append(std::string& out, char c) {
  switch (c) {
    case '&':
      out += "&amp;";
      break;
    case '<':
      out += "&lt;";
      break;
    case '>':
      out += "&gt;";
      break;
    case '"':
      out += "&quot;";
      break;
    default:
      out += c;
  }
}

}  // namespace

std::string xmlText(std::string_view text) {
  std::string out;
  const std::string safe = escaped(text);
  for (std::size_t i = 0; i < safe.size(); ++i) {
    const std::string_view rest = std::string_view(safe).substr(i);
    if (startsWith(rest, kNoCharacter) || startsWith(rest, kNorThis)) {
      out += startsWith(rest, kNorThis) ? "\\u{ffff}" : "\\u{fffe}";
      i += 2;
    } else {
      append(out, safe[i]);
    }
  }
  return out;
}

}  // namespace mlnn
