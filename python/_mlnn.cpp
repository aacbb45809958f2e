// _mlnn — the thin binding under the Python package `mlnn`, which gives it its face.
//
// A call that can fail returns (result, messages): what the library returned, and a list of what
// it said, each message as (severity, text).
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "analysis/ModelCopy.h"
#include "analysis/WeightForms.h"
#include "features/ContextWindow.h"
#include "features/Version.h"
#include "inference/BiasCorrection.h"
#include "inference/Evaluation.h"
#include "inference/IntegerFwdPass.h"
#include "inference/RecordingInputs.h"
#include "layers/LayerArrays.h"
#include "layers/Messages.h"
#include "layers/RowCodes.h"
#include "layers/WatchedLayer.h"
#include "model/FormatFit.h"
#include "model/ImageReader.h"
#include "model/ModelFile.h"
#include "model/ModelFormat.h"
#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"
#include "model/StackOutputs.h"
#include "python/Analysis.h"
#include "python/Arrays.h"
#include "python/Core.h"
#include "python/LayerWork.h"
#include "python/WatchedBytes.h"
#include "text/Numbers.h"
#include "tools/files/CArray.h"
#include "tools/files/OutputFile.h"
#include "tools/files/UnfinishedFile.h"

namespace mlnn::python {

// What Python holds of a layer. It keeps the model alive, and the arrays that Python sees keep
// it alive. A layer that is removed from its model goes on living in its handle. As no
// operation moves an array that has values, no array that Python sees can dangle.
class LayerHandle {
 public:
  LayerHandle(std::shared_ptr<Core> model, NNLayer* held) : core(std::move(model)), layer(held) {}
  ~LayerHandle() {
    const std::lock_guard<std::mutex> lock(core->handlesMutex);
    const auto entry = core->handles.find(layer);
    if (entry != core->handles.end() && entry->second.expired()) core->handles.erase(entry);
  }
  LayerHandle(const LayerHandle&) = delete;
  LayerHandle& operator=(const LayerHandle&) = delete;

  const std::shared_ptr<Core> core;
  NNLayer* const layer;
  std::unique_ptr<NNLayer> removed;  // `layer`, once the model has given it up
};

}  // namespace mlnn::python

