#include "bench/OnnxFile.h"

#include <onnx/onnx_pb.h>

#include <fstream>
#include <stdexcept>

namespace mlnn::bench {
namespace {

void add(onnx::GraphProto& graph, const std::string& name, const Eigen::MatrixXf& values) {
  onnx::TensorProto& tensor = *graph.add_initializer();
  tensor.set_name(name);
  tensor.set_data_type(onnx::TensorProto::FLOAT);
  tensor.add_dims(values.cols());
  tensor.add_dims(values.rows());
  tensor.set_raw_data(values.data(), static_cast<std::size_t>(values.size()) * sizeof(float));
}

}  // namespace

void writeOnnx(const std::string& name, const MultiLayerNNModel& model) {
  onnx::ModelProto proto;
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    add(*proto.mutable_graph(), "weights" + std::to_string(i), model.layers[i]->weights);
    add(*proto.mutable_graph(), "bias" + std::to_string(i), model.layers[i]->bias);
  }
  std::ofstream out(name, std::ios::binary);
  if (!proto.SerializeToOstream(&out) || !out.flush()) throw std::runtime_error("ONNX not written");
}

std::shared_ptr<void> loadOnnx(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  const auto proto = std::make_shared<onnx::ModelProto>();
  if (!proto->ParseFromIstream(&in)) throw std::runtime_error("ONNX not read");
  return proto;
}

}  // namespace mlnn::bench
