#include "analysis/StatementDiff.h"

#include <algorithm>
#include <set>
#include <utility>

#include "analysis/Difference.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

using Lines = std::vector<std::string>;
using Text = std::optional<std::string>;

class Differences {
 public:
  void add(const std::string& what, Text a, Text b) {
    if (a != b) found_.push_back({what, std::move(a), std::move(b)});
  }

  std::vector<StatementDifference> take() { return std::move(found_); }

 private:
  std::vector<StatementDifference> found_;
};

void compareProperties(const MultiLayerNNModel& a, const MultiLayerNNModel& b, Differences& found) {
  std::set<std::string> keys;
  for (const auto& [key, value] : a.props) keys.insert(key);
  for (const auto& [key, value] : b.props) keys.insert(key);
  const auto valueIn = [](const MultiLayerNNModel& model, const std::string& key) {
    const auto entry = model.props.find(key);
    return entry == model.props.end() ? Text() : Text(entry->second);
  };
  for (const std::string& key : keys) {
    found.add("property " + key, valueIn(a, key), valueIn(b, key));
  }
}

std::string noteName(Lines::const_iterator first, Lines::const_iterator note) {
  return "note " + std::to_string(note - first + 1);
}

void compareNotes(const Lines& a, const Lines& b, Differences& found) {
  const auto [startA, startB] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  auto endA = a.end();
  auto endB = b.end();
  while (endA != startA && endB != startB && *(endA - 1) == *(endB - 1)) {
    --endA;
    --endB;
  }
  for (auto note = startA; note != endA; ++note) {
    found.add(noteName(a.begin(), note), *note, std::nullopt);
  }
  for (auto note = startB; note != endB; ++note) {
    found.add(noteName(b.begin(), note), std::nullopt, *note);
  }
}

// "20 values, of which number 3 is 0.25".
std::string describe(const float* values, std::size_t count, std::size_t shown) {
  if (count == 0) return "none";
  std::string text = counted(count, "value");
  if (shown < count) {
    text += ", of which number " + std::to_string(shown + 1) + " is " +
            generalNumber(static_cast<double>(values[shown]), kExactDigits);
  }
  return text;
}

// Compares lists of values, and tells the first that differs.
void compareValues(const std::string& what, const float* a, std::size_t countA, const float* b,
                   std::size_t countB, Differences& found) {
  const std::size_t common = std::min(countA, countB);
  std::size_t first = 0;
  while (first < common && absoluteDifference(a[first], b[first]) == 0) ++first;
  if (first == common && countA == countB) return;
  found.add(what, describe(a, countA, first), describe(b, countB, first));
}

void compareCurve(const std::string& what, const std::vector<float>& a, const std::vector<float>& b,
                  Differences& found) {
  compareValues(what, a.data(), a.size(), b.data(), b.size(), found);
}

void compareNormalisation(MelDeltasNorm a, MelDeltasNorm b, Differences& found) {
  a.allocIfNeeded();
  b.allocIfNeeded();
  constexpr auto kLength = static_cast<std::size_t>(MelDeltasNorm::kLength);
  compareValues("normalisation minvals", a.minvals.data(), kLength, b.minvals.data(), kLength,
                found);
  compareValues("normalisation normvals", a.normvals.data(), kLength, b.normvals.data(), kLength,
                found);
}

std::string textOf(const DbnFeatureDescription& desc) {
  std::string text;
  desc.serialize(text);
  return text;
}

void compareFeatures(const DbnFeatureDescription& a, const DbnFeatureDescription& b,
                     Differences& found) {
  found.add("feature description", textOf(a), textOf(b));
  found.add("feature description, reserved byte", std::to_string(int{a.reserved}),
            std::to_string(int{b.reserved}));
}

Text describeLayer(const MultiLayerNNModel& model, std::size_t i) {
  if (i >= model.layers.size()) return std::nullopt;
  const NNLayer& layer = *model.layers[i];
  return counted(static_cast<std::size_t>(layer.weights.cols()), "input") + ", " +
         counted(static_cast<std::size_t>(layer.weights.rows()), "output") + ", " +
         (layer.isBatchNorm ? "batch norm" : "plain") + ", " + ActFn::actFnToString(layer.actFn);
}

}  // namespace

std::vector<StatementDifference> compareStatements(const MultiLayerNNModel& a,
                                                   const MultiLayerNNModel& b) {
  Differences found;
  found.add("softmax", a.useSoftmax ? "on" : "off", b.useSoftmax ? "on" : "off");
  compareFeatures(a.featureDesc, b.featureDesc, found);
  compareNormalisation(a.deltasNorm, b.deltasNorm, found);
  compareNotes(a.notes.lines, b.notes.lines, found);
  compareProperties(a, b, found);
  compareCurve("loss curve", a.loss, b.loss, found);
  compareCurve("accuracy curve", a.accuracy, b.accuracy, found);
  const std::size_t layers = std::max(a.layers.size(), b.layers.size());
  for (std::size_t i = 0; i < layers; ++i) {
    found.add("layer " + std::to_string(i + 1), describeLayer(a, i), describeLayer(b, i));
  }
  return found.take();
}

}  // namespace mlnn
