#include "tests/support/LiteralAsciiReader.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <istream>
#include <limits>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>

#include "features/string_split.h"

namespace mlnn::test {
namespace {

// Thrown where a file asks for more than kLiteralLimit entries.
struct TooLarge {};

bool contains(const std::string& line, const char* text) {
  return line.find(text) != std::string::npos;
}

int saturatedInt(float x) {
  if (std::isnan(x)) return 0;
  if (x >= 2147483648.0f) return std::numeric_limits<int>::max();
  if (x < -2147483648.0f) return std::numeric_limits<int>::min();
  return static_cast<int>(x);
}

class LiteralReader {
 public:
  LiteralReader(MultiLayerNNModel& model, std::istream& in, std::ostream& messages)
      : model_(model), in_(in), messages_(messages) {}

  bool readAll() {
    reset();
    return readHeader() && readNotes() && readCurvesAndCount() && readLayers() && checkEnd();
  }

  std::size_t largestRequest() const { return largestRequest_; }

 private:
  template <typename... Parts>
  bool refuse(const Parts&... detail) {
    messages_ << "ERROR: MultiLayerNNModel::deserializeAscii: ";
    (messages_ << ... << detail) << "\n";
    return false;
  }

  void reset() {
    model_.featureDesc.winSizeLeft = 7;
    model_.featureDesc.winSizeRight = 7;
    model_.featureDesc.lineKernelWidth = 0;
    model_.featureDesc.useDeltas = true;
    model_.featureDesc.useLineKernels = false;
    for (NNLayer* layer : model_.layers) delete layer;
    model_.layers.clear();
  }

  bool readHeader() {
    std::string line;
    std::getline(in_, line);
    if (line == "MultiLayerNNModel") {
      version_ = 1;
      return true;
    }
    if (line == "MultiLayerNNModel_v2") {
      version_ = 2;
      return readSoftmax();
    }
    return refuse("Invalid neural network model file. Didn't find expected header on first line.");
  }

  bool readSoftmax() {
    std::string line;
    std::getline(in_, line);
    std::istringstream parts(line);
    std::string word;
    int flag = 0;
    parts >> word >> flag;
    if (word != "softmax") return refuse("Expected to find 'softmax' in a version 2 model file");
    model_.useSoftmax = flag != 0;
    return true;
  }

  bool readNotes() {
    while (in_.peek() == '#') {
      std::string line;
      std::getline(in_, line);
      model_.notes.addString(line);
      if (!readNote(line)) return false;
    }
    return true;
  }

  bool readNote(const std::string& line) {
    if (line.compare(0, 6, "# NVP ") == 0) {
      readProperty(line);
    } else if (contains(line, "deltas_norm_minvals")) {
      model_.deltasNorm.allocIfNeeded();
      readNormValues(model_.deltasNorm.minvals, line);
      return true;
    } else if (contains(line, "deltas_norm_normvals")) {
      model_.deltasNorm.allocIfNeeded();
      readNormValues(model_.deltasNorm.normvals, line);
      return true;
    }
    if (featureDescFound_) return true;
    if (contains(line, "nn_tune comment")) readOption(line);
    if (contains(line, "feat_desc") && contains(line, "nn_tune")) return readFeatureDesc(line);
    return true;
  }

  void readProperty(const std::string& line) {
    const std::size_t blank = line.find(' ', 6);
    const std::string key = blank == std::string::npos ? line.substr(6) : line.substr(6, blank - 6);
    const std::string value = blank == std::string::npos ? line : line.substr(blank + 1);
    messages_ << "info: setting '" << key << "' = '" << value << "'\n";
    model_.props[key] = value;
  }

  void readNormValues(Eigen::VectorXf& out, const std::string& line) {
    std::vector<std::string> fields;
    string_split(fields, line, " \t");
    if (fields.size() < 7 || fields[0] != "#" || fields[1] != "TRAIN" || fields[2] != "rbm_train") {
      messages_ << "ERROR: extract_norm_params: could not parse line\n";
      return;
    }
    const std::string values = fields[6];
    string_split(fields, values, ",");
    if (fields.size() != 120) {
      messages_ << "ERROR: extract_norm_params: did not find 120 values, found " << fields.size()
                << " instead\n";
      return;
    }
    for (int i = 0; i < 120; ++i) {
      out[i] = std::strtof(fields[static_cast<std::size_t>(i)].c_str(), nullptr);
    }
  }