namespace {

namespace py = pybind11;
using namespace mlnn::python;
using Eigen::Index;

// --- Layers ---

std::shared_ptr<LayerHandle> layerAt(const std::shared_ptr<Core>& core, std::size_t index) {
  return read(*core, [&](MultiLayerNNModel& model) {
    if (index >= model.layers.size()) throw py::index_error("no such layer");
    NNLayer* const layer = model.layers[index];
    const std::lock_guard<std::mutex> handlesLock(core->handlesMutex);
    std::weak_ptr<LayerHandle>& known = core->handles[layer];
    std::shared_ptr<LayerHandle> handle = known.lock();
    if (!handle) {
      handle = std::make_shared<LayerHandle>(core, layer);
      known = handle;
    }
    return handle;
  });
}

// Takes a layer out of the model that is about to lose it, and gives it to its handle.
// Returns: the handle; null when Python does not hold the layer, which then stays.
std::shared_ptr<LayerHandle> handToPython(Core& core, NNLayer*& layer) {
  const auto entry = core.handles.find(layer);
  if (entry == core.handles.end()) return nullptr;
  std::shared_ptr<LayerHandle> handle = entry->second.lock();
  core.handles.erase(entry);
  if (!handle) return nullptr;
  handle->removed.reset(layer);
  layer = nullptr;
  return handle;
}

Said deleteLayers(Core& core, unsigned int count) {
  std::vector<std::shared_ptr<LayerHandle>> kept;  // die after the locks, which they take
  return heard<Writing>(core, [&](MultiLayerNNModel& model) {
    std::vector<NNLayer*>& layers = model.layers;
    if (count <= layers.size()) {
      kept.reserve(count);
      const std::lock_guard<std::mutex> handlesLock(core.handlesMutex);
      for (std::size_t i = layers.size() - count; i < layers.size(); ++i) {
        kept.push_back(handToPython(core, layers[i]));
      }
    }
    return model.deleteLayers(count);
  });
}

void take(MultiLayerNNModel& model, std::unique_ptr<NNLayer> layer) {
  model.layers.push_back(layer.get());
  layer.release();
}

// Appends a layer of zeros, with those vectors that its kind uses. The others are empty.
void appendLayer(Core& core, int numInputs, int numOutputs, bool batchNorm) {
  if (numInputs < 0 || numOutputs < 0) throw py::value_error("a layer's size is negative");
  write(core, [=](MultiLayerNNModel& model) {
    auto layer = std::make_unique<NNLayer>(numInputs, numOutputs, batchNorm);
    if (batchNorm) layer->bias.resize(0);
    take(model, std::move(layer));
  });
}

// Appends a layer from its binary record.
void appendRecord(Core& core, const py::bytes& record) {
  std::unique_ptr<NNLayer> layer = layerOf(record);
  write(core, [&layer](MultiLayerNNModel& model) { take(model, std::move(layer)); });
}

// Makes the first layer of random weights. It is drawn before the model is locked; where there are
// layers already, or another thread adds one meanwhile, the model refuses.
Said createFirst(Core& core, int inputs, int outputs, float scale, bool batchNorm) {
  refuseWhileRunning(core);
  const bool isFirst =
      read(core, [](const MultiLayerNNModel& model) { return model.layers.empty(); });
  std::unique_ptr<NNLayer> layer;
  if (isFirst) layer = drawnLayer(inputs, outputs, scale, batchNorm);
  return heard<Writing>(core, [&](MultiLayerNNModel& model) {
    if (layer && model.layers.empty()) {
      take(model, std::move(layer));
      return 0;
    }
    const std::lock_guard<std::mutex> alone(randomSource());
    return model.createFirstLayer(inputs, outputs, scale, batchNorm);
  });
}

// Adds a layer of random weights, and notes it. It is drawn before the model is locked, and anew
// where another thread changes what it must fit meanwhile.
Said addRandom(Core& core, int outputs, float scale, bool batchNorm) {
  refuseWhileRunning(core);
  for (;;) {
    const int inputs = read(core, [](const MultiLayerNNModel& model) {
      return model.layers.empty() ? -1 : model.numOutputs();
    });
    std::unique_ptr<NNLayer> layer;
    if (inputs >= 0) layer = drawnLayer(inputs, outputs, scale, batchNorm);
    bool isDone = true;
    Said said = heard<Writing>(core, [&](MultiLayerNNModel& model) {
      if (model.layers.empty()) return model.addLayerRndInit(outputs, scale, batchNorm);
      isDone = layer != nullptr && model.numOutputs() == inputs;
      if (!isDone) return 0;
      take(model, std::move(layer));
      model.notes.addRndLayer(static_cast<int>(model.layers.size()), scale);
      return 0;
    });
    if (isDone) return said;
  }
}

// Throws: py::value_error where one of the layers from `begin` to `end` does not fit the one
// before.
void requireFit(const std::vector<NNLayer*>& layers, std::size_t begin, std::size_t end) {
  for (std::size_t i = std::max<std::size_t>(begin, 1); i < std::min(end, layers.size()); ++i) {
    const Index outputs = layers[i - 1]->weights.rows();
    const Index inputs = layers[i]->weights.cols();
    if (inputs == outputs) continue;
    throw py::value_error("layer " + std::to_string(i + 1) + ": " + std::to_string(inputs) +
                          " inputs after " + std::to_string(outputs) + " outputs");
  }
}

// Puts layers, from their binary records, in the place of those from `begin` to `end`. Those that
// Python holds go on living in their handles.
// Throws: py::value_error where layers would not fit those beside them; nothing changes then.
void replaceLayers(Core& core, std::size_t begin, std::size_t end,
                   const std::vector<py::bytes>& records) {
  std::vector<std::unique_ptr<NNLayer>> added;
  for (const py::bytes& record : records) added.push_back(layerOf(record));
  std::vector<std::shared_ptr<LayerHandle>> kept;  // die after the locks, which they take
  write(core, [&](MultiLayerNNModel& model) {
    std::vector<NNLayer*>& layers = model.layers;
    if (begin > end || end > layers.size()) throw py::index_error("no such layers");
    const auto at = [&layers](std::size_t i) {
      return layers.begin() + static_cast<std::ptrdiff_t>(i);
    };
    std::vector<NNLayer*> changed(layers.begin(), at(begin));
    for (const std::unique_ptr<NNLayer>& layer : added) changed.push_back(layer.get());
    changed.insert(changed.end(), at(end), layers.end());
    requireFit(changed, begin, begin + added.size() + 1);
    kept.reserve(end - begin);
    const std::lock_guard<std::mutex> handlesLock(core.handlesMutex);
    for (std::size_t i = begin; i < end; ++i) {
      kept.push_back(handToPython(core, layers[i]));
      delete layers[i];  // null where Python has it
    }
    layers = std::move(changed);
    for (std::unique_ptr<NNLayer>& layer : added) layer.release();
  });
}

// A copy of what another thread may change through a view without a lock: what is looked at twice
// must be one.
NNLayer copyOfHeld(const LayerHandle& handle) {
  return read(*handle.core, [&handle](const MultiLayerNNModel&) {
    return mlnn::copyOf(*handle.layer, interruptedBySignals({handle.core.get()}));
  });
}

py::bytes recordOfHeld(const LayerHandle& handle) { return recordOf(copyOfHeld(handle)); }

Eigen::VectorXf& vectorOf(NNLayer& layer, const std::string& name) {
  const mlnn::LayerVector* const vector = mlnn::layerVector(name);
  if (vector == nullptr) throw py::key_error(name);
  return vector->of(layer);
}

// The names of the vectors, each with whether it is a batch-norm layer's.
py::list layerVectors() {
  py::list vectors;
  for (const mlnn::LayerVector& vector : mlnn::kLayerVectors) {
    vectors.append(py::make_tuple(vector.name, vector.inBatchNorm));
  }
  return vectors;
}

// A NumPy array over the layer's own values, outputs x inputs.
py::array weightsView(const std::shared_ptr<LayerHandle>& handle) {
  ++handle->core->changes;  // may come through the array at any time
  const Columns seen = read(*handle->core, [&handle](const MultiLayerNNModel&) {
    const Eigen::MatrixXf& weights = handle->layer->weights;
    return Columns(weights.data(), weights.rows(), weights.cols(),
                   Eigen::OuterStride<>(weights.rows()));
  });
  const py::ssize_t size = sizeof(float);
  return py::array_t<float>({py::ssize_t{seen.rows()}, py::ssize_t{seen.cols()}},
                            {size, seen.rows() * size}, seen.data(), py::cast(handle));
}

py::array vectorView(const std::shared_ptr<LayerHandle>& handle, const std::string& name) {
  ++handle->core->changes;
  const auto [data, size] = read(*handle->core, [&](const MultiLayerNNModel&) {
    Eigen::VectorXf& vector = vectorOf(*handle->layer, name);
    return std::make_pair(vector.data(), py::ssize_t{vector.size()});
  });
  return py::array_t<float>({size}, {py::ssize_t{sizeof(float)}}, data, py::cast(handle));
}

// Gives a vector that is empty one zero for each output. Others stay where they are.
void growVector(const LayerHandle& handle, const std::string& name) {
  write(*handle.core, [&](MultiLayerNNModel&) {
    Eigen::VectorXf& vector = vectorOf(*handle.layer, name);
    if (vector.size() == 0) vector = Eigen::VectorXf::Zero(handle.layer->weights.rows());
  });
}

// Returns the layer's weights as whole numbers, outputs x inputs, and a scale for each output; None
// where they are no such numbers.
py::object rowCodesOf(const LayerHandle& handle) {
  const NNLayer layer = copyOfHeld(handle);
  const mlnn::Watch watch = interruptedBySignals({});
  const auto rows = static_cast<std::size_t>(layer.weights.rows());
  const auto cols = static_cast<std::size_t>(layer.weights.cols());
  std::optional<mlnn::RowCodes> found;
  {
    const py::gil_scoped_release othersRun;
    found = mlnn::RowCodes::find(layer.weights.data(), rows, cols, watch);
  }
  if (!found) return py::none();
  py::array_t<int8_t> codes({rows, cols});
  int8_t* code = codes.mutable_data();
  {
    const py::gil_scoped_release othersRun;
    const mlnn::RowCodesView view = found->view();
    for (std::size_t row = 0; row < rows; ++row, mlnn::tell(watch, 0)) {
      for (std::size_t col = 0; col < cols; ++col) {
        *code++ = static_cast<int8_t>(view.code(row, col));
      }
    }
  }
  return py::make_tuple(codes, arrayOf(found->scales.data(), found->scales.size()));
}

// --- Reading and writing ---

std::shared_ptr<Core> copyOf(Core& core) {
  auto copy = std::make_shared<Core>();
  read(core, [&](const MultiLayerNNModel& model) {
    copy->model = mlnn::copyOf(model, interruptedBySignals({&core}));
  });
  return copy;
}

// Opens a model as the command does: activations that it does not record are set to `actFn`, or
// where that is "" to what its property says.
// Returns a new model, the result, and what was said. Never read into a model that Python holds:
// that would take arrays away under its views.
py::tuple open(const py::bytes& bytes, const std::string& actFn) {
  const std::string_view view = bytes;
  auto core = std::make_shared<Core>();
  // Nobody else knows the model, so a handler of a signal that forks need not wait for its lock.
  const Said said = heard<Reading>(*core, [&](MultiLayerNNModel& model) {
    mlnn::ModelFile file;
    const mlnn::Watch watch = interruptedBySignals({core.get()});
    if (mlnn::readModel(view.data(), view.size(), file, watch) != 0) return 1;
    // Whoever gives an activation for many files means those that record none.
    if (!mlnn::layersWithoutActivation(file).empty()) {
      mlnn::setHiddenActivations(file, {actFn, "act_fn", "the file"});
    }
    model = std::move(file.model);
    return 0;
  });
  return py::make_tuple(std::move(core), said.first, said.second);
}

// Returns what the library says of a file that cannot be opened.
py::bytes openingError(const std::string& path) {
  const mlnn::CollectedMessages said;
  MultiLayerNNModel().deserialize(path.c_str());
  return said.messages().empty() ? std::string() : said.messages().back().text;
}

// Writes a file that appears when it is complete.
// Returns: 0, or an errno.
int writeFile(const std::string& path, const py::bytes& bytes) {
  constexpr std::size_t kPiece = std::size_t{1} << 20;
  std::string_view view = bytes;
  const py::gil_scoped_release othersRun;
  const mlnn::Watch watch = interruptedBySignals({});
  try {
    mlnn::OutputFile file(path);
    while (!view.empty() && file.stream()) {
      const std::string_view piece = view.substr(0, kPiece);
      file.stream().write(piece.data(), static_cast<std::streamsize>(piece.size()));
      view.remove_prefix(piece.size());
      mlnn::tell(watch, piece.size());
    }
    file.finish();
  } catch (const mlnn::WriteFailure& failure) {
    return failure.error() == 0 ? EIO : failure.error();
  }
  return 0;
}

mlnn::ModelFormat formatOf(const std::string& word) {
  if (word == "text") return mlnn::ModelFormat::kText;
  if (word == "image") return mlnn::ModelFormat::kBinary;
  throw py::value_error("no format '" + word + "'");
}

// What `write` writes into a stream, which the watch of the pieces can stop.
template <typename Write>
void writeInto(TextPieces& text, Write write) {
  std::ostream out(&text);
  out.exceptions(std::ios::badbit);  // else the stream would keep what is thrown
  write(out);
}

// A copy of a model, made ready for a format; what the format cannot hold; and why the model cannot
// be written, "" where it can.
struct Ready {
  MultiLayerNNModel model;
  py::list lost;
  std::string whyNot;

