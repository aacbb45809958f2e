// The model object: lifetime, layer stack, arithmetic, activations, properties and
// descriptions.
#include "model/MultiLayerNNModel.h"

#include <memory>
#include <utility>

#include "inference/NNFwdPassFromFile.h"
#include "layers/Report.h"
#include "model/LayerStack.h"

namespace {

// A model reads from streams and writes to them, so who has one has std::cerr as well.
[[maybe_unused]] const bool kReportsToStream = mlnn::reportToStandardErrorStream();

// Takes a new layer into the stack; when there is no memory for the entry, nothing leaks.
void append(std::vector<NNLayer*>& layers, std::unique_ptr<NNLayer> layer) {
  layers.push_back(layer.get());
  layer.release();
}

int inputsOf(const NNLayer* layer) {
  return static_cast<int>(mlnn::layerOrEmpty(layer).weights.cols());
}

int outputsOf(const NNLayer* layer) {
  return static_cast<int>(mlnn::layerOrEmpty(layer).weights.rows());
}

// Copies a layer of another model into a slot of this one's stack.
void copyLayer(NNLayer*& target, const NNLayer* source) {
  if (source == nullptr) {
    delete std::exchange(target, nullptr);
    return;
  }
  if (target == nullptr) target = new NNLayer();
  *target = *source;
}

}  // namespace

// --- Lifetime ---

MultiLayerNNModel::MultiLayerNNModel() : useSoftmax(true) {}

// The delegated constructors complete the object, so that its destructor frees the layers
// made so far when a later one cannot be made.
MultiLayerNNModel::MultiLayerNNModel(int* sizes, int numSizes) : MultiLayerNNModel() {
  for (int i = 1; i < numSizes; ++i) {
    append(layers, std::make_unique<NNLayer>(sizes[i - 1], sizes[i], false));
  }
}

MultiLayerNNModel::MultiLayerNNModel(const MultiLayerNNModel& other) : MultiLayerNNModel() {
  *this = other;
}

MultiLayerNNModel::MultiLayerNNModel(MultiLayerNNModel&& other) noexcept : MultiLayerNNModel() {
  swap(other);
}

MultiLayerNNModel::~MultiLayerNNModel() {
  for (NNLayer* layer : layers) delete layer;
}

void MultiLayerNNModel::operator=(const MultiLayerNNModel& other) {
  mlnn::resizeStack(layers, other.layers.size());
  for (std::size_t i = 0; i < layers.size(); ++i) copyLayer(layers[i], other.layers[i]);
  notes = other.notes;
  loss = other.loss;
  accuracy = other.accuracy;
  featureDesc = other.featureDesc;
  deltasNorm = other.deltasNorm;
  useSoftmax = other.useSoftmax;
  // The properties stay: a model keeps its own.
}

void MultiLayerNNModel::operator=(MultiLayerNNModel&& other) noexcept {
  MultiLayerNNModel taken(std::move(other));
  swap(taken);
}

MultiLayerNNModel MultiLayerNNModel::clone() const {
  MultiLayerNNModel copy(*this);
  copy.props = props;
  return copy;
}

void MultiLayerNNModel::swap(MultiLayerNNModel& other) noexcept {
  std::swap(featureDesc, other.featureDesc);
  layers.swap(other.layers);
  loss.swap(other.loss);
  accuracy.swap(other.accuracy);
  props.swap(other.props);
  std::swap(notes, other.notes);
  std::swap(deltasNorm, other.deltasNorm);
  std::swap(useSoftmax, other.useSoftmax);
}

// --- The layer stack ---

int MultiLayerNNModel::createFirstLayer(int numInputs, int numOutputs, float initScale,
                                        bool isBatchNorm) {
  if (!layers.empty()) {
    mlnn::report({"ERROR: NN Model: cannot createFirstLayer if already have layers"});
    return 1;
  }
  append(layers, std::make_unique<NNLayer>(numInputs, numOutputs, initScale, isBatchNorm));
  return 0;
}

int MultiLayerNNModel::addLayerRndInit(int numOutputs, float initScale, bool isBatchNorm) {
  if (layers.empty()) {
    mlnn::report({"ERROR: NN Model: cannot addLayerRndInit without previous hidden layers"});
    return 1;
  }
  const int previous = outputsOf(layers.back());
  append(layers, std::make_unique<NNLayer>(previous, numOutputs, initScale, isBatchNorm));
  notes.addRndLayer(static_cast<int>(layers.size()), initScale);
  return 0;
}

int MultiLayerNNModel::deleteLayers(unsigned int count) {
  if (count > layers.size()) return 1;
  for (; count > 0; --count) {
    delete layers.back();
    layers.pop_back();
  }
  return 0;
}

int MultiLayerNNModel::numInputs() const { return layers.empty() ? 0 : inputsOf(layers.front()); }

int MultiLayerNNModel::numOutputs() const { return layers.empty() ? 0 : outputsOf(layers.back()); }

int MultiLayerNNModel::type() const { return 0; }

NNFwdPassFromFile* MultiLayerNNModel::createFwdPass() { return new NNFwdPassFromFile(*this); }

NNFwdPassFromFile* MultiLayerNNModel::createFwdPass() const { return new NNFwdPassFromFile(*this); }

// --- Whole-model operations ---

void MultiLayerNNModel::operator+=(const MultiLayerNNModel& other) {
  if (layers.size() != other.layers.size()) {
    mlnn::report({"ERROR: MultiLayerNNModel::operator+=: model adding has wrong number of layers (",
                  layers.size(), " != ", other.layers.size(), ")"});
    return;
  }
  NNLayer missing;
  for (std::size_t i = 0; i < layers.size(); ++i) {
    NNLayer& target = layers[i] != nullptr ? *layers[i] : missing;
    target += mlnn::layerOrEmpty(other.layers[i]);
  }
}

void MultiLayerNNModel::operator*=(float factor) {
  for (NNLayer* layer : layers) {
    if (layer != nullptr) *layer *= factor;
  }
}

void MultiLayerNNModel::zeros() {
  for (NNLayer* layer : layers) {
    if (layer != nullptr) layer->zeros();
  }
}

void MultiLayerNNModel::setActFn(ActFn::ActFn fn) {
  for (NNLayer* layer : layers) {
    if (layer != nullptr) layer->actFn = fn;
  }
  if (useSoftmax) setSoftmax(true);
}

void MultiLayerNNModel::setSoftmax(bool on) {
  useSoftmax = on;
  if (!on || layers.empty() || layers.back() == nullptr) return;
  layers.back()->actFn = ActFn::linear;
}

std::string MultiLayerNNModel::getProp(const std::string& key) const {
  const auto found = props.find(key);
  return found == props.end() ? std::string() : found->second;
}

void MultiLayerNNModel::setProp(const std::string& key, const std::string& value) {
  mlnn::report({"info: setting '", key, "' = '", value, "'"});
  props[key] = value;
}

// --- Descriptions ---

std::string MultiLayerNNModel::debug_description() const {
  std::string text = "inputs ";
  for (const NNLayer* layer : layers) {
    text += std::to_string(inputsOf(layer));
    text += mlnn::layerOrEmpty(layer).isBatchNorm ? " bn " : " x ";
  }
  return text + std::to_string(numOutputs()) + " output classes";
}

std::string MultiLayerNNModel::description() const {
  std::string text;
  for (const NNLayer* layer : layers) text += std::to_string(inputsOf(layer)) + ",";
  return layers.empty() ? text : text + std::to_string(numOutputs());
}
