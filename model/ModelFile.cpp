#include "model/ModelFile.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <iterator>

#include "layers/ActFn.h"
#include "layers/Report.h"
#include "model/FileStream.h"
#include "model/ImageReader.h"
#include "model/MemoryStream.h"
#include "model/ModelFormat.h"
#include "text/Escape.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

constexpr std::size_t kVersion1Length = sizeof kHeaderVersion1 - 1;

// Takes the format and the version from the first bytes of a file, of which there are as many as
// the header of version 1 and its line end have, or all.
void tellFormat(const char* head, std::size_t length, ModelFile& file) {
  const bool isBinary = isImage({head, length});
  const bool isVersion1 = length > kVersion1Length &&
                          std::memcmp(head, kHeaderVersion1, kVersion1Length) == 0 &&
                          head[kVersion1Length] == '\n';
  file.format = isBinary ? ModelFormat::kBinary : ModelFormat::kText;
  file.textVersion = isBinary ? 0 : (isVersion1 ? 1 : 2);
}

// Reads what a stream that can seek holds from its first byte on.
int readStream(std::istream& in, ModelFile& file) {
  char head[kVersion1Length + 1];
  in.read(head, sizeof head);
  tellFormat(head, static_cast<std::size_t>(in.gcount()), file);
  in.clear();
  file.length = static_cast<std::size_t>(std::max<std::streamoff>(lengthOf(in), 0));
  in.clear();
  in.seekg(0);
  return file.model.deserialize(in);
}

bool isActivation(const std::string& name) {
  ActFn::ActFn actFn;
  return ActFn::stringToActFn(name, actFn) == 0;
}

// Returns whether the caller gives an activation that there is, or none.
bool optionsFit(const OpenOptions& options) {
  if (options.hiddenActFn.empty() || isActivation(options.hiddenActFn)) return true;
  report({"ERROR: openModel: ", options.optionWords, " is ", inQuotes(options.hiddenActFn),
          ", which is no activation"});
  return false;
}

// Says why an image is refused that the reader refuses without a word.
void explainRefusal(const ModelFile& file) {
  if (file.format != ModelFormat::kBinary || file.length >= kMinImageLength) return;
  report({"ERROR: openModel: ", shorterThanHead(file.length)});
}

// Ends the opening of a file with what reading it gave.
int completeModel(int readResult, ModelFile& file, const OpenOptions& options) {
  if (readResult != 0) {
    explainRefusal(file);
    return 1;
  }
  setHiddenActivations(file, options);
  return 0;
}

// Whether the file says which activation the layer has. Images always do.
bool recordsActivation(const ModelFile& file, const NNLayer& layer) {
  if (file.format == ModelFormat::kBinary) return true;
  return file.textVersion != 1 && !layer.isBatchNorm;
}

std::string wordsFor(const ModelFile& file, const OpenOptions& options) {
  if (!options.fileWords.empty()) return options.fileWords;
  return file.name.empty() ? "the model" : inQuotes(file.name);
}

void warnOfLinearLayers(const ModelFile& file, std::size_t number, const OpenOptions& options) {
  const std::string property = file.model.getProp(kHiddenActFnProperty);
  const std::string why = property.empty()
                              ? std::string("has no property ") + kHiddenActFnProperty
                              : std::string("has a property ") + kHiddenActFnProperty + " of " +
                                    inQuotes(property) + ", which is no activation";
  report({"Warning: ", wordsFor(file, options), " does not record the activation of ",
          counted(number, "hidden layer"), " and ", why, "; they are taken as linear (see ",
          options.optionWords, ")"});
}

}  // namespace

int openModel(const std::string& fileName, ModelFile& file, const OpenOptions& options) {
  file.name = fileName;
  FileStream opened;
  if (!optionsFit(options) || !opened.open(fileName.c_str())) return 1;
  std::istream& in = opened.stream();
  if (in.tellg() != std::istream::pos_type(-1)) {
    return completeModel(readStream(in, file), file, options);
  }
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};  // a pipe cannot seek
  return completeModel(readModel(bytes.data(), bytes.size(), file), file, options);
}

int openModel(const void* bytes, std::size_t length, ModelFile& file, const OpenOptions& options) {
  file.name.clear();
  if (!optionsFit(options)) return 1;
  return completeModel(readModel(bytes, length, file), file, options);
}

std::unique_ptr<MultiLayerNNModel> openModel(const std::string& fileName,
                                             const OpenOptions& options) {
  ModelFile file;
  if (openModel(fileName, file, options) != 0) return nullptr;
  return std::make_unique<MultiLayerNNModel>(std::move(file.model));
}

int readModel(const void* bytes, std::size_t length, ModelFile& file) {
  return readModel(bytes, length, file, Watch());
}

int readModel(const void* bytes, std::size_t length, ModelFile& file, const Watch& watch) {
  MemoryStream in(bytes, length, watch);
  const int result = readStream(in, file);
  in.rethrow();
  return result;
}

std::vector<NNLayer*> layersWithoutActivation(const ModelFile& file) {
  std::vector<NNLayer*> found;
  const std::vector<NNLayer*>& layers = file.model.layers;
  for (std::size_t i = 0; i + 1 < layers.size(); ++i) {
    if (layers[i] == nullptr || recordsActivation(file, *layers[i])) continue;
    found.push_back(layers[i]);
  }
  return found;
}

void setHiddenActivations(ModelFile& file, const OpenOptions& options) {
  const std::vector<NNLayer*> layers = layersWithoutActivation(file);
  const bool isGiven = !options.hiddenActFn.empty();
  if (layers.empty()) {
    if (!isGiven) return;
    report({"Warning: ", options.optionWords, " changes nothing: ", wordsFor(file, options),
            " records the activation of every hidden layer"});
    return;
  }
  const std::string name = isGiven ? options.hiddenActFn : file.model.getProp(kHiddenActFnProperty);
  ActFn::ActFn actFn;
  if (ActFn::stringToActFn(name, actFn) != 0) {
    warnOfLinearLayers(file, layers.size(), options);
    return;
  }
  for (NNLayer* layer : layers) layer->actFn = actFn;
  report({"info: activation of ", counted(layers.size(), "hidden layer"), " set to ", name, " (",
          isGiven ? "" : "property ", isGiven ? options.optionWords : kHiddenActFnProperty, ")"});
}

}  // namespace mlnn
