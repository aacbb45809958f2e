// Operations that turn a model into one that computes nearly the same: folding of batch
// norm, reduction of precision.
#include <cstdio>
#include <optional>

#include "features/EigenAssign.h"
#include "layers/FilledColumns.h"
#include "layers/Report.h"
#include "model/LayerStack.h"
#include "model/MultiLayerNNModel.h"
#include "model/PrecisionGrid.h"

namespace {

using Eigen::Index;

// Multiplies each row of `weights` by its factor. With another number of factors the matrix
// takes that many rows, of which those without a weight are zero.
void scaleRows(Eigen::MatrixXf& weights, const Eigen::VectorXf& factors) {
  if (weights.rows() != factors.size()) {
    const Index rows = std::min(weights.rows(), factors.size());
    Eigen::MatrixXf resized = Eigen::MatrixXf::Zero(factors.size(), weights.cols());
    if (rows > 0) resized.topRows(rows) = weights.topRows(rows);
    weights.swap(resized);
  }
  for (Index c = 0; c < mlnn::filledColumns(weights); ++c) {
    weights.col(c).array() *= factors.array();
  }
}

void fold(NNLayer& layer) {
  scaleRows(layer.weights, layer.gamma_inf);
  mlnn::assign(layer.bias, layer.beta_inf);
  layer.isBatchNorm = false;
}

// printf's "%f" whatever format the stream of messages has: fixed by the format of the line.
void printRange(const mlnn::ValueRange& range, int bits) {
  char line[256];  // three numbers of at most 47 characters, one of 10, and the words
  std::snprintf(line, sizeof line, "v_range %f - %f (%f), p_range %ld", double{range.smallest},
                double{range.largest}, double{range.width()}, long{mlnn::gridSteps(bits)});
  mlnn::reportByStdio(line);
}

}  // namespace

int MultiLayerNNModel::convBatchNorm() {
  for (std::size_t i = 0; i < layers.size(); ++i) {
    if (!mlnn::layerOrEmpty(layers[i]).isBatchNorm) {
      mlnn::report(
          {"Warning: request to translate batch norm network but layer is not batch norm: "
           "index=",
           i});
      continue;
    }
    if (layers[i]->gamma_inf.sum() == 0.0f) {
      mlnn::report({"ERROR: gamma_inf is zero in layer with index ", i,
                    ".  Can't convert because all weights will become zero.\n"
                    "       Call batch_norm_post_process before attempting to convert a batch norm "
                    "network"});
      return 1;
    }
    fold(*layers[i]);
  }
  return 0;
}

void MultiLayerNNModel::retainPrecisionBits(int bits) {
  if (bits < 0 || bits > 31) {
    mlnn::report(
        {"ERROR: MultiLayerNNModel::retainPrecisionBits: bits must be 0 to 31, got ", bits});
    return;
  }
  const std::optional<mlnn::ValueRange> found = mlnn::parameterRange(layers);
  const mlnn::ValueRange range = found.value_or(mlnn::ValueRange{0.0f, 0.0f});
  printRange(range, bits);
  if (!found) return;
  const mlnn::PrecisionGrid grid(range, bits);
  for (NNLayer* layer : layers) {
    if (layer == nullptr) continue;
    grid.snap(layer->bias.data(), static_cast<std::size_t>(layer->bias.size()));
    grid.snap(layer->weights.data(), static_cast<std::size_t>(layer->weights.size()));
  }
}
