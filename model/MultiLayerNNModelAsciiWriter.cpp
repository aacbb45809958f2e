// The writer of the text format (docs/text-format.md). Literal text and integers are
// written as they are; values follow the stream's formatting, which is the caller's.
#include <locale>
#include <ostream>
#include <string_view>

#include "model/LayerStack.h"
#include "model/ModelFormat.h"
#include "model/MultiLayerNNModel.h"
#include "os/Builtins.h"
#include "text/FloatText.h"

namespace {

using Eigen::Index;

constexpr int kMaxPrecision = 64;

// Returns the precision of a stream that writes floats as "%.*g" does in the classic locale,
// or 0 when it has a formatting of its own.
int plainPrecision(const std::ostream& out) {
  constexpr std::ios::fmtflags kOwnFormatting =
      std::ios::floatfield | std::ios::showpos | std::ios::showpoint | std::ios::uppercase;
  const bool isPlain = (out.flags() & kOwnFormatting) == 0 && out.width() == 0 &&
                       out.getloc() == std::locale::classic();
  if (!isPlain || out.precision() < 1 || out.precision() > kMaxPrecision) return 0;
  return static_cast<int>(out.precision());
}

// Writes text and values to a stream: through a small buffer where the stream's formatting is
// plain, by insertion where it is not. Both write the same.
class TextOutput {
 public:
  explicit TextOutput(std::ostream& out) : out_(out), precision_(plainPrecision(out)) {}

  TextOutput& operator<<(std::string_view text) {
    if (precision_ == 0 || text.size() > kCapacity) {
      flush();
      out_ << text;
      return *this;
    }
    makeRoom(text.size());
    text.copy(buffer_ + used_, text.size());
    used_ += text.size();
    return *this;
  }

  TextOutput& operator<<(float value) {
    if (precision_ == 0) {
      out_ << static_cast<double>(value);
      return *this;
    }
    makeRoom(static_cast<std::size_t>(mlnn::floatTextLength(precision_)));
    const char* const end = mlnn::formatFloat(buffer_ + used_, value, precision_);
    used_ = static_cast<std::size_t>(end - buffer_);
    return *this;
  }

  // Writes a tab and a value.
  void tabbed(float value) {
    if (precision_ == 0) {
      out_ << '\t' << static_cast<double>(value);
      return;
    }
    makeRoom(1 + static_cast<std::size_t>(mlnn::floatTextLength(precision_)));
    buffer_[used_] = '\t';
    const char* const end = mlnn::formatFloat(buffer_ + used_ + 1, value, precision_);
    used_ = static_cast<std::size_t>(end - buffer_);
  }

  // Hands over what is in the buffer; to be called at the end.
  void flush() {
    if (used_ == 0) return;
    out_.write(buffer_, static_cast<std::streamsize>(used_));
    used_ = 0;
  }

 private:
  static constexpr std::size_t kCapacity = 8192;

  void makeRoom(std::size_t length) {
    if (kCapacity - used_ < length) flush();
  }

  std::ostream& out_;
  const int precision_;  // 0: by insertion
  std::size_t used_ = 0;
  char buffer_[kCapacity];
};

// Integers stay plain decimal whatever flags and locale the stream has.
template <typename Integer>
std::string decimal(Integer value) {
  return std::to_string(value);
}

// A vector that is too short, which only an ill-formed layer has, reads on as zeros.
float valueAt(const Eigen::VectorXf& values, Index i) {
  return i < values.size() ? values[i] : 0.0f;
}

void writeCurve(TextOutput& out, const char* keyword, const std::vector<float>& values) {
  if (values.empty()) return;
  out << keyword << " " << decimal(values.size()) << "\n";
  out << values[0];
  for (std::size_t i = 1; i < values.size(); ++i) out << "\t" << values[i];
  out << "\n";
}

void writeSizeLine(TextOutput& out, const char* keyword, std::size_t number, Index rows,
                   Index columns) {
  out << keyword << " " << decimal(number) << " " << mlnn::kSizeKeyword << " " << decimal(rows)
      << " " << decimal(columns) << "\n";
}

// Writes weights(r, from) and all that follow in the row, a tab before each. Columns stand far
// apart in memory, in other pages, from which the processor fetches nothing by itself.
void writeRestOfRow(TextOutput& out, const Eigen::MatrixXf& weights, Index r, Index from) {
  constexpr Index kAhead = 16;
  for (Index c = from; c < weights.cols(); ++c) {
    if (c + kAhead < weights.cols()) mlnn::prefetch(&weights(r, c + kAhead));
    out.tabbed(weights(r, c));
  }
  out << "\n";
}

void writePlainLayer(TextOutput& out, std::size_t number, const NNLayer& layer) {
  const Index rows = layer.weights.rows();
  writeSizeLine(out, mlnn::kLayerKeyword, number, rows, layer.weights.cols() + 1);
  out << mlnn::kActFnKeyword << " " << ActFn::actFnToString(layer.actFn) << "\n";
  for (Index r = 0; r < rows; ++r) {
    out << valueAt(layer.bias, r);
    writeRestOfRow(out, layer.weights, r, 0);
  }
}

void writeBatchNormLayer(TextOutput& out, std::size_t number, const NNLayer& layer) {
  const Index rows = layer.weights.rows();
  const Index columns = layer.weights.cols();
  writeSizeLine(out, mlnn::kBatchNormLayerKeyword, number, rows, columns);
  for (Index r = 0; r < rows; ++r) {
    out << (columns > 0 ? layer.weights(r, 0) : 0.0f);  // one value even without inputs
    writeRestOfRow(out, layer.weights, r, 1);
  }
  out << mlnn::kGammaBetaKeyword << "\n";
  for (Index r = 0; r < rows; ++r) {
    out << valueAt(layer.gamma, r);
    for (const Eigen::VectorXf* values : {&layer.beta, &layer.gamma_inf, &layer.beta_inf}) {
      out << "\t" << valueAt(*values, r);
    }
    out << "\n";
  }
}

}  // namespace

int MultiLayerNNModel::serializeAscii(std::ostream& stream) const {
  TextOutput out(stream);
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
  out.flush();
  return 0;
}
