#include "python/LayerWork.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "layers/ByteIo.h"
#include "layers/NNLayerRecord.h"
#include "layers/WatchedLayer.h"
#include "model/MemoryStream.h"
#include "python/Core.h"

namespace mlnn::python {
namespace {

// Puts bytes into memory a piece at a time.
class WatchedBytes final : public ByteSink {
 public:
  WatchedBytes(char* target, const Watch& watch) : target_(target), watch_(watch) {}

  void take(const void* bytes, std::size_t count) override {
    constexpr std::size_t kPiece = std::size_t{1} << 20;
    const char* from = static_cast<const char*>(bytes);
    while (count > 0) {
      const std::size_t piece = std::min(count, kPiece);
      std::memcpy(target_, from, piece);
      target_ += piece;
      from += piece;
      count -= piece;
      tell(watch_, 0);
    }
  }

 private:
  char* target_;
  const Watch& watch_;
};

}  // namespace

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
  const auto size = static_cast<py::ssize_t>(length);
  py::object record = py::reinterpret_steal<py::object>(PyBytes_FromStringAndSize(nullptr, size));
  if (!record) throw py::error_already_set();
  WatchedBytes bytes(PyBytes_AS_STRING(record.ptr()), watch);
  {
    const py::gil_scoped_release othersRun;
    writeRecord(layer, plan, bytes);
  }
  return py::reinterpret_steal<py::bytes>(record.release());
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
