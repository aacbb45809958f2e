#include "analysis/diagnosis/TextPlace.h"

#include <algorithm>

namespace mlnn {

void placeInText(std::string_view text, Misfit& misfit) {
  const std::string_view before = text.substr(0, misfit.offset);
  misfit.line = 1 + static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
  const std::size_t lineBreak = before.rfind('\n');
  misfit.column =
      lineBreak == std::string_view::npos ? before.size() + 1 : before.size() - lineBreak;
}

}  // namespace mlnn
