// The reader of the text format (docs/text-format.md): strictly forward, token by token
// through the stream's own extraction, up to the first thing that does not fit.
//
// Counts and sizes in a file are not trusted. Up to kTrustedEntries an array is made at
// once; a larger one grows as its values arrive, so memory stays in proportion to the input.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <istream>
#include <limits>
#include <locale>
#include <memory>
#include <new>
#include <sstream>
#include <streambuf>

#include "features/string_split.h"
#include "layers/Report.h"
#include "model/LayerStack.h"
#include "model/ModelFormat.h"
#include "model/MultiLayerNNModel.h"
#include "os/FreshMemory.h"
#include "text/FloatReader.h"

namespace {

using Eigen::Index;

constexpr int kTrustedEntries = 65536;

// --- Note lines ---

bool contains(const std::string& line, const char* text) {
  return line.find(text) != std::string::npos;
}

// Truncates toward zero; saturates where an int cannot hold the value, 0 for NaN.
int toInt(float value) {
  if (std::isnan(value)) return 0;
  if (value >= 2147483648.0f) return std::numeric_limits<int>::max();
  if (value < -2147483648.0f) return std::numeric_limits<int>::min();
  return static_cast<int>(value);
}

// Takes 120 normalisation values out of the training command
//   # TRAIN rbm_train FIELD FIELD FIELD VALUE,VALUE,...
// and stores them in `out`. A value that is no number becomes 0, as strtof has it.
// REQUIRES: `out` has room for kDeltasNormLength values.
// On failure: prints an error line; `out` is unchanged.
void extract_norm_params(float* out, const std::string& line) {
  constexpr std::size_t kValuesField = 6;
  std::vector<std::string> fields;
  string_split(fields, line, " \t");
  if (fields.size() <= kValuesField || fields[0] != "#" || fields[1] != "TRAIN" ||
      fields[2] != "rbm_train") {
    mlnn::report({"ERROR: extract_norm_params: could not parse line"});
    return;
  }
  string_split(fields, fields[kValuesField], ",");
  if (fields.size() != std::size_t{mlnn::kDeltasNormLength}) {
    mlnn::report({"ERROR: extract_norm_params: did not find ", mlnn::kDeltasNormLength,
                  " values, found ", fields.size(), " instead"});
    return;
  }
  for (const std::string& field : fields) *out++ = std::strtof(field.c_str(), nullptr);
}

// Applies the first option that the line contains, in this order; its value is the line's
// last word. (The marker itself has a blank, so there always is a last blank.)
void applyOption(DbnFeatureDescription& desc, const std::string& line) {
  const float value = std::strtof(line.c_str() + line.rfind(' ') + 1, nullptr);
  if (contains(line, mlnn::kDeltasOption)) {
    desc.useDeltas = value > 0;
  } else if (contains(line, mlnn::kWinSizeLeftOption)) {
    desc.winSizeLeft = toInt(value);
  } else if (contains(line, mlnn::kWinSizeRightOption)) {
    desc.winSizeRight = toInt(value);
  } else if (contains(line, mlnn::kLineKernelsOption)) {
    desc.lineKernelWidth = toInt(2 * value - 1);
    desc.useLineKernels = value > 0;
  }
}

// --- Layer arrays that grow ---

template <typename Dense>
void growRows(Dense& values, Index rows) {
  Dense fresh(rows, values.cols());
  mlnn::adviseHugePages(fresh.data(), static_cast<std::size_t>(fresh.size()) * sizeof(float));
  const Index present = values.rows();
  for (Index c = 0; c < values.cols(); ++c) {
    fresh.col(c).head(present) = values.col(c);
    fresh.col(c).tail(rows - present).setZero();
  }
  values.swap(fresh);
}

// Whether the stream says that it still has enough characters for so many numbers: of each a
// digit and what divides it from the next.
bool mayHold(std::istream& in, Index rows, Index valuesPerRow) {
  constexpr std::streamsize kShortestNumber = 2;
  return in.rdbuf()->in_avail() / kShortestNumber / std::max<Index>(valuesPerRow, 1) >= rows;
}

// Makes room for row `r`, which was just read, of a layer that is to have `rows` rows: for all
// of them where the stream may hold them, else for twice as many as before.
void makeRoomForRow(std::istream& in, NNLayer& layer, Index r, Index rows) {
  const Index present = layer.weights.rows();
  if (r < present) return;
  const bool isWhole = present > rows / 2 || mayHold(in, rows - r - 1, layer.weights.cols());
  const Index grown = isWhole ? rows : std::max(r + 1, 2 * present);
  growRows(layer.bias, grown);
  growRows(layer.weights, grown);
  if (!layer.isBatchNorm) return;
  growRows(layer.gamma, grown);
  growRows(layer.beta, grown);
  growRows(layer.gamma_inf, grown);
  growRows(layer.beta_inf, grown);
}

// The rows that a layer starts with: all of them where its arrays are small, else as many
// as its trusted part holds.
int trustedRows(int rows, int inputs) {
  const int fitting = kTrustedEntries / std::max(inputs, 1);
  return std::min(rows, fitting);
}

// --- The reader ---

// A layer's size line, "layer INDEX size ROWS COLUMNS". A field that cannot be read keeps
// what the line before had, as stream extraction leaves it.
struct SizeLine {
  std::string keyword;
  int index = 0;
  std::string sizeKeyword;
  int rows = 0;
  int columns = 0;