  py::tuple with(const py::object& content) const {
    return py::make_tuple(content, lost, py::bytes(whyNot));
  }
};

Ready readyFor(Core& core, mlnn::ModelFormat format) {
  Ready ready;
  std::vector<std::string> lost;
  read(core, [&](const MultiLayerNNModel& model) {
    const mlnn::CollectedMessages silence;
    const mlnn::Watch watch = interruptedBySignals({&core});
    ready.model = mlnn::copyOf(model, watch);  // as for copyOfHeld
    const std::optional<mlnn::Fit> fit =
        mlnn::fitToFormat(ready.model, format, mlnn::kExactDigits, ready.whyNot, watch);
    if (fit) lost = fit->lost;
  });
  for (const std::string& line : lost) {
    ready.lost.append(py::bytes(mlnn::describe(format) + " does not hold " + line));
  }
  return ready;
}

// Returns the image of a model that was made ready for it; nothing where it cannot be written.
std::optional<std::vector<char>> imageOf(Ready& ready, const mlnn::Watch& watch) {
  if (!ready.whyNot.empty()) return std::nullopt;
  const py::gil_scoped_release othersRun;
  const mlnn::CollectedMessages silence;
  return mlnn::imageOf(ready.model, ready.whyNot, watch);
}

py::bytes textOf(const MultiLayerNNModel& model, const mlnn::Watch& watch) {
  TextPieces text(watch);
  {
    const py::gil_scoped_release othersRun;
    const mlnn::CollectedMessages silence;
    writeInto(text, [&](std::ostream& out) { mlnn::writeText(model, mlnn::kExactDigits, out); });
  }
  return bytesOf(text.length(), watch, [&](mlnn::ByteSink& sink) { text.writeTo(sink); });
}

// Writes a copy of the model, made ready for the format.
// Returns: the bytes, what the format cannot hold, and why the model cannot be written; "" where it
// can.
py::tuple written(Core& core, const std::string& formatWord) {
  const mlnn::ModelFormat format = formatOf(formatWord);
  const mlnn::Watch watch = interruptedBySignals({});
  Ready ready = readyFor(core, format);
  if (!ready.whyNot.empty()) return ready.with(py::bytes());
  if (format == mlnn::ModelFormat::kText) return ready.with(textOf(ready.model, watch));
  const std::optional<std::vector<char>> image = imageOf(ready, watch);
  if (!image) return ready.with(py::bytes());
  return ready.with(bytesOf(image->size(), watch, [&](mlnn::ByteSink& sink) {
    sink.take(image->data(), image->size());
  }));
}

// Returns the bytes of an image as a source of C and C++ that defines `symbol`, of a model that was
// made ready for an image, and what `written` returns besides.
py::tuple cArray(Core& core, const std::string& symbol) {
  if (!mlnn::isCName(symbol))
    throw py::value_error("'" + symbol + "' is no name for a variable in C and C++");
  const mlnn::Watch watch = interruptedBySignals({});
  Ready ready = readyFor(core, mlnn::ModelFormat::kBinary);
  const std::optional<std::vector<char>> image = imageOf(ready, watch);
  if (!image) return ready.with(py::bytes());
  TextPieces text(watch);
  {
    const py::gil_scoped_release othersRun;
    const std::string remark = mlnn::quantizedText(ready.model, watch);
    writeInto(text, [&](std::ostream& out) { mlnn::writeCArray(*image, symbol, remark, out); });
  }
  return ready.with(
      asciiOf(text.length(), watch, [&](mlnn::ByteSink& sink) { text.writeTo(sink); }));
}

// --- Operations on two models ---

Said add(Core& core, Core& other) {
  if (&core == &other) return heardDone(core, [](MultiLayerNNModel& model) { model += model; });
  refuseWhileRunning(core);
  std::vector<mlnn::Message> messages;
  {
    const py::gil_scoped_release othersRun;
    Writing mine(core.mutex, std::defer_lock);
    Reading theirs(other.mutex, std::defer_lock);
    std::lock(mine, theirs);
    ++core.changes;
    const mlnn::CollectedMessages said;
    core.model += other.model;
    messages = said.messages();
  }
  return {0, listOf(messages)};
}

// --- Work on a copy ---

void copyValues(Eigen::VectorXf& values, const Eigen::VectorXf& changed) {
  if (values.size() == changed.size() || values.size() == 0) values = changed;
}

// Copies values to where the others are, so that no array moves.
// REQUIRES: the layers have the same shapes, and of their vectors those that have any values.
void copyValues(MultiLayerNNModel& model, const MultiLayerNNModel& changed) {
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    NNLayer& layer = *model.layers[i];
    NNLayer& other = *changed.layers[i];
    layer.weights = other.weights;
    for (const mlnn::LayerVector& vector : mlnn::kLayerVectors) {
      copyValues(vector.of(layer), vector.of(other));
    }
    layer.isBatchNorm = other.isBatchNorm;
  }
}

