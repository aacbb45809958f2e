#include "features/string_split.h"

void string_split(std::vector<std::string>& out, const std::string& text, const char* delimiters) {
  std::vector<std::string> pieces;
  std::size_t begin = text.find_first_not_of(delimiters);
  while (begin != std::string::npos) {
    const std::size_t end = text.find_first_of(delimiters, begin);
    pieces.push_back(text.substr(begin, end - begin));
    begin = text.find_first_not_of(delimiters, end);
  }
  out.swap(pieces);
}
