// The C interface: a model in memory, as a file and as an image where it lies, its description, a
// pass and a stream, and what is made of it in codes and in integers. What opens gives the bits
// that the library's own pass gives, prepared and by two threads too; handles that are closed, of
// another kind, or made up are refused.
#include <cstring>
#include <sstream>
#include <vector>

#include "c/mlnn.h"
#include "fuzz/ModelChecks.h"
#include "fuzz/Support.h"

namespace {

using mlnn::fuzz::require;

constexpr std::size_t kMostValues = 4096;
constexpr std::size_t kFrames = 2;

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

void describe(mlnn_model model, std::size_t some) {
  std::size_t count = 0;
  int softmax = 0;
  const char* text = nullptr;
  const char* value = nullptr;
  mlnn_features features;
  require(mlnn_model_layers(model, &count) == MLNN_OK, "no layers");
  mlnn_model_layer_outputs(model, some, &count);
  mlnn_model_softmax(model, &softmax);
  mlnn_model_label(model, some, &text);
  mlnn_model_property(model, "labels", &value);
  mlnn_model_property_at(model, some, &text, &value);
  require(mlnn_model_properties(model, &count) == MLNN_OK, "no properties");
  require(mlnn_model_features(model, &features) == MLNN_OK, "no features");
  require(mlnn_model_feature_text(model, &text) == MLNN_OK && text != nullptr, "no text");
}

// Floats that are made of codes take no more than this.
constexpr std::size_t kPreparedBytes = 10000;

void prepare(mlnn_pass pass) {
  std::size_t bytes = 0;
  require(mlnn_pass_prepare(pass, kPreparedBytes, &bytes) == MLNN_OK && bytes <= kPreparedBytes,
          "a pass prepares more than it may");
  require(mlnn_pass_set_threads(pass, 2) == MLNN_OK, "a pass takes no threads");
}

// Returns the outputs of a pass over the inputs; none where it is refused.
std::vector<float> run(mlnn_model model, const std::vector<float>& inputs, std::size_t width,
                       bool isPrepared = false) {
  std::size_t height = 0;
  mlnn_model_outputs(model, &height);
  mlnn_pass pass{0};
  if (height > kMostValues || mlnn_pass_create(model, &pass) != MLNN_OK) return {};
  if (isPrepared) prepare(pass);
  std::vector<float> outputs(kFrames * height);
  const mlnn_status status =
      mlnn_pass_run(pass, kFrames, inputs.data(), width, width, outputs.data(), height, height);
  require(mlnn_pass_close(pass) == MLNN_OK, "a pass does not close");
  require(mlnn_pass_close(pass) == MLNN_ERROR_HANDLE, "a pass closes twice");
  return status == MLNN_OK ? outputs : std::vector<float>();
}

void stream(mlnn_model model, const std::vector<float>& values) {
  mlnn_stream stream{0};
  if (mlnn_stream_create(model, 0, &stream) != MLNN_OK) return;
  std::size_t width = 0;
  std::size_t height = 0;
  std::size_t delay = 0;
  mlnn_stream_frame_width(stream, &width);
  mlnn_model_outputs(model, &height);
  mlnn_stream_delay(stream, &delay);
  std::vector<float> outputs(height <= kMostValues ? height : 0);
  int hasOutputs = 0;
  std::size_t count = 0;
  if (width <= values.size() && height <= kMostValues && delay < 100) {
    for (std::size_t i = 0; i < delay + kFrames; ++i) {
      mlnn_stream_push(stream, values.data(), width, outputs.data(), height, &hasOutputs);
      count += hasOutputs != 0 ? 1 : 0;
    }
    for (hasOutputs = 1; hasOutputs != 0; count += hasOutputs != 0 ? 1 : 0) {
      mlnn_stream_finish(stream, outputs.data(), height, &hasOutputs);
    }
    require(count == delay + kFrames, "a stream loses frames");
    mlnn_stream_reset(stream);
  }
  require(mlnn_model_close({stream.id}) != MLNN_OK, "a stream closes as a model");
  require(mlnn_stream_close(stream) == MLNN_OK, "a stream does not close");
}

// What was made of a model gives the same bits by every pass.
void runMade(mlnn_model made, const std::vector<float>& values, std::size_t width) {
  const std::vector<float> outputs = run(made, values, width);
  require(sameBits(run(made, values, width, true), outputs), "a pass gives other bits again");
  stream(made, values);
  require(mlnn_model_close(made) == MLNN_OK, "what was made of a model does not close");
}

void convert(mlnn_model model, const std::vector<float>& values, std::size_t width,
             std::size_t some) {
  mlnn_model made{0};
  const auto bits = static_cast<int32_t>(1 + some % 8);
  if (mlnn_model_to_codes(model, bits, MLNN_CODES_FOR_MEMORY, &made) == MLNN_OK) {
    runMade(made, values, width);
  }
  if (mlnn_model_to_integers(model, static_cast<int32_t>(some % 3), &made) == MLNN_OK) {
    runMade(made, values, width);
  }
}

// The same by the library itself.
std::vector<float> wanted(const std::string& bytes, const std::vector<float>& inputs) {
  MultiLayerNNModel model;
  std::istringstream in(bytes);
  if (model.deserialize(in) != 0) return {};
  const Eigen::Map<const Eigen::MatrixXf> frames(inputs.data(), model.numInputs(), kFrames);
  Eigen::MatrixXf outputs;
  if (NNFwdPassFromFile(model).evaluate(frames, outputs) != 0) return {};
  return {outputs.data(), outputs.data() + outputs.size()};
}

std::vector<float> someValues(std::size_t count, const uint8_t* data, std::size_t size) {
  mlnn::fuzz::Bytes bytes(data + size - size % 97, size % 97);
  std::vector<float> values(count);
  for (float& value : values) value = bytes.value();
  return values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  constexpr std::size_t kTail = 2;  // of the mutator's, for another target
  const mlnn::fuzz::Diagnostics diagnostics;
  size -= size < kTail ? size : kTail;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  for (const bool isInPlace : {false, true}) {
    const mlnn::fuzz::Limits limits = mlnn::fuzz::textLimits(size);
    mlnn_model model{0};
    const mlnn_status status = isInPlace ? mlnn_model_open_image(data, size, &model)
                                         : mlnn_model_open_memory(data, size, nullptr, &model);
    if (status != MLNN_OK) {
      require(mlnn_last_error()[0] != '\0', "refused without a reason");
      continue;
    }
    std::size_t inputs = 0;
    require(mlnn_model_inputs(model, &inputs) == MLNN_OK, "no inputs");
    describe(model, size % 7);
    if (inputs <= kMostValues) {
      const std::vector<float> values = someValues(kFrames * inputs, data, size);
      const std::vector<float> outputs = run(model, values, inputs);
      require(outputs.empty() || sameBits(outputs, wanted(bytes, values)),
              "gives other bits than the library's pass");
      if (size % 8 == 0) {  // threads take long to begin
        require(sameBits(run(model, values, inputs, true), outputs),
                "a prepared pass gives others");
      }
      stream(model, values);
      convert(model, values, inputs, size);
    }
    require(mlnn_pass_close({model.id}) != MLNN_OK, "a model closes as a pass");
    require(mlnn_model_close(model) == MLNN_OK, "a model does not close");
    require(mlnn_model_close(model) == MLNN_ERROR_HANDLE, "a model closes twice");
    limits.check();
  }
  return 0;
}