// Changes values of a model as `action(copy)` does, which returns 0, or 1 after an error line.
// Takes no lock while it works, so others read the model meanwhile, and where it throws, the model
// stays as it is. Where another thread changes the model meanwhile, begins anew, and holds the lock
// then.
template <typename Action>
Said changeCopy(Core& core, Action action) {
  refuseWhileRunning(core);
  MultiLayerNNModel copy;
  const std::size_t before = read(core, [&](const MultiLayerNNModel& model) {
    copy = mlnn::copyOf(model, interruptedBySignals({&core}));
    return core.changes.load();
  });
  int result = 0;
  std::vector<mlnn::Message> messages;
  {
    const py::gil_scoped_release othersRun;
    const mlnn::CollectedMessages said;
    result = action(copy, interruptedBySignals({}));
    messages = said.messages();
  }
  bool isChanged = false;
  Said anew = heard<Writing>(core, [&](MultiLayerNNModel& model) {
    isChanged = core.changes != before + 1;  // this lock counts
    if (isChanged) {
      copy = model.clone();
      result = action(copy, mlnn::Watch());
    }
    if (result == 0) copyValues(model, copy);
    return result;
  });
  return isChanged ? anew : Said(result, listOf(messages));
}

// With `inputs` takes the mean error over these out of the biases.
Said quantize(Core& core, const mlnn::RowQuantization& options,
              const std::optional<Frames>& inputs) {
  const std::optional<Columns> columns =
      inputs ? std::optional<Columns>(columnsOf(*inputs)) : std::nullopt;
  return changeCopy(core, [&](MultiLayerNNModel& model, const mlnn::Watch& watch) {
    MultiLayerNNModel original;
    if (columns) original = mlnn::copyOf(model, watch);
    const int result = mlnn::quantizeRows(model, options, nullptr, watch);
    if (result != 0 || !columns) return result;
    return mlnn::correctBiases(original, model, *columns, watch);
  });
}

