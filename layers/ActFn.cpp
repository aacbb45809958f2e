#include "layers/ActFn.h"

#include <iterator>
#include <string_view>

#include "layers/ActivationList.h"

namespace ActFn {
namespace {

struct Entry {
  ActFn fn;
  std::string_view keyword;
};

#define MLNN_ENTRY(name, formula) {name, #name},
constexpr Entry kEntries[] = {MLNN_FOR_EACH_ACTIVATION(MLNN_ENTRY)};
#undef MLNN_ENTRY

constexpr bool areInTheOrderOfTheirCodes() {
  for (std::size_t code = 0; code < std::size(kEntries); ++code) {
    if (kEntries[code].fn != static_cast<ActFn>(code)) return false;
  }
  return true;
}

// Whether the value has a name. Compilers call it so, and any other value by its number.
template <ActFn fn>
constexpr bool isEnumerator() {
  constexpr std::string_view text = __PRETTY_FUNCTION__;
  constexpr char first = text[text.find("fn = ") + 5];
  return first != '(' && first != '-' && (first < '0' || first > '9');
}

static_assert(isEnumerator<linear>() && !isEnumerator<ActFn{-1}>());
static_assert(!isEnumerator<ActFn{kCount}>(), "kCount is not the number of the enumerators");
static_assert(std::size(kEntries) == kCount, "layers/ActivationList.h lacks an activation");
static_assert(areInTheOrderOfTheirCodes());

}  // namespace

std::string actFnToString(ActFn fn) {
  const auto code = static_cast<int32_t>(fn);
  if (code < 0 || code >= kCount) return "unknown";
  return std::string(kEntries[code].keyword);
}

int stringToActFn(const std::string& text, ActFn& out) {
  for (const Entry& entry : kEntries) {
    if (entry.keyword != text) continue;
    out = entry.fn;
    return 0;
  }
  return 1;
}

}  // namespace ActFn
