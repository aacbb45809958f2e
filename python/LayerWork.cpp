#include "python/LayerWork.h"

#include <cstdint>
#include <mutex>

#include "layers/NNLayerRecord.h"
#include "layers/WatchedLayer.h"
#include "model/MemoryStream.h"
#include "python/Core.h"
#include "python/WatchedBytes.h"

namespace mlnn::python {
py::bytes recordOf(const NNLayer& layer) {
  const Watch watch = interruptedBySignals({});
  WeightsPlan plan;
  uint64_t length = 0;
  {
    const py::gil_scoped_release othersRun;
    plan = planRecord(layer, watch);
    length = recordLength(layer, plan);
  }
  if (length > INT32_MAX) throw py::value_error("the layer is too large for a record");
  return bytesOf(static_cast<std::size_t>(length), watch,
                 [&](ByteSink& sink) { writeRecord(layer, plan, sink); });
}

std::unique_ptr<NNLayer> layerOf(std::string_view record) {
  if (record.size() > INT32_MAX) throw py::value_error("the record of a layer is too large");
  const Watch watch = interruptedBySignals({});
  const py::gil_scoped_release othersRun;
  auto layer = std::make_unique<NNLayer>();
  MemoryStream in(record.data(), record.size(), watch);
  const RecordResult result = readRecord(*layer, in, record.size());
  in.rethrow();
  if (result.length != static_cast<int>(record.size())) {
    throw py::value_error("not the record of a layer");
  }
  return layer;
}

std::unique_ptr<NNLayer> drawnLayer(int numInputs, int numOutputs, float initScale,
                                    bool batchNorm) {
  const Watch handlers = interruptedBySignals({});
  const py::gil_scoped_release othersRun;
  std::unique_lock<std::mutex> alone(randomSource());
  const Watch watch = [&](std::size_t steps) {
    alone.unlock();  // a handler may draw, or fork
    tell(handlers, steps);
    alone.lock();
  };
  return std::make_unique<NNLayer>(
      randomLayer(numInputs, numOutputs, initScale, batchNorm, handlers ? watch : Watch()));
}

}  // namespace mlnn::python