// --- The forward pass ---

// Makes the window in which frames of that many values become the model's inputs.
mlnn::ContextWindow windowFor(const MultiLayerNNModel& model, Index frameLen) {
  if (!mlnn::hasOutputs(model.layers)) throw py::value_error(mlnn::kNoOutputs);
  const DbnFeatureDescription& desc = model.featureDesc;
  const int64_t frames = int64_t{desc.winSizeLeft} + 1 + desc.winSizeRight;
  const int64_t inputs = frames * std::min<int64_t>(frameLen, INT32_MAX);
  std::string whyNot = "frames of " + std::to_string(frameLen) + " values in a window of " +
                       std::to_string(frames) + " make " + std::to_string(inputs) +
                       " inputs, but the model has " + std::to_string(model.numInputs());
  if (inputs != model.numInputs()) throw py::value_error(whyNot);
  std::optional<mlnn::ContextWindow> window =
      mlnn::ContextWindow::create(desc, model.deltasNorm, static_cast<int>(frameLen), whyNot);
  if (!window) throw py::value_error(whyNot);
  return *std::move(window);
}

// Which layers take words in integers, as Python says it; nothing for a pass in floats.
std::optional<mlnn::WideInputs> wideInputsOf(const std::optional<std::string>& words) {
  if (!words) return std::nullopt;
  if (*words == "first") return mlnn::WideInputs::kFirst;
  return *words == "all" ? mlnn::WideInputs::kAll : mlnn::WideInputs::kNone;
}

// Takes the pass in integers that nobody uses, or makes one. Its pass is null where there is none.
std::unique_ptr<IntegerPass> takeIntegers(Core& core, mlnn::WideInputs wideInputs) {
  const std::size_t changes = core.changes;
  std::unique_ptr<IntegerPass> spare(core.spareIntegers.exchange(nullptr));
  if (spare && spare->changes == changes && spare->wideInputs == wideInputs) return spare;
  spare.reset();
  return std::make_unique<IntegerPass>(
      IntegerPass{changes, wideInputs, mlnn::IntegerFwdPass::create(core.model, wideInputs)});
}

// Leaves it for the next call, unless an array may change the model by then.
void giveBack(Core& core, std::unique_ptr<IntegerPass> integers) {
  integers->pass->setThreads(nullptr);
  {
    const std::lock_guard<std::mutex> handlesLock(core.handlesMutex);
    if (!core.handles.empty()) return;
  }
  delete core.spareIntegers.exchange(integers.release());
}

// REQUIRES: the model can be evaluated, and is locked.
std::optional<Eigen::MatrixXf> outputsOf(Core& core, const Columns& columns,
                                         const mlnn::RecordingInputs& inputs,
                                         std::optional<mlnn::WideInputs> wideInputs, int threads) {
  const mlnn::Watch watch = interruptedBySignals({&core});
  const std::shared_ptr<mlnn::Threads> shared =
      threads > 1 ? mlnn::Threads::start(threads) : nullptr;
  if (!wideInputs) {
    NNFwdPassFromFile pass(core.model);
    pass.setThreads(shared);
    return mlnn::evaluateFrames(pass, columns, inputs, watch);
  }
  std::unique_ptr<IntegerPass> integers = takeIntegers(core, *wideInputs);
  if (integers->pass == nullptr) return std::nullopt;
  integers->pass->setThreads(shared);
  std::optional<Eigen::MatrixXf> outputs =
      mlnn::evaluateFrames(*integers->pass, columns, inputs, watch);
  giveBack(core, std::move(integers));
  return outputs;
}

// Runs the model over one recording. `stacked` says whether the frames are input vectors, nothing
// where their width is to tell; `integers` which layers take words in integers. The threads end
// with the call.
// Returns: what was said, and the outputs; None where frames of that width are not taken.
py::object evaluate(Core& core, const Frames& frames, std::optional<bool> stacked,
                    const std::optional<std::string>& integers, int threads) {
  auto outputs = std::make_unique<Eigen::MatrixXf>();
  const Columns columns = columnsOf(frames);
  bool isTaken = true;
  const Said said = heard<Reading>(core, [&](MultiLayerNNModel& model) {
    if (model.layers.empty()) return NNFwdPassFromFile(model).evaluate(columns, *outputs);
    if (!mlnn::hasOutputs(model.layers)) throw py::value_error(mlnn::kNoOutputs);
    std::string whyNot;
    const auto inputs = mlnn::RecordingInputs::forFrames(
        model, columns.rows(), stacked.value_or(false), "the recording", whyNot);
    isTaken = inputs && !(inputs->areStacked() && stacked == false);
    if (!isTaken) return 0;
    std::optional<Eigen::MatrixXf> results =
        outputsOf(core, columns, *inputs, wideInputsOf(integers), threads);
    if (!results) return 1;
    *outputs = *std::move(results);
    return 0;
  });
  if (!isTaken) return py::none();
  return py::make_tuple(said.first, said.second, handOver(std::move(outputs)));
}