  void readOption(const std::string& line) {
    DbnFeatureDescription& desc = model_.featureDesc;
    const std::size_t blank = line.rfind(' ');
    if (blank != std::string::npos) {
      optionValue_ = std::strtof(line.c_str() + blank + 1, nullptr);
    }
    const float x = optionValue_;
    if (contains(line, "-deltas")) {
      desc.useDeltas = x > 0;
    } else if (contains(line, "-win_size_left")) {
      desc.winSizeLeft = saturatedInt(x);
    } else if (contains(line, "-win_size_right")) {
      desc.winSizeRight = saturatedInt(x);
    } else if (contains(line, "-linekernels")) {
      desc.lineKernelWidth = saturatedInt(2.0f * x - 1.0f);
      desc.useLineKernels = x > 0;
    }
  }

  bool readFeatureDesc(const std::string& line) {
    model_.featureDesc = DbnFeatureDescription(DbnFeatureDescription::MelDeltas);
    const std::size_t blank = line.rfind(' ');
    if (blank == std::string::npos) {
      return refuse(
          " Found feat_desc in model file but could not extract feature description string");
    }
    const std::string text = line.substr(blank + 1);
    if (model_.featureDesc.deserialize(text) != 0) {
      return refuse(" could not deserialize feature description string: ", text);
    }
    messages_ << "info: NNModel::deserialize: feat_desc " << text << "\n";
    featureDescFound_ = true;
    return true;
  }

  bool readCurvesAndCount() {
    readKeywordAndCount();
    if (keyword_ == "loss") {
      if (!readCurve(model_.loss)) return false;
    }
    if (keyword_ == "accuracy") {
      if (!readCurve(model_.accuracy)) return false;
    }
    if (keyword_ != "num_layers") {
      return refuse("expected 'num_layers' but found '", keyword_, "'");
    }
    if (count_ < 0) return refuseCount(count_, "num_layers");
    model_.layers.resize(request(count_, 1), nullptr);
    return true;
  }

  // The word is empty where it cannot be read; the count then stays what it was.
  void readKeywordAndCount() {
    keyword_.clear();
    in_ >> keyword_ >> count_;
  }

  bool readCurve(std::vector<float>& values) {
    if (count_ < 0) return refuseCount(count_, keyword_);
    values.resize(request(count_, 1), 0.0f);
    for (float& value : values) in_ >> value;
    readKeywordAndCount();
    return true;
  }

  bool refuseCount(int count, const std::string& keyword) {
    return refuse("invalid count ", count, " after '", keyword, "'");
  }

  // rows * columns, when that is not too much to make.
  std::size_t request(int rows, int columns) {
    const auto product =
        static_cast<unsigned long long>(rows) * static_cast<unsigned long long>(columns);
    if (product > kLiteralLimit || static_cast<std::size_t>(rows) > kLiteralLimit) {
      throw TooLarge();
    }
    const auto entries = static_cast<std::size_t>(product);
    largestRequest_ = std::max({largestRequest_, entries, static_cast<std::size_t>(rows)});
    return entries;
  }

  bool readLayers() {
    for (layersRead_ = 0; layersRead_ != count_;) {
      if (in_.eof()) {
        return refuse("unexpected end of file after reading ", layersRead_, " of ", count_,
                      " layers");
      }
      readGluedNotes();
      if (!readLayer()) return false;
    }
    return true;
  }

  void readGluedNotes() {
    while (in_.peek() == '#') {
      std::string line;
      std::getline(in_, line);
      model_.notes.addString(line);
    }
  }

