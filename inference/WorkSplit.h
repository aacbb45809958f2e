// WorkSplit — into how many parts the work of an evaluation goes, and along what. What is chosen
// changes speed alone. Internal: not installed.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "inference/kernels/LayerView.h"

namespace mlnn {

// Multiplications that are worth waking a thread: those of about ten microseconds.
constexpr uint64_t kLeastWork = uint64_t{1} << 18;

// Rows that stand together in the panels of every form of weights. A part of a layer is more than
// kFewRows, so that it has the layer's own order of additions.
constexpr std::size_t kRowsTogether = 64;
static_assert(kRowsTogether > kFewRows);

// Frames that a thread takes at a time where there are many.
constexpr uint64_t kFramesInPart = 256;

// How many of `threads` have enough to do.
constexpr uint64_t worthwhileThreads(uint64_t multiplications, uint64_t threads) {
  return std::min(multiplications / kLeastWork, threads);
}

// Whether each thread is to take all frames through some rows of each layer. That reads the weights
// once, where frames are too few to make up for reading them once a thread.
constexpr bool splitsRows(uint64_t weights, uint64_t frames, uint64_t threads) {
  constexpr uint64_t kFewFrames = 16;
  return weights * sizeof(float) >= kSecondLevelBytes && frames < kFewFrames * threads;
}

// The parts of about as many frames each that the frames make; 1 where one thread takes them all.
constexpr uint64_t frameParts(uint64_t weights, uint64_t frames, uint64_t threads) {
  const uint64_t used = std::min(worthwhileThreads(weights * frames, threads), frames);
  if (used < 2) return 1;
  const uint64_t together = used * kFramesInPart;
  return used * ((frames + together - 1) / together);
}

// The parts of whole kRowsTogether rows that a layer makes; the last one takes those left over.
constexpr std::size_t rowParts(std::size_t rows, uint64_t multiplications, uint64_t threads) {
  const uint64_t used =
      std::min<uint64_t>(worthwhileThreads(multiplications, threads), rows / kRowsTogether);
  return std::max<std::size_t>(static_cast<std::size_t>(used), 1);
}

// Where part `part` of `parts` begins, of so many things.
constexpr std::size_t partBegin(std::size_t part, std::size_t parts, std::size_t things) {
  return static_cast<std::size_t>(uint64_t{things} * part / parts);
}

}  // namespace mlnn
