// saidOfLayers — one line about all layers of a model.
//
// Internal: not installed.
#pragma once

#include <cstddef>
#include <string>

namespace mlnn {

// "layer 1", "layers 2-4".
inline std::string layersText(std::size_t first, std::size_t last) {
  if (first == last) return "layer " + std::to_string(first);
  return "layers " + std::to_string(first) + "-" + std::to_string(last);
}

// Puts together what `say(layer)`, counted from 0, says of each: of neighbours with the same words
// once, and nothing of those with none. "floats in layer 1, bytes in layers 2-4".
template <typename Say>
std::string saidOfLayers(std::size_t count, const Say& say) {
  std::string text;
  for (std::size_t first = 0; first < count;) {
    const std::string words = say(first);
    std::size_t next = first + 1;
    while (next < count && say(next) == words) ++next;
    if (!words.empty()) {
      text += (text.empty() ? "" : ", ") + words + " in " + layersText(first + 1, next);
    }
    first = next;
  }
  return text;
}

}  // namespace mlnn