// Where few frames are done in a moment, what a call sets up would take longer.
constexpr py::ssize_t kFewFrames = 16;

bool isAligned(const Frames& array) {
  return (array.flags() & py::detail::npy_api::NPY_ARRAY_ALIGNED_) != 0;
}

// The frames as columns; a single one may come without a dimension of its own.
Columns fewColumnsOf(const Frames& frames) {
  if (frames.ndim() != 1) return columnsOf(frames);
  return Columns(frames.data(), frames.shape(0), 1, Eigen::OuterStride<>(frames.shape(0)));
}

// Whether these are a few frames in an array whose values can be read where they are.
bool areFewFrames(const py::object& frames) {
  const auto* const arrayType =
      reinterpret_cast<PyTypeObject*>(py::detail::npy_api::get().PyArray_Type_);
  if (Py_TYPE(frames.ptr()) != arrayType || !Frames::check_(frames)) return false;
  const auto array = py::reinterpret_borrow<Frames>(frames);
  const py::ssize_t size = sizeof(float);
  if (array.ndim() == 1) return array.shape(0) > 1 && array.strides(0) == size && isAligned(array);
  if (array.ndim() != 2 || array.shape(0) < 1 || array.shape(0) > kFewFrames) return false;
  const py::ssize_t width = array.shape(1);
  const py::ssize_t step = array.strides(0);
  return width > 1 && array.strides(1) == size && isAligned(array) &&
         (array.shape(0) == 1 || (step >= width * size && step % size == 0));
}

// Whether single frames of the model are its input vectors, as they are.
bool areInputsThemselves(const MultiLayerNNModel& model) {
  const MelDeltasNorm& norm = model.deltasNorm;
  return model.featureDesc.winSizeLeft == 0 && model.featureDesc.winSizeRight == 0 &&
         norm.minvals.size() == 0 && norm.normvals.size() == 0;
}

// Runs a pass over a few frames: input vectors where they are, others as evaluate() does.
// Returns: whether that was all there is to it.
bool runFew(NNFwdPassFromFile& pass, const MultiLayerNNModel& model, const Columns& frames,
            bool stacked, const mlnn::OutputFrames& outputs) {
  if (frames.rows() == model.numInputs() &&
      (stacked || areInputsThemselves(model) || mlnn::frameWidth(model) != frames.rows())) {
    return pass.evaluate(mlnn::InputFrames(frames), outputs) == 0;
  }
  std::string whyNot;
  const auto inputs =
      mlnn::RecordingInputs::forFrames(model, frames.rows(), stacked, "the recording", whyNot);
  if (!inputs) return false;
  const std::optional<Eigen::MatrixXf> results = mlnn::evaluateFrames(pass, frames, *inputs);
  if (!results) return false;
  std::copy_n(results->data(), results->size(), outputs.values);
  return true;
}

int outputsOf(const MultiLayerNNModel& model) {
  return !model.layers.empty() && mlnn::hasOutputs(model.layers) ? model.numOutputs() : 0;
}

// Runs a model over a few frames, as evaluate() does, without what that sets up.
// Returns: the outputs; None, where there is more to it: then evaluate() gives them, or says why
// not.
py::object evaluateFew(Core& core, const py::object& frames, const py::object& stacked) {
  const bool areStacked = stacked.ptr() == Py_True;
  if (!areFewFrames(frames) || !(areStacked || stacked.is_none())) return py::none();
  const auto given = py::reinterpret_borrow<Frames>(frames);
  const Columns inputs = fewColumnsOf(given);
  const int numOutputs =
      read(core, [](const MultiLayerNNModel& model) { return outputsOf(model); });
  if (numOutputs == 0) return py::none();
  Frames results = given.ndim() == 1 ? Frames(py::ssize_t{numOutputs})
                                     : Frames({inputs.cols(), Index{numOutputs}});
  const mlnn::OutputFrames outputs(results.mutable_data(), numOutputs, inputs.cols());
  const bool isDone = read(core, [&](const MultiLayerNNModel& model) {
    if (outputsOf(model) != numOutputs) return false;  // another thread has changed it
    const mlnn::CollectedMessages said;
    std::unique_ptr<NNFwdPassFromFile> pass(core.sparePass.exchange(nullptr));
    if (!pass) pass = std::make_unique<NNFwdPassFromFile>(model);
    const bool isAll = runFew(*pass, model, inputs, areStacked, outputs);
    delete core.sparePass.exchange(pass.release());
    return isAll && said.messages().empty();
  });
  return isDone ? py::object(results) : py::object(py::none());
}

py::array stack(Core& core, const Frames& frames) {
  const Columns columns = columnsOf(frames);
  auto inputs = std::make_unique<Eigen::MatrixXf>();
  read(core, [&](const MultiLayerNNModel& model) {
    windowFor(model, columns.rows()).stack(columns, *inputs);
  });
  return handOver(std::move(inputs));
}

// --- Plain values ---

py::dict propsOf(Core& core) {
  const auto props = read(core, [](const MultiLayerNNModel& model) { return model.props; });
  py::dict result;
  for (const auto& [key, value] : props) result[py::bytes(key)] = py::bytes(value);
  return result;
}