  bool isBatchNorm() const { return keyword == mlnn::kBatchNormLayerKeyword; }
};

// Appends characters up to a line end, which is taken too. Returns what becomes of the stream.
std::ios::iostate takeLine(std::streambuf& in, std::string& line) {
  using Traits = std::streambuf::traits_type;
  for (auto c = in.sgetc(); !Traits::eq_int_type(c, Traits::eof()); c = in.snextc()) {
    if (c == '\n') {
      in.sbumpc();
      return std::ios::goodbit;
    }
    line.push_back(Traits::to_char_type(c));
  }
  return line.empty() ? std::ios::eofbit | std::ios::failbit : std::ios::eofbit;
}

std::ios::iostate takeWord(std::streambuf& in, const std::ctype<char>& characters,
                           std::size_t longest, std::string& word) {
  using Traits = std::streambuf::traits_type;
  for (auto c = in.sgetc(); word.size() < longest; c = in.snextc()) {
    if (Traits::eq_int_type(c, Traits::eof())) {
      return word.empty() ? std::ios::eofbit | std::ios::failbit : std::ios::eofbit;
    }
    const char character = Traits::to_char_type(c);
    if (characters.is(std::ctype_base::space, character)) break;
    word.push_back(character);
  }
  return word.empty() ? std::ios::failbit : std::ios::goodbit;
}

// Reads a word as stream extraction does, which takes memory that runs out for a stream that has
// gone bad; here std::bad_alloc passes through.
void readWord(std::istream& in, std::string& word) {
  const std::istream::sentry ready(in);
  if (!ready) return;
  word.clear();
  const std::streamsize width = in.width(0);
  const std::size_t longest = width > 0 ? static_cast<std::size_t>(width) : word.max_size();
  std::ios::iostate state = std::ios::goodbit;
  try {
    const std::locale locale = in.getloc();
    state = takeWord(*in.rdbuf(), std::use_facet<std::ctype<char>>(locale), longest, word);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {  // what a stream's buffer throws
    state = std::ios::badbit;
  }
  in.setstate(state);
}

class AsciiReader {
 public:
  AsciiReader(std::istream& in, MultiLayerNNModel& model) : in_(in), floats_(in), model_(model) {}

  bool read() {
    reset();
    int numLayers = 0;
    return readHeader() && readNoteLines() && readCurvesAndLayerCount(numLayers) &&
           readLayers(numLayers) && checkEnd();
  }

 private:
  // Prints an error line made of the pieces and returns false.
  template <typename... Pieces>
  static bool refuse(const Pieces&... pieces) {
    mlnn::report({"ERROR: MultiLayerNNModel::deserializeAscii: ", pieces...});
    return false;
  }

  void reset();
  bool readHeader();
  bool readSoftmax();
  bool readNoteLines();
  bool readNoteLine(const std::string& line);
  bool readNormalisation(const std::string& line);
  bool readFeatureDescription(const std::string& line);
  bool readCurvesAndLayerCount(int& numLayers);
  bool readCurve(std::vector<float>& values, int count);
  bool readLayers(int numLayers);
  void readGluedNotes();
  bool readSizeLine(SizeLine& line, int number);
  bool readBatchNormLayer(NNLayer& layer, int rows);
  bool readPlainLayer(NNLayer& layer, int rows);
  bool readActivation(NNLayer& layer);
  void readPlainRows(NNLayer& layer, int rows);
  void readWeightRows(NNLayer& layer, int rows);
  void readGammaBetaRows(NNLayer& layer, int rows);
  bool checkEnd();

  std::string readLine();
  std::size_t readValues(std::vector<float>& values, std::size_t count);
  void readKeyword(std::string& word, int& count);
  NNLayer& makeLayer(std::size_t index, int numLayers, const SizeLine& line);
  template <typename Store>
  void readRows(NNLayer& layer, int rows, Index valuesPerRow, Store store);

  std::istream& in_;
  mlnn::FloatReader floats_;
  MultiLayerNNModel& model_;
  int version_ = 2;
  bool featureDescFound_ = false;
  std::vector<float> row_;
};

// Returns the rest of the current line; empty when nothing can be read. Leaves the stream as
// std::getline does. That one takes memory that runs out for a stream that has gone bad, and what
// it has read so far for the line; here std::bad_alloc passes through.
std::string AsciiReader::readLine() {
  std::string line;
  const std::istream::sentry ready(in_, true);
  if (!ready) return line;
  std::ios::iostate state = std::ios::goodbit;
  try {
    state = takeLine(*in_.rdbuf(), line);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {  // what a stream's buffer throws
    state = line.empty() ? std::ios::badbit | std::ios::failbit : std::ios::badbit;
  }
  in_.setstate(state);
  return line;
}

// Reads `count` values into a vector, which grows as they arrive where it is too short.
// Returns how many entries were reached, the one that could not be read included.
std::size_t AsciiReader::readValues(std::vector<float>& values, std::size_t count) {
  std::size_t reached = 0;
  while (reached < count && in_) {
    if (reached == values.size()) values.resize(std::min(count, reached + kTrustedEntries));
    reached += floats_.read(values.data() + reached, std::min(values.size(), count) - reached);
  }
  return reached;
}

void AsciiReader::reset() {
  DbnFeatureDescription& desc = model_.featureDesc;
  desc.winSizeLeft = 7;
  desc.winSizeRight = 7;
  desc.lineKernelWidth = 0;
  desc.useDeltas = true;
  desc.useLineKernels = false;
  mlnn::resizeStack(model_.layers, 0);
}

bool AsciiReader::readHeader() {
  const std::string line = readLine();
  if (line == mlnn::kHeaderVersion1) {
    version_ = 1;
    return true;
  }
  if (line == mlnn::kHeaderVersion2) return readSoftmax();
  return refuse("Invalid neural network model file. Didn't find expected header on first line.");
}

bool AsciiReader::readSoftmax() {
  std::istringstream words(readLine());
  words.imbue(std::locale::classic());
  std::string keyword;
  int flag = 0;  // stays 0 without a number
  readWord(words, keyword);
  words >> flag;
  if (keyword != mlnn::kSoftmaxKeyword) {
    return refuse("Expected to find '", mlnn::kSoftmaxKeyword, "' in a version 2 model file");
  }
  model_.useSoftmax = flag != 0;
  return true;
}

bool AsciiReader::readNoteLines() {
  while (in_.peek() == '#') {
    const std::string line = readLine();
    model_.notes.addString(line);
    if (!readNoteLine(line)) return false;
  }
  return true;
}

bool AsciiReader::readNoteLine(const std::string& line) {
  const std::string prefix = mlnn::kPropertyPrefix;
  if (line.compare(0, prefix.size(), prefix) == 0) {
    // Without a blank after the key, `blank + 1` is 0 and the value is the whole line.
    const std::size_t blank = line.find(' ', prefix.size());
    model_.setProp(line.substr(prefix.size(), blank - prefix.size()), line.substr(blank + 1));
  } else if (readNormalisation(line)) {
    return true;
  }
  if (featureDescFound_) return true;
  if (contains(line, mlnn::kOptionMarker)) applyOption(model_.featureDesc, line);
  if (!contains(line, mlnn::kFeatDescMarker) || !contains(line, mlnn::kFeatDescToolMarker)) {
    return true;
  }
  return readFeatureDescription(line);
}

// Returns whether the line is one that carries normalisation values, well-formed or not.
bool AsciiReader::readNormalisation(const std::string& line) {
  const bool isMinvals = contains(line, mlnn::kMinvalsMarker);
  if (!isMinvals && !contains(line, mlnn::kNormvalsMarker)) return false;
  MelDeltasNorm& norm = model_.deltasNorm;
  norm.allocIfNeeded();
  extract_norm_params(isMinvals ? norm.minvals.data() : norm.normvals.data(), line);
  return true;
}

bool AsciiReader::readFeatureDescription(const std::string& line) {
  model_.featureDesc = DbnFeatureDescription(DbnFeatureDescription::MelDeltas);
  // Both of these details begin with a blank; fixed by the format's users.
  const std::size_t blank = line.rfind(' ');
  if (blank == std::string::npos) {
    return refuse(
        " Found feat_desc in model file but could not extract feature description string");
  }
  const std::string text = line.substr(blank + 1);
  if (model_.featureDesc.deserialize(text) != 0) {
    return refuse(" could not deserialize feature description string: ", text);
  }
  mlnn::report({"info: NNModel::deserialize: feat_desc ", text});
  featureDescFound_ = true;
  return true;
}

// Reads a keyword and its count. A keyword that cannot be read is empty; a count that is not
// there keeps its value, as stream extraction leaves it.
void AsciiReader::readKeyword(std::string& word, int& count) {
  word.clear();
  readWord(in_, word);
  in_ >> count;
}

bool AsciiReader::readCurvesAndLayerCount(int& numLayers) {
  std::string word;
  int count = 0;
  readKeyword(word, count);
  if (word == mlnn::kLossKeyword) {
    if (!readCurve(model_.loss, count))
      return refuse("invalid count ", count, " after '", word, "'");
    readKeyword(word, count);
  }
  if (word == mlnn::kAccuracyKeyword) {
    if (!readCurve(model_.accuracy, count)) {
      return refuse("invalid count ", count, " after '", word, "'");
    }
    readKeyword(word, count);
  }
  if (word != mlnn::kNumLayersKeyword) {
    return refuse("expected '", mlnn::kNumLayersKeyword, "' but found '", word, "'");
  }
  if (count < 0) return refuse("invalid count ", count, " after '", word, "'");
  mlnn::resizeStack(model_.layers, static_cast<std::size_t>(std::min(count, kTrustedEntries)));
  numLayers = count;
  return true;
}

// Entries that are there already keep their values until they are read. False for a
// negative count.
bool AsciiReader::readCurve(std::vector<float>& values, int count) {
  if (count < 0) return false;
  const auto size = static_cast<std::size_t>(count);
  const std::size_t trusted = std::max(values.size(), std::size_t{kTrustedEntries});
  values.resize(std::min(size, trusted));
  readValues(values, size);
  return true;
}

bool AsciiReader::readLayers(int numLayers) {
  SizeLine line;
  for (int i = 0; i < numLayers; ++i) {
    if (in_.eof()) {
      return refuse("unexpected end of file after reading ", i, " of ", numLayers, " layers");
    }
    readGluedNotes();
    if (!readSizeLine(line, i + 1)) return false;
    NNLayer& layer = makeLayer(static_cast<std::size_t>(i), numLayers, line);
    const bool accepted =
        layer.isBatchNorm ? readBatchNormLayer(layer, line.rows) : readPlainLayer(layer, line.rows);
    if (!accepted) return false;
  }
  return true;
}

// A "#" counts here only directly behind the last token, on the same line.
void AsciiReader::readGluedNotes() {
  while (in_.peek() == '#') model_.notes.addString(readLine());
}

bool AsciiReader::readSizeLine(SizeLine& line, int number) {
  readWord(in_, line.keyword);
  in_ >> line.index;
  readWord(in_, line.sizeKeyword);
  in_ >> line.rows >> line.columns;
  const bool isLayer = line.keyword == mlnn::kLayerKeyword || line.isBatchNorm();
  if (!isLayer || line.sizeKeyword != mlnn::kSizeKeyword) {
    return refuse("expected either '", mlnn::kLayerKeyword, "' or '", mlnn::kBatchNormLayerKeyword,
                  "' and '", mlnn::kSizeKeyword, "' but found '", line.keyword, "' and '",
                  line.sizeKeyword, "'");
  }
  if (line.index != number) return refuse("expected layer ", number, " but found ", line.index);
  const int minColumns = line.isBatchNorm() ? 0 : 1;  // a plain layer's bias takes one
  if (line.rows < 0 || line.columns < minColumns) {
    return refuse("invalid count ", line.rows < 0 ? line.rows : line.columns, " after '",
                  mlnn::kSizeKeyword, "'");
  }
  return true;
}

// Puts a new layer into the stack, which has grown when there are many.
NNLayer& AsciiReader::makeLayer(std::size_t index, int numLayers, const SizeLine& line) {
  std::vector<NNLayer*>& layers = model_.layers;
  if (index == layers.size()) {
    mlnn::resizeStack(layers, std::min(2 * index, static_cast<std::size_t>(numLayers)));
  }
  const int inputs = line.isBatchNorm() ? line.columns : line.columns - 1;
  layers[index] = new NNLayer(inputs, trustedRows(line.rows, inputs), line.isBatchNorm());
  return *layers[index];
}

// Reads `rows` rows of values and hands each to `store(r)` in row_, which may be short when
// a value could not be read; then the rest of the rows is not asked for.
template <typename Store>
void AsciiReader::readRows(NNLayer& layer, int rows, Index valuesPerRow, Store store) {
  for (Index r = 0; r < rows && in_; ++r) {
    row_.clear();
    row_.resize(readValues(row_, static_cast<std::size_t>(valuesPerRow)));
    if (in_) makeRoomForRow(in_, layer, r, rows);
    if (r < layer.weights.rows()) store(r);
  }
}

void AsciiReader::readPlainRows(NNLayer& layer, int rows) {
  readRows(layer, rows, layer.weights.cols() + 1, [this, &layer](Index r) {
    layer.bias[r] = row_[0];
    for (std::size_t i = 1; i < row_.size(); ++i) layer.weights(r, Index(i) - 1) = row_[i];
  });
}

void AsciiReader::readWeightRows(NNLayer& layer, int rows) {
  if (layer.weights.cols() == 0) return;
  readRows(layer, rows, layer.weights.cols(), [this, &layer](Index r) {
    for (std::size_t i = 0; i < row_.size(); ++i) layer.weights(r, Index(i)) = row_[i];
  });
}

void AsciiReader::readGammaBetaRows(NNLayer& layer, int rows) {
  Eigen::VectorXf* const vectors[] = {&layer.gamma, &layer.beta, &layer.gamma_inf, &layer.beta_inf};
  readRows(layer, rows, 4, [this, &vectors](Index r) {
    for (std::size_t i = 0; i < row_.size(); ++i) (*vectors[i])[r] = row_[i];
  });
}

bool AsciiReader::readBatchNormLayer(NNLayer& layer, int rows) {
  readWeightRows(layer, rows);
  readLine();
  const std::string line = readLine();
  if (line != mlnn::kGammaBetaKeyword) {
    return refuse("Expecting ", mlnn::kGammaBetaKeyword, " but found: ", line);
  }
  readGammaBetaRows(layer, rows);
  return true;
}

bool AsciiReader::readPlainLayer(NNLayer& layer, int rows) {
  if (version_ == 2 && !readActivation(layer)) return false;
  readPlainRows(layer, rows);
  return true;
}

// The activation stands on a line of its own or at the end of the size line.
bool AsciiReader::readActivation(NNLayer& layer) {
  std::string line = readLine();
  if (line.empty()) line = readLine();
  std::istringstream words(line);
  words.imbue(std::locale::classic());
  std::string keyword;
  std::string name;
  readWord(words, keyword);
  readWord(words, name);
  if (keyword != mlnn::kActFnKeyword) {
    return refuse("Expected to find '", mlnn::kActFnKeyword, "' in a version 2 model file, found '",
                  keyword, "'");
  }
  if (ActFn::stringToActFn(name, layer.actFn) != 0) {
    return refuse("Unknown activation function in model file: '", name, "'");
  }
  return true;
}

bool AsciiReader::checkEnd() {
  if (in_.eof()) return refuse("unexpected end of input after reading all layers");
  std::string word;
  readWord(in_, word);
  if (!in_.eof()) return refuse("unexpected extra data at end of file: '", word, "'");
  const int featLen = model_.featureDesc.featLen();
  const int numInputs = model_.numInputs();
  if (featLen != 0 && featLen != numInputs) {
    return refuse("feature description length (", featLen, ") does not match number of inputs (",
                  numInputs, ")");
  }
  return true;
}

}  // namespace

int MultiLayerNNModel::deserializeAscii(std::istream& in) {
  return AsciiReader(in, *this).read() ? 0 : 1;
}
