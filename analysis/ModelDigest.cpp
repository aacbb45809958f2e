#include "analysis/ModelDigest.h"

#define XXH_INLINE_ALL  // its code goes into this file: there is nothing to link
#include <xxhash.h>

#include <algorithm>
#include <cstdint>
#include <map>

#include "layers/LayerArrays.h"
#include "model/LayerStack.h"
#include "text/Escape.h"

namespace mlnn {
namespace {

constexpr char kLayerPrefix[] = "layer ";
constexpr char kUnusedArrays[] = "unused arrays";
constexpr const char* kTextSections[] = {"softmax", "properties", "notes", "loss", "accuracy"};

// Takes values in one after the other; lengths go in too, so that no two lists of values look
// the same when run together.
class Hasher {
 public:
  Hasher() { XXH3_128bits_reset(&state_); }

  void bytes(const void* data, std::size_t count) {
    if (count > 0) XXH3_128bits_update(&state_, data, count);
  }
  void number(uint64_t value) { bytes(&value, sizeof value); }
  void text(const std::string& value) {
    number(value.size());
    bytes(value.data(), value.size());
  }
  template <typename Floats>
  void floats(const Floats& values) {
    number(static_cast<uint64_t>(values.size()));
    bytes(values.data(), static_cast<std::size_t>(values.size()) * sizeof(float));
  }

  std::string digest() const {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(&state_));
    std::string hex;
    for (const unsigned char byte : canonical.digest) {
      hex += "0123456789abcdef"[byte >> 4];
      hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
  }

 private:
  XXH3_state_t state_;
};

// The digest of what `add(hasher)` puts in.
template <typename Add>
std::string digestFrom(Add add) {
  Hasher hasher;
  add(hasher);
  return hasher.digest();
}

template <typename Floats>
std::string digestOfFloats(const Floats& values) {
  return digestFrom([&values](Hasher& hasher) { hasher.floats(values); });
}

// --- Sections ---

std::string digestOf(const DbnFeatureDescription& desc) {
  return digestFrom([&desc](Hasher& hasher) { hasher.bytes(&desc, sizeof desc); });
}

std::string digestOf(const NNLayer& layer) {
  return digestFrom([&layer](Hasher& hasher) {
    hasher.number(layer.isBatchNorm ? 1 : 0);
    hasher.number(static_cast<uint64_t>(layer.actFn));
    hasher.number(static_cast<uint64_t>(layer.weights.rows()));
    hasher.number(static_cast<uint64_t>(layer.weights.cols()));
    forEachUsedArray(layer, [&hasher](const char*, const auto& values) { hasher.floats(values); });
  });
}

std::string digestOfUnusedArrays(const std::vector<NNLayer*>& layers) {
  return digestFrom([&layers](Hasher& hasher) {
    for (const NNLayer* entry : layers) {
      const NNLayer& layer = layerOrEmpty(entry);
      for (const LayerVector& vector : kLayerVectors) {
        if (!vector.isUsedBy(layer)) hasher.floats(vector.of(layer));
      }
    }
  });
}

std::string digestOf(const std::map<std::string, std::string>& properties) {
  return digestFrom([&properties](Hasher& hasher) {
    for (const auto& [key, value] : properties) {
      hasher.text(key);
      hasher.text(value);
    }
  });
}

std::string digestOf(const std::vector<std::string>& lines) {
  return digestFrom([&lines](Hasher& hasher) {
    for (const std::string& line : lines) hasher.text(line);
  });
}

void addTextSections(const MultiLayerNNModel& model, std::vector<DigestSection>& sections) {
  const std::string digests[] = {
      digestFrom([&model](Hasher& hasher) { hasher.number(model.useSoftmax ? 1 : 0); }),
      digestOf(model.props), digestOf(model.notes.lines), digestOfFloats(model.loss),
      digestOfFloats(model.accuracy)};
  static_assert(std::size(digests) == std::size(kTextSections));
  for (std::size_t i = 0; i < std::size(digests); ++i) {
    sections.push_back({kTextSections[i], digests[i]});
  }
}

void addLayerSections(const std::vector<NNLayer*>& layers, const Watch& watch,
                      std::vector<DigestSection>& sections) {
  std::vector<std::string> digests;
  digests.reserve(layers.size());
  for (const NNLayer* layer : layers) {
    digests.push_back(digestOf(layerOrEmpty(layer)));
    tell(watch, 1);
  }
  sections.push_back({"layers", digestOf(digests)});
  for (std::size_t i = 0; i < digests.size(); ++i) {
    sections.push_back({kLayerPrefix + std::to_string(i + 1), digests[i]});
  }
}

// --- Comparison ---

bool isOfOneFormat(const std::string& section) {
  return section == kUnusedArrays || std::find(std::begin(kTextSections), std::end(kTextSections),
                                               section) != std::end(kTextSections);
}

bool isLayer(const DigestSection& section) {
  return section.name.compare(0, std::size(kLayerPrefix) - 1, kLayerPrefix) == 0;
}

// Sections by what they are asked for.
class Index {
 public:
  explicit Index(const ModelDigest& digest) {
    for (const DigestSection& section : digest.sections) {
      digests_.emplace(section.name, section.digest);
      if (isLayer(section)) layers_.emplace(section.digest, section.name);
    }
  }