py::object propOf(Core& core, const std::string& key) {
  const auto value = read(core, [&key](const MultiLayerNNModel& model) {
    const auto found = model.props.find(key);
    return found == model.props.end() ? std::nullopt : std::optional<std::string>(found->second);
  });
  return value ? py::object(py::bytes(*value)) : py::object(py::none());
}

void setProp(Core& core, const std::string& key, const std::string& value) {
  write(core, [&](MultiLayerNNModel& model) { model.props[key] = value; });
}

// Returns whether there was one.
bool removeProp(Core& core, const std::string& key) {
  return write(core, [&key](MultiLayerNNModel& model) { return model.props.erase(key) != 0; });
}

void setProps(Core& core, const std::map<std::string, std::string>& props) {
  write(core, [&props](MultiLayerNNModel& model) { model.props = props; });
}

py::list notesOf(Core& core) {
  const auto notes = read(core, [](const MultiLayerNNModel& model) { return model.notes.lines; });
  py::list result;
  for (const std::string& line : notes) result.append(py::bytes(line));
  return result;
}

void setNotes(Core& core, const std::vector<std::string>& notes) {
  write(core, [&notes](MultiLayerNNModel& model) { model.notes.lines = notes; });
}

void appendNote(Core& core, const std::string& line) {
  write(core, [&line](MultiLayerNNModel& model) { model.notes.lines.push_back(line); });
}

std::vector<float>& curveOf(MultiLayerNNModel& model, const std::string& name) {
  if (name == "loss") return model.loss;
  if (name == "accuracy") return model.accuracy;
  throw py::key_error(name);
}

Frames curve(Core& core, const std::string& name) {
  const std::vector<float> values =
      read(core, [&name](MultiLayerNNModel& model) { return curveOf(model, name); });
  return arrayOf(values.data(), values.size());
}

void setCurve(Core& core, const std::string& name,
              const py::array_t<float, py::array::c_style>& values) {
  const float* const first = values.data();
  const float* const last = first + values.size();
  write(core, [&](MultiLayerNNModel& model) { curveOf(model, name).assign(first, last); });
}

void appendToCurve(Core& core, const std::string& name, float value) {
  write(core, [&](MultiLayerNNModel& model) { curveOf(model, name).push_back(value); });
}

Eigen::VectorXf& normOf(MultiLayerNNModel& model, const std::string& name) {
  if (name == "minvals") return model.deltasNorm.minvals;
  if (name == "normvals") return model.deltasNorm.normvals;
  throw py::key_error(name);
}

Frames norm(Core& core, const std::string& name) {
  const Eigen::VectorXf values =
      read(core, [&name](MultiLayerNNModel& model) { return normOf(model, name); });
  return arrayOf(values.data(), static_cast<std::size_t>(values.size()));
}

void setNorm(Core& core, const std::string& name,
             const py::array_t<float, py::array::c_style>& values) {
  if (values.size() != 0 && values.size() != MelDeltasNorm::kLength) {
    throw py::value_error("a normalisation has " + std::to_string(MelDeltasNorm::kLength) +
                          " values or none, got " + std::to_string(values.size()));
  }
  const Eigen::Map<const Eigen::VectorXf> given(values.data(), Index{values.size()});
  write(core, [&](MultiLayerNNModel& model) { normOf(model, name) = given; });
}

py::bytes features(Core& core) {
  const auto desc = read(core, [](const MultiLayerNNModel& model) { return model.featureDesc; });
  return py::bytes(reinterpret_cast<const char*>(&desc), sizeof desc);
}

DbnFeatureDescription descriptionOf(const std::string& bytes) {
  if (bytes.size() != sizeof(DbnFeatureDescription)) throw py::value_error("20 bytes expected");
  return mlnn::featureDescriptionFromBytes(bytes.data());
}

// Returns the text form and the lengths of a frame and of an input vector.
py::tuple describe(const std::string& bytes) {
  const DbnFeatureDescription desc = descriptionOf(bytes);
  std::string text;
  desc.serialize(text);
  return py::make_tuple(text, desc.frameLen(), desc.featLen());
}

void setFeatures(Core& core, const std::string& bytes) {
  const DbnFeatureDescription desc = descriptionOf(bytes);
  write(core, [&desc](MultiLayerNNModel& model) { model.featureDesc = desc; });
}

ActFn::ActFn actFnOf(const std::string& name) {
  ActFn::ActFn fn;
  if (ActFn::stringToActFn(name, fn) != 0) throw py::value_error("no activation '" + name + "'");
  return fn;
}

py::list actFnNames() {
  py::list names;
  for (int32_t code = 0; code < ActFn::kCount; ++code) {
    names.append(ActFn::actFnToString(static_cast<ActFn::ActFn>(code)));
  }
  return names;
}

template <typename Value, typename Get>
auto reader(Get get) {
  return [get](Core& core) -> Value { return read(core, get); };
}

void bindLayer(py::module_& module) {
  py::class_<LayerHandle, std::shared_ptr<LayerHandle>>(module, "Layer")
      .def("weights", &weightsView)
      .def("vector", &vectorView)
      .def("grow", &growVector)
      .def("record", &recordOfHeld)
      .def("row_codes", &rowCodesOf)
      .def_property(
          "act_fn",
          [](const LayerHandle& handle) {
            return read(*handle.core, [&handle](const MultiLayerNNModel&) {
              return ActFn::actFnToString(handle.layer->actFn);
            });
          },
          [](const LayerHandle& handle, const std::string& name) {
            const ActFn::ActFn fn = actFnOf(name);
            write(*handle.core, [&](MultiLayerNNModel&) { handle.layer->actFn = fn; });
          })
      .def_property_readonly("batch_norm", [](const LayerHandle& handle) {
        return read(*handle.core,
                    [&handle](const MultiLayerNNModel&) { return handle.layer->isBatchNorm; });
      });
}

