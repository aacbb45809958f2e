// The pass over whole numbers: from the model that an image gives, from the image where it lies,
// and another of each; all give the bits that a pass written down one value at a time gives.
#include <memory>

#include "fuzz/ModelChecks.h"
#include "fuzz/SameValues.h"
#include "fuzz/Support.h"
#include "inference/ImageFwdPass.h"
#include "inference/IntegerFwdPass.h"
#include "model/RowQuantization.h"
#include "tests/support/PlainIntegerPass.h"

namespace {

using mlnn::ImageFwdPass;
using mlnn::IntegerFwdPass;
using mlnn::WideInputs;
using mlnn::fuzz::require;
using mlnn::fuzz::sameValues;

Eigen::MatrixXf someInputs(int rows, const uint8_t* data, std::size_t size) {
  mlnn::fuzz::Bytes bytes(data + size - size % 97, size % 97);
  Eigen::MatrixXf inputs(rows, 1 + bytes.below(3));
  for (Eigen::Index i = 0; i < inputs.size(); ++i) inputs.data()[i] = bytes.value();
  return inputs;
}

void requireOutputs(IntegerFwdPass* pass, const Eigen::MatrixXf& inputs,
                    const Eigen::MatrixXf& wanted, const char* what) {
  require(pass != nullptr, "makes no pass from what it made one from");
  Eigen::MatrixXf outputs;
  require(pass->evaluate(inputs, outputs) == 0, "a pass does not evaluate");
  require(sameValues(outputs, wanted), what);
}

void tryPasses(const MultiLayerNNModel& model, const std::string& image,
               const Eigen::MatrixXf& inputs, WideInputs wide) {
  const std::unique_ptr<IntegerFwdPass> pass = IntegerFwdPass::create(model, wide);
  if (pass == nullptr) return;
  const Eigen::MatrixXf wanted = mlnn::test::plainIntegerPass(model, inputs, wide);
  requireOutputs(pass.get(), inputs, wanted, "other bits than the plain pass");
  requireOutputs(pass->another().get(), inputs, wanted, "another pass gives other bits");
  ImageFwdPass opened;
  require(opened.open(image.data(), image.size()) == 0, "the image does not open");
  opened.setSoftmax(model.useSoftmax);
  requireOutputs(IntegerFwdPass::create(opened, wide).get(), inputs, wanted,
                 "other bits from the image");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const mlnn::fuzz::Diagnostics diagnostics;
  const std::string image(reinterpret_cast<const char*>(data), size);
  MultiLayerNNModel model;
  const int length = static_cast<int>(size);
  if (model.deserializeBinary(image.data(), static_cast<unsigned>(size)) != length) return 0;
  if (model.numInputs() > 1024 || model.numOutputs() > 1024 || model.numOutputs() == 0) return 0;
  const auto wide = static_cast<WideInputs>(size % 3);
  const Eigen::MatrixXf inputs = someInputs(model.numInputs(), data, size);
  tryPasses(model, image, inputs, wide);
  if (mlnn::quantizeRows(model, {size % 2 == 0 ? 8 : 4}) != 0) return 0;
  tryPasses(model, mlnn::fuzz::imageOf(model), inputs, wide);
  return 0;
}