  // What cannot be read of a layer header stays as the header before had it.
  bool readLayer() {
    in_ >> word_ >> index_ >> secondWord_ >> rows_ >> columns_;
    if ((word_ != "layer" && word_ != "batch_norm_layer") || secondWord_ != "size") {
      return refuse("expected either 'layer' or 'batch_norm_layer' and 'size' but found '", word_,
                    "' and '", secondWord_, "'");
    }
    ++layersRead_;
    if (index_ != layersRead_) {
      return refuse("expected layer ", layersRead_, " but found ", index_);
    }
    const bool batchNorm = word_ == "batch_norm_layer";
    if (rows_ < 0) return refuseCount(rows_, "size");
    if (columns_ < (batchNorm ? 0 : 1)) return refuseCount(columns_, "size");
    const int inputs = batchNorm ? columns_ : columns_ - 1;
    request(rows_, inputs);
    auto* layer = new NNLayer(inputs, rows_, batchNorm);
    model_.layers[static_cast<std::size_t>(layersRead_) - 1] = layer;
    return batchNorm ? readBatchNormLayer(*layer) : readPlainLayer(*layer);
  }

  void readWeights(NNLayer& layer, Eigen::Index row) {
    for (Eigen::Index c = 0; c < layer.weights.cols(); ++c) in_ >> layer.weights(row, c);
  }

  bool readBatchNormLayer(NNLayer& layer) {
    for (Eigen::Index r = 0; r < layer.weights.rows(); ++r) readWeights(layer, r);
    std::string rest;
    std::getline(in_, rest);
    std::string line;
    std::getline(in_, line);
    if (line != "gamma_beta") return refuse("Expecting gamma_beta but found: ", line);
    for (Eigen::Index r = 0; r < layer.weights.rows(); ++r) {
      in_ >> layer.gamma[r] >> layer.beta[r] >> layer.gamma_inf[r] >> layer.beta_inf[r];
    }
    return true;
  }

  bool readPlainLayer(NNLayer& layer) {
    if (version_ == 2 && !readActivation(layer)) return false;
    for (Eigen::Index r = 0; r < layer.weights.rows(); ++r) {
      in_ >> layer.bias[r];
      readWeights(layer, r);
    }
    return true;
  }

  bool readActivation(NNLayer& layer) {
    std::string line;
    std::getline(in_, line);
    if (line.empty()) std::getline(in_, line);
    std::istringstream parts(line);
    std::string word;
    std::string name;
    parts >> word >> name;
    if (word != "act_fn") {
      return refuse("Expected to find 'act_fn' in a version 2 model file, found '", word, "'");
    }
    if (ActFn::stringToActFn(name, layer.actFn) != 0) {
      return refuse("Unknown activation function in model file: '", name, "'");
    }
    return true;
  }

  bool checkEnd() {
    if (in_.eof()) return refuse("unexpected end of input after reading all layers");
    std::string word;
    in_ >> word;
    if (!in_.eof()) return refuse("unexpected extra data at end of file: '", word, "'");
    const int length = model_.featureDesc.featLen();
    if (length == 0 || length == model_.numInputs()) return true;
    return refuse("feature description length (", length, ") does not match number of inputs (",
                  model_.numInputs(), ")");
  }

  MultiLayerNNModel& model_;
  std::istream& in_;
  std::ostream& messages_;
  std::size_t largestRequest_ = 0;

  int version_ = 0;
  float optionValue_ = 0.0f;
  bool featureDescFound_ = false;
  std::string keyword_;
  int count_ = 0;
  int layersRead_ = 0;
  std::string word_;
  int index_ = 0;
  std::string secondWord_;
  int rows_ = 0;
  int columns_ = 0;
};

}  // namespace

LiteralReading literalDeserializeAscii(MultiLayerNNModel& model, std::istream& in,
                                       std::ostream& messages) {
  LiteralReader reader(model, in, messages);
  LiteralReading reading;
  try {
    reading.result = reader.readAll() ? 0 : 1;
  } catch (const TooLarge&) {
  }
  reading.largestRequest = reader.largestRequest();
  return reading;
}

}  // namespace mlnn::test
