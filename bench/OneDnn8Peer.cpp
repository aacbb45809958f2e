// oneDNN's products of 8-bit values: weights with a scale for each output, prepared beforehand;
// inputs with one fixed scale for each layer; bias and activation fused.
//
// Scales are found from the frames that will be run, which is more than a user of it can know. What
// comes out of a sigmoid or relu is not negative, so it takes all 256 values of an unsigned byte.
#include <algorithm>
#include <cmath>
#include <dnnl.hpp>

#include "bench/Contender.h"

namespace mlnn::bench {
namespace {

using dnnl::memory;
using Dims = memory::dims;
using Type = memory::data_type;

float largestOf(const std::vector<float>& values) {
  float largest = 0;
  for (const float value : values) largest = std::max(largest, std::abs(value));
  return largest;
}

// What a layer's inputs and weights were multiplied by to become integers.
struct Scales {
  float input;
  std::vector<float> rows;
};

class OneDnn8 final : public Contender {
 public:
  OneDnn8(const Network& network, std::size_t frames)
      : network_(network), frames_(frames), engine_(dnnl::engine::kind::cpu, 0), stream_(engine_) {
    input_ = memory(desc(network.inputs(), Type::s8), engine_);
    dnnl::primitive_attr toInput;
    toInput.set_output_scales(0, {kInputScale});
    const memory given(desc(network.inputs(), Type::f32), engine_, nullptr);
    quantize_ = dnnl::reorder(given, input_, toInput);
    quantizeArguments_ = {{DNNL_ARG_FROM, given}, {DNNL_ARG_TO, input_}};
    for (std::size_t i = 0; i < network.layers.size(); ++i) add(i);
  }

  void run(const float* x, float* y) override {
    quantizeArguments_.at(DNNL_ARG_FROM).set_data_handle(const_cast<float*>(x));
    steps_.back().arguments.at(DNNL_ARG_DST).set_data_handle(y);
    quantize_.execute(stream_, quantizeArguments_);
    for (Step& step : steps_) step.product.execute(stream_, step.arguments);
    stream_.wait();
    applySoftmaxes(network_.outputs(), frames_, y);
  }

 private:
  static constexpr float kInputScale = 127.0f;    // frames of the benchmark are within -1..1
  static constexpr float kSigmoidScale = 255.0f;  // and so is what a sigmoid gives

  struct Step {
    dnnl::inner_product_forward product;
    std::unordered_map<int, memory> arguments;
  };

  memory::desc desc(std::size_t width, Type type) const {
    const Dims shape{static_cast<memory::dim>(frames_), static_cast<memory::dim>(width)};
    return {shape, type, memory::format_tag::nc};
  }

  Scales scalesOf(std::size_t index) const {
    const DenseLayer& layer = network_.layers[index];
    Scales scales{index == 0 ? kInputScale : kSigmoidScale, {}};
    for (std::size_t r = 0; r < layer.rows; ++r) {
      std::vector<float> row;
      for (std::size_t c = 0; c < layer.cols; ++c) row.push_back(layer.weights[r + c * layer.rows]);
      scales.rows.push_back(127.0f / largestOf(row));
    }
    return scales;
  }

  void add(std::size_t index) {
    const DenseLayer& layer = network_.layers[index];
    const Scales scales = scalesOf(index);
    const auto rows = static_cast<memory::dim>(layer.rows);
    const auto cols = static_cast<memory::dim>(layer.cols);
    const bool isLast = index + 1 == network_.layers.size();
    const memory::desc x = desc(layer.cols, index == 0 ? Type::s8 : Type::u8);
    const memory::desc y = desc(layer.rows, isLast ? Type::f32 : Type::u8);
    const memory::desc any({rows, cols}, Type::s8, memory::format_tag::any);
    const memory::desc bias({rows}, Type::f32, memory::format_tag::x);
    const dnnl::inner_product_forward::primitive_desc product(
        {dnnl::prop_kind::forward_inference, x, any, bias, y}, attributes(scales, isLast), engine_);
    const memory input = steps_.empty() ? input_ : steps_.back().arguments.at(DNNL_ARG_DST);
    steps_.push_back({dnnl::inner_product_forward(product),
                      {{DNNL_ARG_SRC, input},
                       {DNNL_ARG_WEIGHTS, weightsOf(layer, scales, product.weights_desc())},
                       {DNNL_ARG_BIAS, biasOf(layer, scales, bias)},
                       {DNNL_ARG_DST, isLast ? memory(y, engine_, nullptr) : memory(y, engine_)}}});
  }

  // The outputs' factors come before the activation, and the bias before these.
  dnnl::primitive_attr attributes(const Scales& scales, bool isLast) const {
    dnnl::primitive_attr result;
    std::vector<float> back;
    for (const float row : scales.rows) back.push_back(1 / (row * scales.input));
    result.set_output_scales(1 << 1, back);
    if (isLast) return result;
    dnnl::post_ops operations;
    operations.append_eltwise(kSigmoidScale, dnnl::algorithm::eltwise_logistic, 0.0f, 0.0f);
    result.set_post_ops(operations);
    return result;
  }

  memory weightsOf(const DenseLayer& layer, const Scales& scales, const memory::desc& wanted) {
    const auto rows = static_cast<memory::dim>(layer.rows);
    const auto cols = static_cast<memory::dim>(layer.cols);
    const memory::desc given({rows, cols}, Type::f32, Dims{1, rows});
    memory source(given, engine_, const_cast<float*>(layer.weights.data()));
    memory weights(wanted, engine_);
    dnnl::primitive_attr toCodes;
    toCodes.set_output_scales(1 << 0, scales.rows);
    dnnl::reorder(source, weights, toCodes).execute(stream_, source, weights);
    stream_.wait();
    return weights;
  }

  memory biasOf(const DenseLayer& layer, const Scales& scales, const memory::desc& wanted) {
    memory bias(wanted, engine_);
    auto* const to = static_cast<float*>(bias.get_data_handle());
    for (std::size_t r = 0; r < layer.rows; ++r) {
      to[r] = layer.bias[r] * scales.rows[r] * scales.input;
    }
    return bias;
  }

  const Network& network_;
  std::size_t frames_;
  dnnl::engine engine_;
  dnnl::stream stream_;
  memory input_;
  dnnl::reorder quantize_;
  std::unordered_map<int, memory> quantizeArguments_;
  std::vector<Step> steps_;
};

}  // namespace

ContenderPtr makeOneDnnOf8Bits(const Network& network, std::size_t frames) {
  return std::make_unique<OneDnn8>(network, frames);
}

}  // namespace mlnn::bench
