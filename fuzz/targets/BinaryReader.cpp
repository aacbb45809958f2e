// The reader of binary images: an image that it takes whole is written again byte for byte, and
// what the model held before makes no difference.
#include <string_view>

#include "fuzz/ModelChecks.h"
#include "fuzz/Support.h"
#include "tests/support/ModelDifference.h"

namespace {

using mlnn::fuzz::require;

// A model of some layers, so that reading has to replace them.
void fill(MultiLayerNNModel& model) {
  int sizes[] = {2, 3, 1, 2};
  model = MultiLayerNNModel(sizes, 4);
  model.layers[1]->isBatchNorm = true;
}

// The checksum that an image of these layers has, by an independent sum over their records.
uint32_t plainChecksum(const MultiLayerNNModel& model) {
  auto sum = static_cast<uint32_t>(model.layers.size());
  for (const NNLayer* layer : model.layers) {
    std::string record(static_cast<std::size_t>(layer->binarySerializedLength()), '\0');
    layer->serializeBinary(record.data());
    sum += mlnn::fuzz::crc32c(reinterpret_cast<const uint8_t*>(record.data()), record.size());
  }
  return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view image(reinterpret_cast<const char*>(data), size);
  MultiLayerNNModel model;
  const int result = mlnn::fuzz::readImage(image, model);
  require(result == -1 || (result >= 1004 && static_cast<std::size_t>(result) <= size),
          "the result is neither -1 nor a length");
  if (result == -1) return 0;

  require(model.checksum() == plainChecksum(model), "the checksum differs from the plain one");
  mlnn::fuzz::requireImageRoundTrip(model, image.substr(0, static_cast<std::size_t>(result)));
  MultiLayerNNModel filled;
  fill(filled);
  if (mlnn::fuzz::readImage(image, filled) == result) {
    mlnn::fuzz::requireNone(mlnn::test::firstDifference(model, filled),
                            "a model that held layers reads otherwise");
  } else {
    require(mlnn::fuzz::imageOf(model).size() > static_cast<std::size_t>(result),
            "a model that held layers refuses a whole image");
  }
  return 0;
}