void seedRandom(uint32_t seed) {
  const py::gil_scoped_release othersRun;
  const std::lock_guard<std::mutex> alone(randomSource());
  NNLayer::seedRandom(seed);
}

void bindOperations(py::class_<Core, std::shared_ptr<Core>>& core) {
  core.def("fold",
           [](Core& c) {
             return heard<Writing>(c, [](MultiLayerNNModel& m) { return m.convBatchNorm(); });
           })
      .def("retain_bits",
           [](Core& c, int bits) {
             return heardDone(c, [bits](MultiLayerNNModel& m) { m.retainPrecisionBits(bits); });
           })
      .def("quantize",
           [](Core& c, int bits, bool leastSquares, double largestError,
              const std::optional<Frames>& inputs) {
             mlnn::RowQuantization options;
             options.bits = bits;
             if (leastSquares) options.scale = mlnn::RowScale::kLeastSquares;
             options.largestError = largestError;
             return quantize(c, options, inputs);
           })
      .def("add", &add)
      .def("scale",
           [](Core& c, float f) { return heardDone(c, [f](MultiLayerNNModel& m) { m *= f; }); })
      .def("zeros", [](Core& c) { return heardDone(c, [](MultiLayerNNModel& m) { m.zeros(); }); })
      .def("set_act_fn",
           [](Core& c, const std::string& name) {
             const ActFn::ActFn fn = actFnOf(name);
             return heardDone(c, [fn](MultiLayerNNModel& m) { m.setActFn(fn); });
           })
      .def("set_softmax",
           [](Core& c, bool on) {
             return heardDone(c, [on](MultiLayerNNModel& m) { m.setSoftmax(on); });
           })
      .def("restore_softmax",
           [](Core& c, bool on) {
             return heardDone(c, [on](MultiLayerNNModel& m) { m.useSoftmax = on; });
           })
      .def("create_first", &createFirst)
      .def("add_random", &addRandom)
      .def("complete_norm",
           [](Core& c) {
             return heardDone(c, [](MultiLayerNNModel& m) { m.deltasNorm.allocIfNeeded(); });
           })
      .def("delete_layers", &deleteLayers)
      .def("append", &appendLayer)
      .def("append_record", &appendRecord)
      .def("replace_layers", &replaceLayers);
}

void bindValues(py::class_<Core, std::shared_ptr<Core>>& core) {
  using Model = const MultiLayerNNModel&;
  core.def("num_layers", reader<std::size_t>([](Model m) { return m.layers.size(); }))
      .def("layer", &layerAt)
      .def("num_inputs", reader<int>([](Model m) { return m.numInputs(); }))
      .def("frame_width", reader<int>([](Model m) { return mlnn::frameWidth(m); }))
      .def("num_outputs", reader<int>([](Model m) { return m.numOutputs(); }))
      .def("softmax", reader<bool>([](Model m) { return m.useSoftmax; }))
      .def("type", reader<int>([](Model m) { return m.type(); }))
      .def("checksum", reader<uint32_t>([](Model m) { return m.checksum(); }))
      .def("description", reader<std::string>([](Model m) { return m.description(); }))
      .def("debug_description", reader<std::string>([](Model m) { return m.debug_description(); }))
      .def("features", &features)
      .def("set_features", &setFeatures)
      .def("props", &propsOf)
      .def("prop", &propOf)
      .def("set_prop", &setProp)
      .def("remove_prop", &removeProp)
      .def("set_props", &setProps)
      .def("notes", &notesOf)
      .def("set_notes", &setNotes)
      .def("append_note", &appendNote)
      .def("curve", &curve)
      .def("set_curve", &setCurve)
      .def("append_to_curve", &appendToCurve)
      .def("norm", &norm)
      .def("set_norm", &setNorm);
}

}  // namespace

PYBIND11_MODULE(_mlnn, module) {
  module.doc() = "The binding under the package mlnn; use that.";
  module.attr("version") = mlnn::version();
  module.attr("IMAGE_MAGIC") = py::bytes(mlnn::kMagic);
  module.attr("NORM_LENGTH") = static_cast<int>(MelDeltasNorm::kLength);
  module.def("act_fns", &actFnNames);
  module.def("layer_vectors", &layerVectors);
  module.def("describe", &describe);
  module.def("seed_random", &seedRandom);
  module.def("opening_error", &openingError);
  guardForks();
  mlnn::UnfinishedFile::leaveSignalsAlone();  // they are Python's
  module.def("open", &open);
  module.def("write_file", &writeFile);
  module.def("shorter_than_head", &mlnn::shorterThanHead);
  bindLayer(module);
  py::class_<Core, std::shared_ptr<Core>> core(module, "Core");
  core.def(py::init<>())
      .def("copy", &copyOf)
      .def("written", &written)
      .def("c_array", &cArray)
      .def("evaluate", &evaluate, py::arg("frames"), py::arg("stacked"), py::arg("integers"),
           py::arg("threads") = 1)
      .def("evaluate_few", &evaluateFew)
      .def("stack", &stack);
  bindOperations(core);
  bindValues(core);
  bindAnalysis(module);
}
