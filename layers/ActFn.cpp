#include "layers/ActFn.h"

#include <array>
#include <string_view>

namespace ActFn {
namespace {

// Keywords in the order of the codes.
constexpr std::array<std::string_view, kCount> kKeywords = {
    "linear", "sigmoid", "tanh", "relu", "leaky_relu", "elu", "softplus", "silu"};

}  // namespace

std::string actFnToString(ActFn fn) {
  const auto code = static_cast<int32_t>(fn);
  if (code < 0 || code >= kCount) return "unknown";
  return std::string(kKeywords[static_cast<std::size_t>(code)]);
}

int stringToActFn(const std::string& text, ActFn& out) {
  for (std::size_t code = 0; code < kKeywords.size(); ++code) {
    if (kKeywords[code] != text) continue;
    out = static_cast<ActFn>(code);
    return 0;
  }
  return 1;
}

}  // namespace ActFn
