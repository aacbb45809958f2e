#include "analysis/ModelCopy.h"

#include "layers/WatchedLayer.h"
#include "model/ModelSkeleton.h"

namespace mlnn {

MultiLayerNNModel copyOf(const MultiLayerNNModel& model, const Watch& watch) {
  MultiLayerNNModel copy = skeletonOf(model);
  copy.loss = model.loss;
  copy.accuracy = model.accuracy;
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    *copy.layers[i] = copyOf(*model.layers[i], watch);
  }
  tell(watch, 0);
  return copy;
}

}  // namespace mlnn
