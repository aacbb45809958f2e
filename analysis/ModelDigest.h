// ModelDigest — digests of a model's parts, to tell which of them have changed.
//
// A digest is 128 bits of XXH3 as 32 hex digits. It finds what was damaged or mixed up by
// accident; it is no protection against who wants to forge one.
//
// A section of both formats has the same digest for the same model in either: "features",
// "minvals", "normvals", "layers" (their number and order) and "layer N" (kind, activation,
// shape and the arrays that the layer computes with). Arrays of a normalisation that is absent
// count as those that change nothing, as a binary image has them. Only a text has "softmax",
// "properties", "notes", "loss" and "accuracy"; only an image has "unused arrays", which its
// layers carry without computing with them.
#pragma once

#include <string>
#include <vector>

#include "features/Export.h"
#include "features/Watch.h"
#include "model/ModelFile.h"

namespace mlnn {

// A part of a model, and its digest.
struct DigestSection {
  std::string name;    // one of those above
  std::string digest;  // 32 hex digits
};

// The digests of all parts that a model's file holds.
struct ModelDigest {
  ModelFormat format = ModelFormat::kText;  // of the file
  std::vector<DigestSection> sections;      // one for each
};

// Returns the digests of all sections that the file's format holds. Activations that the file
// does not record count as they have been set (model/ModelFile.h).
// `watch` is told of layers.
MLNN_EXPORT ModelDigest digestOf(const ModelFile& file, const Watch& watch = {});

// Changes whenever the same model gets other digests.
inline constexpr int kDigestVersion = 1;

// What became of the sections of an earlier digest.
struct DigestComparison {
  // A section that is not as it was.
  struct Difference {
    std::string section;  // its name
    std::string text;     // as in "layer 1: is what layer 2 was"
  };
  std::vector<Difference> differences;
  std::vector<std::string> notCompared;  // sections that only one of two formats holds
};

// Compares the digests of a model with earlier ones, of either format.
MLNN_EXPORT DigestComparison compareDigests(const ModelDigest& now, const ModelDigest& before);

}  // namespace mlnn