  // Return nullptr where there is none.
  const std::string* digestOf(const std::string& name) const { return find(digests_, name); }
  const std::string* layerWith(const std::string& digest) const { return find(layers_, digest); }

 private:
  using Map = std::map<std::string, std::string>;

  static const std::string* find(const Map& map, const std::string& key) {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
  }

  Map digests_;
  Map layers_;
};

std::string differenceText(const DigestSection& section, const Index& before) {
  const std::string* const moved = isLayer(section) ? before.layerWith(section.digest) : nullptr;
  if (moved == nullptr) return section.name + ": changed";
  return section.name + ": is what " + escaped(*moved) + " was";
}

}  // namespace

ModelDigest digestOf(const ModelFile& file, const Watch& watch) {
  const MultiLayerNNModel& model = file.model;
  MelDeltasNorm norm = model.deltasNorm;
  norm.allocIfNeeded();
  ModelDigest digest;
  digest.format = file.format;
  digest.sections = {{"features", digestOf(model.featureDesc)},
                     {"minvals", digestOfFloats(norm.minvals)},
                     {"normvals", digestOfFloats(norm.normvals)}};
  if (file.format == ModelFormat::kText) addTextSections(model, digest.sections);
  addLayerSections(model.layers, watch, digest.sections);
  if (file.format == ModelFormat::kBinary) {
    digest.sections.push_back({kUnusedArrays, digestOfUnusedArrays(model.layers)});
  }
  return digest;
}

DigestComparison compareDigests(const ModelDigest& now, const ModelDigest& before) {
  DigestComparison comparison;
  const auto isLeftOut = [&](const DigestSection& section) {
    return now.format != before.format && isOfOneFormat(section.name);
  };
  const Index earlier(before);
  for (const DigestSection& section : now.sections) {
    const std::string* const digest = earlier.digestOf(section.name);
    if (isLeftOut(section)) {
      comparison.notCompared.push_back(section.name);
    } else if (digest == nullptr) {
      comparison.differences.push_back({section.name, section.name + ": new"});
    } else if (*digest != section.digest) {
      comparison.differences.push_back({section.name, differenceText(section, earlier)});
    }
  }
  const Index current(now);
  for (const DigestSection& section : before.sections) {
    if (current.digestOf(section.name) != nullptr) continue;
    const std::string name = escaped(section.name);
    if (isLeftOut(section)) {
      comparison.notCompared.push_back(name);
    } else {
      comparison.differences.push_back({name, name + ": gone"});
    }
  }
  return comparison;
}

}  // namespace mlnn
