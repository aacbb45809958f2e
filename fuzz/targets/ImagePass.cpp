// The forward pass over an image where it lies, against the model that is read from the same
// bytes: both take it or refuse it with the same words, and give the same bits.
#include <cstring>
#include <memory>

#include "fuzz/ModelChecks.h"
#include "fuzz/Support.h"
#include "inference/ImageFwdPass.h"
#include "model/ModelFormat.h"

namespace {

using mlnn::fuzz::require;

Eigen::MatrixXf someInputs(int rows, const uint8_t* data, std::size_t size) {
  mlnn::fuzz::Bytes bytes(data + size - size % 97, size % 97);
  Eigen::MatrixXf inputs(rows, 1 + bytes.below(3));
  for (Eigen::Index i = 0; i < inputs.size(); ++i) inputs.data()[i] = bytes.value();
  return inputs;
}

bool sameBits(const Eigen::MatrixXf& a, const Eigen::MatrixXf& b) {
  if (a.rows() != b.rows() || a.cols() != b.cols()) return false;
  return a.size() == 0 ||
         std::memcmp(a.data(), b.data(), static_cast<std::size_t>(a.size()) * sizeof(float)) == 0;
}

// Evaluates within limits: some rows of codes are unpacked at a time, at most eight bytes for one
// of the image; the outputs of a layer take four bytes a frame for the four of a bias, of which
// there are three matrices at a time for up to three frames.
int evaluate(mlnn::ImageFwdPass& pass, const Eigen::MatrixXf& inputs, std::size_t size,
             Eigen::MatrixXf& outputs) {
  const mlnn::fuzz::Limits limits(size, 24, std::size_t{1} << 20);
  const int status = pass.evaluate(inputs, outputs);
  limits.check();
  return status;
}

int load(const char* bytes, std::size_t size, MultiLayerNNModel& model, std::string& messages) {
  mlnn::fuzz::Diagnostics diagnostics;
  const int consumed = model.deserializeBinary(bytes, static_cast<unsigned int>(size));
  messages = diagnostics.text();
  return consumed == static_cast<int>(size) ? 0 : 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  // A block of its own, and now and then at an odd address.
  const std::size_t shift = size % 5 == 0 ? size % 4 : 0;
  const std::unique_ptr<char[]> block(new char[size + shift]);
  char* const image = block.get() + shift;
  std::memcpy(image, data, size);

  mlnn::ImageFwdPass pass;
  std::string messages;
  int result = -1;
  {
    mlnn::fuzz::Diagnostics diagnostics;
    const mlnn::fuzz::Limits limits = mlnn::fuzz::imageLimits(size);
    result = pass.open(image, size);
    limits.check();
    messages = diagnostics.text();
  }
  MultiLayerNNModel model;
  std::string modelMessages;
  require(load(image, size, model, modelMessages) == result, "decides otherwise than the reader");
  // Of fewer bytes than a head the reader says nothing, and the pass how many there are.
  const bool saysTheSame = size < mlnn::kMinImageLength ? modelMessages.empty() && !messages.empty()
                                                        : messages == modelMessages;
  require(saysTheSame, "says otherwise than the reader");

  mlnn::fuzz::Diagnostics diagnostics;
  if (result != 0) {
    // Whatever the checksum, nothing outside the image may be read.
    const mlnn::fuzz::Limits limits = mlnn::fuzz::imageLimits(size);
    result = pass.open(image, size, mlnn::ImageChecksum::kDeclined);
    limits.check();
    if (result != 0) return 0;
    if (pass.numInputs() > 4096 || pass.numOutputs() > 4096) return 0;
    Eigen::MatrixXf outputs;
    evaluate(pass, someInputs(pass.numInputs(), data, size), size, outputs);
    return 0;
  }
  if (model.numInputs() > 4096) return 0;
  const Eigen::MatrixXf inputs = someInputs(model.numInputs(), data, size);
  Eigen::MatrixXf outputs;
  Eigen::MatrixXf wanted;
  NNFwdPassFromFile plain(model);
  pass.setSoftmax(model.useSoftmax);
  require(pass.numInputs() == model.numInputs() && pass.numOutputs() == model.numOutputs(),
          "sizes");
  const int status = evaluate(pass, inputs, size, outputs);
  require(status == plain.evaluate(inputs, wanted), "the pass decides otherwise than the model's");
  require(status != 0 || sameBits(outputs, wanted), "the pass gives other bits than the model's");
  return 0;
}
