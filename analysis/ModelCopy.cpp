#include "analysis/ModelCopy.h"

#include "model/ModelSkeleton.h"

namespace mlnn {

MultiLayerNNModel copyOf(const MultiLayerNNModel& model, const Watch& watch) {
  MultiLayerNNModel copy = skeletonOf(model);
  copy.loss = model.loss;
  copy.accuracy = model.accuracy;
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    tell(watch, 0);
    *copy.layers[i] = *model.layers[i];
  }
  tell(watch, 0);
  return copy;
}

}  // namespace mlnn
