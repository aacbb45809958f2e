// oneDNN: inner products with weights in the library's own order, prepared beforehand, and the
// bias and activation fused.
#include <dnnl.hpp>

#include "bench/Contender.h"

namespace mlnn::bench {
namespace {

using dnnl::memory;
using Dims = memory::dims;

class OneDnn final : public Contender {
 public:
  OneDnn(const Network& network, std::size_t frames)
      : network_(network), frames_(frames), engine_(dnnl::engine::kind::cpu, 0), stream_(engine_) {
    for (std::size_t i = 0; i < network.layers.size(); ++i) add(i);
  }

  void run(const float* x, float* y) override {
    steps_.front().arguments.at(DNNL_ARG_SRC).set_data_handle(const_cast<float*>(x));
    steps_.back().arguments.at(DNNL_ARG_DST).set_data_handle(y);
    for (Step& step : steps_) step.product.execute(stream_, step.arguments);
    stream_.wait();
    applySoftmaxes(network_.outputs(), frames_, y);
  }

 private:
  struct Step {
    dnnl::inner_product_forward product;
    std::unordered_map<int, memory> arguments;
  };

  void add(std::size_t index) {
    const DenseLayer& layer = network_.layers[index];
    const auto rows = static_cast<memory::dim>(layer.rows);
    const auto cols = static_cast<memory::dim>(layer.cols);
    const auto n = static_cast<memory::dim>(frames_);
    const auto type = memory::data_type::f32;
    const memory::desc x({n, cols}, type, memory::format_tag::nc);
    const memory::desc y({n, rows}, type, memory::format_tag::nc);
    const memory::desc any({rows, cols}, type, memory::format_tag::any);
    const memory::desc given({rows, cols}, type, Dims{1, rows});
    const memory::desc bias({rows}, type, memory::format_tag::x);
    const dnnl::inner_product_forward::primitive_desc desc(
        {dnnl::prop_kind::forward_inference, x, any, bias, y}, attributes(index), engine_);
    memory source(given, engine_, const_cast<float*>(layer.weights.data()));
    memory weights(desc.weights_desc(), engine_);
    dnnl::reorder(source, weights).execute(stream_, source, weights);
    stream_.wait();
    const memory input =
        steps_.empty() ? memory(x, engine_, nullptr) : steps_.back().arguments.at(DNNL_ARG_DST);
    const bool isLast = index + 1 == network_.layers.size();
    steps_.push_back(
        {dnnl::inner_product_forward(desc),
         {{DNNL_ARG_SRC, input},
          {DNNL_ARG_WEIGHTS, weights},
          {DNNL_ARG_BIAS, memory(bias, engine_, const_cast<float*>(layer.bias.data()))},
          {DNNL_ARG_DST, isLast ? memory(y, engine_, nullptr) : memory(y, engine_)}}});
  }

  dnnl::primitive_attr attributes(std::size_t index) const {
    dnnl::primitive_attr result;
    if (index + 1 == network_.layers.size()) return result;
    dnnl::post_ops operations;
    operations.append_eltwise(1.0f,
                              network_.hidden == Hidden::kRelu ? dnnl::algorithm::eltwise_relu
                                                               : dnnl::algorithm::eltwise_logistic,
                              0.0f, 0.0f);
    result.set_post_ops(operations);
    return result;
  }

  const Network& network_;
  std::size_t frames_;
  dnnl::engine engine_;
  dnnl::stream stream_;
  std::vector<Step> steps_;
};

}  // namespace

ContenderPtr makeOneDnn(const Network& network, std::size_t frames) {
  return std::make_unique<OneDnn>(network, frames);
}

}  // namespace mlnn::bench
