#include "inference/PreparedFloats.h"

#include "inference/kernels/KernelChoice.h"
#include "layers/NNLayerRecord.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

std::uint64_t preparedBytesOf(const MultiLayerNNModel& model, const Watch& watch) {
  std::uint64_t bytes = 0;
  for (const NNLayer* layer : model.layers) {
    tell(watch, 0);
    const auto form = planRecord(*layer, watch).form;
    LayerView view{};
    view.rows = static_cast<std::size_t>(layer->weights.rows());
    view.cols = static_cast<std::size_t>(layer->weights.cols());
    const bool pays = floatsPay(hasTable(form), hasRowScales(form), view, kernelShape());
    if (pays) bytes += bytesOfFloats(view);
  }
  return bytes;
}

}  // namespace mlnn
