#include "tools/commands/CoarseGrid.h"

#include <cmath>
#include <optional>

#include "analysis/WeightForms.h"
#include "model/LayerStack.h"
#include "model/PrecisionGrid.h"
#include "text/Numbers.h"
#include "tools/Failure.h"

namespace mlnn {

double shareBelowAStep(const MultiLayerNNModel& model, int bits) {
  const std::optional<ValueRange> range = parameterRange(model.layers);
  if (!range) return 0;
  const float step = PrecisionGrid(*range, bits).step;
  std::size_t weights = 0;
  std::size_t below = 0;
  for (const NNLayer* layer : model.layers) {
    for (Eigen::Index i = 0; i < layer->weights.size(); ++i) {
      const float size = std::fabs(layer->weights.data()[i]);
      if (size == 0) continue;
      ++weights;
      if (size < step) ++below;
    }
  }
  return weights == 0 ? 0 : static_cast<double>(below) / static_cast<double>(weights);
}

void warnOfCoarseGrid(const MultiLayerNNModel& model, int bits) {
  constexpr double kMany = 0.1;
  const bool isQuantized = !quantizedText(model).empty();
  if (isQuantized) {
    printWarning("the weights are quantised by rows, which one grid for the whole model undoes");
  }
  const double share = shareBelowAStep(model, bits);
  if (share < kMany) return;
  printWarning(fixedNumber(share * 100, 0) + " % of the weights are smaller than a step of " +
               counted(static_cast<std::size_t>(bits), "bit") +
               " and become zero or the same; see what that loses with 'mlnn reduce --sweep'" +
               (isQuantized ? "" : ", or use 'mlnn quantize'"));
}

}  // namespace mlnn
