#include "inference/BiasCorrection.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "inference/NNFwdPassFromFile.h"
#include "inference/Pace.h"
#include "layers/Report.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {
namespace {

using Eigen::Index;
using Inputs = Eigen::Ref<const Eigen::MatrixXf>;

// The mean of each layer's affine values.
using LayerMeans = std::vector<Eigen::VectorXd>;

bool haveSameWidths(const MultiLayerNNModel& a, const MultiLayerNNModel& b) {
  return a.description() == b.description();
}

void addFrames(const std::vector<LayerResult>& layers, LayerMeans& sums) {
  sums.resize(layers.size());
  for (std::size_t i = 0; i < layers.size(); ++i) {
    const Eigen::MatrixXf& values = layers[i].affine;
    if (sums[i].size() == 0) sums[i].setZero(values.rows());
    for (Index frame = 0; frame < values.cols(); ++frame) {
      sums[i] += values.col(frame).cast<double>();
    }
  }
}

// Returns whether the model could be run.
// REQUIRES: there are inputs.
bool meansOf(const MultiLayerNNModel& model, const Inputs& inputs, LayerMeans& means,
             const Watch& watch) {
  constexpr Index kFrames = 256;  // so that results of all layers take little memory
  NNFwdPassFromFile pass(model);
  Eigen::MatrixXf outputs;
  std::vector<LayerResult> layers;
  means.clear();
  Pace pace(watch, kFrames);
  Index count = 0;
  for (Index first = 0; first < inputs.cols(); first += count) {
    count = std::min(pace.frames(), inputs.cols() - first);
    int result = 0;
    pace.run(
        [&] { result = pass.evaluateLayers(inputs.middleCols(first, count), outputs, layers); });
    if (result != 0) return false;
    addFrames(layers, means);
    tell(watch, static_cast<std::size_t>(count));
  }
  for (Eigen::VectorXd& mean : means) mean /= static_cast<double>(inputs.cols());
  return true;
}

void moveShift(NNLayer& layer, const Eigen::VectorXd& wanted, const Eigen::VectorXd& found) {
  Eigen::VectorXf& shift = layer.isBatchNorm ? layer.beta_inf : layer.bias;
  for (Index r = 0; r < shift.size(); ++r) {
    const double moved = double{shift[r]} + (wanted[r] - found[r]);
    if (std::fabs(moved) <= double{std::numeric_limits<float>::max()}) {
      shift[r] = static_cast<float>(moved);
    }
  }
}

}  // namespace

int correctBiases(const MultiLayerNNModel& original, MultiLayerNNModel& changed,
                  const Inputs& inputs) {
  return correctBiases(original, changed, inputs, Watch());
}

int correctBiases(const MultiLayerNNModel& original, MultiLayerNNModel& changed,
                  const Inputs& inputs, const Watch& watch) {
  if (!haveSameWidths(original, changed)) {
    report({"ERROR: correctBiases: the models have layers of other widths"});
    return 1;
  }
  if (inputs.cols() == 0) return 0;
  LayerMeans wanted;
  LayerMeans found;
  if (!meansOf(original, inputs, wanted, watch)) return 1;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    if (!meansOf(changed, inputs, found, watch)) return 1;  // in the first round, or never
    moveShift(*changed.layers[i], wanted[i], found[i]);
  }
  return 0;
}

}  // namespace mlnn
