#include "model/FormatLoss.h"

#include <algorithm>
#include <cmath>

#include "text/Escape.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

using Lines = std::vector<std::string>;

std::size_t linesMissing(const Lines& wanted, const Lines& present) {
  std::size_t missing = 0;
  auto next = present.begin();
  for (const std::string& line : wanted) {
    const auto found = std::find(next, present.end(), line);
    if (found == present.end()) {
      ++missing;
    } else {
      next = found + 1;
    }
  }
  return missing;
}

void compareProperties(const MultiLayerNNModel& wanted, const MultiLayerNNModel& present,
                       Lines& lost) {
  std::string names;
  std::size_t number = 0;
  for (const auto& [key, value] : wanted.props) {
    const auto found = present.props.find(key);
    if (found != present.props.end() && found->second == value) continue;
    names += (number++ == 0 ? "" : ", ") + escaped(key);
  }
  if (number == 0) return;
  lost.push_back(std::to_string(number) + (number == 1 ? " property (" : " properties (") + names +
                 ")");
}

void compareCurves(const MultiLayerNNModel& wanted, const MultiLayerNNModel& present, Lines& lost) {
  if (wanted.loss != present.loss) {
    lost.push_back("the loss curve (" + counted(wanted.loss.size(), "value") + ")");
  }
  if (wanted.accuracy != present.accuracy) {
    lost.push_back("the accuracy curve (" + counted(wanted.accuracy.size(), "value") + ")");
  }
}

void compareFeatures(const MultiLayerNNModel& wanted, const MultiLayerNNModel& present,
                     Lines& lost) {
  const std::string text = textOf(wanted.featureDesc);
  const std::string presentText = textOf(present.featureDesc);
  if (text != presentText) {
    lost.push_back("the feature description " + text + ", which becomes " + presentText);
  }
  if (wanted.featureDesc.reserved != present.featureDesc.reserved) {
    lost.push_back("the reserved byte of the feature description (" +
                   std::to_string(int{wanted.featureDesc.reserved}) + ")");
  }
  MelDeltasNorm norm = wanted.deltasNorm;
  MelDeltasNorm presentNorm = present.deltasNorm;
  norm.allocIfNeeded();  // no arrays and arrays that change nothing mean the same
  presentNorm.allocIfNeeded();
  if (!sameValues(norm.minvals, presentNorm.minvals) ||
      !sameValues(norm.normvals, presentNorm.normvals)) {
    lost.push_back("the normalisation");
  }
}

// "batch-norm layer 3 (relu)": layers count from 1, as in the text format.
void compareActivations(const MultiLayerNNModel& wanted, const MultiLayerNNModel& present,
                        Lines& lost) {
  for (std::size_t i = 0; i < wanted.layers.size(); ++i) {
    const ActFn::ActFn actFn = wanted.layers[i]->actFn;
    if (actFn == present.layers[i]->actFn) continue;
    lost.push_back("the activation of batch-norm layer " + std::to_string(i + 1) + " (" +
                   ActFn::actFnToString(actFn) + ")");
  }
}

}  // namespace

std::string textOf(const DbnFeatureDescription& desc) {
  std::string text;
  desc.serialize(text);
  return text;
}

bool sameValues(const Eigen::VectorXf& a, const Eigen::VectorXf& b) {
  if (a.size() != b.size()) return false;
  for (Eigen::Index i = 0; i < a.size(); ++i) {
    const bool bothNaN = std::isnan(a[i]) && std::isnan(b[i]);
    const bool same = a[i] == b[i] && std::signbit(a[i]) == std::signbit(b[i]);
    if (!bothNaN && !same) return false;
  }
  return true;
}

Lines lossesBetween(const MultiLayerNNModel& wanted, const MultiLayerNNModel& present) {
  Lines lost;
  if (wanted.useSoftmax != present.useSoftmax) lost.push_back("that the softmax is off");
  const std::size_t notes = linesMissing(wanted.notes.lines, present.notes.lines);
  if (notes > 0) lost.push_back(counted(notes, "note line"));
  compareProperties(wanted, present, lost);
  compareCurves(wanted, present, lost);
  compareFeatures(wanted, present, lost);
  compareActivations(wanted, present, lost);
  return lost;
}

}  // namespace mlnn
