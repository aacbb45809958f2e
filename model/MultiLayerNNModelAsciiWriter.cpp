// The writer of the text format (docs/text-format.md). Literal text and integers are
// written as they are; values go through the stream, whose formatting is the caller's.
#include <ostream>

#include "model/LayerStack.h"
#include "model/ModelFormat.h"
#include "model/MultiLayerNNModel.h"

namespace {

using Eigen::Index;

// Integers stay plain decimal whatever flags and locale the stream has.
template <typename Integer>
std::string decimal(Integer value) {
  return std::to_string(value);
}

void writeValue(std::ostream& out, float value) { out << static_cast<double>(value); }

// A vector that is too short, which only an ill-formed layer has, reads on as zeros.
float valueAt(const Eigen::VectorXf& values, Index i) {
  return i < values.size() ? values[i] : 0.0f;
}

void writeCurve(std::ostream& out, const char* keyword, const std::vector<float>& values) {
  if (values.empty()) return;
  out << keyword << " " << decimal(values.size()) << "\n";
  writeValue(out, values[0]);
  for (std::size_t i = 1; i < values.size(); ++i) {
    out << "\t";
    writeValue(out, values[i]);
  }
  out << "\n";
}

void writeSizeLine(std::ostream& out, const char* keyword, std::size_t number, Index rows,
                   Index columns) {
  out << keyword << " " << decimal(number) << " " << mlnn::kSizeKeyword << " " << decimal(rows)
      << " " << decimal(columns) << "\n";
}

// Writes weights(r, from) and all that follow in the row, a tab before each.
void writeRestOfRow(std::ostream& out, const Eigen::MatrixXf& weights, Index r, Index from) {
  for (Index c = from; c < weights.cols(); ++c) {
    out << "\t";
    writeValue(out, weights(r, c));
  }
  out << "\n";
}

void writePlainLayer(std::ostream& out, std::size_t number, const NNLayer& layer) {
  const Index rows = layer.weights.rows();
  writeSizeLine(out, mlnn::kLayerKeyword, number, rows, layer.weights.cols() + 1);
  out << mlnn::kActFnKeyword << " " << ActFn::actFnToString(layer.actFn) << "\n";
  for (Index r = 0; r < rows; ++r) {
    writeValue(out, valueAt(layer.bias, r));
    writeRestOfRow(out, layer.weights, r, 0);
  }
}

void writeBatchNormLayer(std::ostream& out, std::size_t number, const NNLayer& layer) {
  const Index rows = layer.weights.rows();
  const Index columns = layer.weights.cols();
  writeSizeLine(out, mlnn::kBatchNormLayerKeyword, number, rows, columns);
  for (Index r = 0; r < rows; ++r) {
    writeValue(out, columns > 0 ? layer.weights(r, 0) : 0.0f);  // one value even without inputs
    writeRestOfRow(out, layer.weights, r, 1);
  }
  out << mlnn::kGammaBetaKeyword << "\n";
  for (Index r = 0; r < rows; ++r) {
    writeValue(out, valueAt(layer.gamma, r));
    for (const Eigen::VectorXf* values : {&layer.beta, &layer.gamma_inf, &layer.beta_inf}) {
      out << "\t";
      writeValue(out, valueAt(*values, r));
    }
    out << "\n";
  }
}

}  // namespace

int MultiLayerNNModel::serializeAscii(std::ostream& out) const {
  out << mlnn::kHeaderVersion2 << "\n";
  out << mlnn::kSoftmaxKeyword << " " << (useSoftmax ? "1" : "0") << "\n";
  for (const std::string& note : notes.lines) out << mlnn::kNotePrefix << note << "\n";
  for (const auto& [key, value] : props) {
    out << mlnn::kPropertyPrefix << key << " " << value << "\n";
  }
  writeCurve(out, mlnn::kLossKeyword, loss);
  writeCurve(out, mlnn::kAccuracyKeyword, accuracy);
  out << mlnn::kNumLayersKeyword << " " << decimal(layers.size()) << "\n";
  for (std::size_t i = 0; i < layers.size(); ++i) {
    const NNLayer& layer = mlnn::layerOrEmpty(layers[i]);
    if (layer.isBatchNorm) {
      writeBatchNormLayer(out, i + 1, layer);
    } else {
      writePlainLayer(out, i + 1, layer);
    }
  }
  return 0;
}
