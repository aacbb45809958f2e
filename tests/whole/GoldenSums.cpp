// Prints the checksum of everything that all platforms must give alike, a line each, in the order
// of tests/golden/sums.csv, of which the lines are some:
//   file,NAME                    a golden file in both formats, and once more with reduced
//   precision integers,ACT_FN WIDE_INPUTS  the outputs of the integer pass floats
//   fused|unfused,ACT_FN  the outputs of the pass over floats, for each kind of arithmetic that
//   this
//                                processor has; `digits` is the network of examples/digits
// scripts/check-all platforms runs it on every platform and compares.
// Usage: GoldenSums        in the root of the source tree
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "inference/IntegerFwdPass.h"
#include "inference/ModelLayers.h"
#include "inference/NNFwdPassFromFile.h"
#include "inference/kernels/Kernels.h"
#include "layers/Crc32c.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/GoldenModel.h"

namespace {

namespace fs = std::filesystem;
using Eigen::MatrixXf;

class Sums {
 public:
  void add(const std::string& name, const void* bytes, std::size_t count) {
    mlnn::Crc32c sum;
    sum.add(bytes, count);
    char digits[16];
    std::snprintf(digits, sizeof digits, ",%08x", static_cast<unsigned>(sum.value()));
    const std::string line = name + digits;
    if (std::find(lines_.begin(), lines_.end(), line) == lines_.end()) lines_.push_back(line);
  }
  void add(const std::string& name, const MatrixXf& outputs) {
    add(name, outputs.data(), static_cast<std::size_t>(outputs.size()) * sizeof(float));
  }
  void print() const {
    std::printf("what,which,crc32c\n");
    for (const std::string& line : lines_) std::printf("%s\n", line.c_str());
  }

 private:
  std::vector<std::string> lines_;
};

void addFormats(MultiLayerNNModel& model, const std::string& name, Sums& sums) {
  std::ostringstream text;
  text.precision(9);
  model.serializeAscii(text);
  sums.add("file," + name + ".txt", text.str().data(), text.str().size());
  model.deltasNorm.allocIfNeeded();
  std::string image(static_cast<std::size_t>(model.binarySerializedLength()), '\0');
  model.serializeBinary(image.data());
  sums.add("file," + name + ".mlnn", image.data(), image.size());
}

bool addFiles(Sums& sums) {
  std::set<fs::path> paths;
  for (const fs::directory_entry& entry : fs::directory_iterator("tests/golden")) {
    const fs::path ending = entry.path().extension();
    if (ending == ".txt" || ending == ".mlnn") paths.insert(entry.path());
  }
  for (const fs::path& path : paths) {
    MultiLayerNNModel model;
    if (model.deserialize(path.string().c_str()) != 0) return false;
    const std::string name = path.filename().string();
    addFormats(model, name, sums);
    model.convBatchNorm();
    model.retainPrecisionBits(8);
    addFormats(model, name + " reduced", sums);
  }
  return !paths.empty();
}

bool addIntegers(Sums& sums) {
  const std::pair<const char*, mlnn::WideInputs> wide[] = {{"none", mlnn::WideInputs::kNone},
                                                           {"first", mlnn::WideInputs::kFirst},
                                                           {"all", mlnn::WideInputs::kAll}};
  for (int fn = 0; fn < ActFn::kCount; ++fn) {
    const auto actFn = static_cast<ActFn::ActFn>(fn);
    for (const auto& [name, wideInputs] : wide) {
      const auto pass = mlnn::IntegerFwdPass::create(mlnn::test::goldenModel(actFn), wideInputs);
      MatrixXf outputs;
      if (pass == nullptr || pass->evaluate(mlnn::test::goldenInputs(), outputs) != 0) return false;
      sums.add(std::string("integers,") + ActFn::actFnToString(actFn) + " " + name, outputs);
    }
  }
  return true;
}

// The outputs as these kernels compute them.
MatrixXf outputsOf(const MultiLayerNNModel& model, const MatrixXf& inputs,
                   const mlnn::Kernels& kernels) {
  const mlnn::ModelLayers layers(model);
  const auto frames = static_cast<std::size_t>(inputs.cols());
  MatrixXf x = inputs;
  for (std::size_t i = 0; i < layers.count(); ++i) {
    const mlnn::LayerView layer = layers.layer(i);
    MatrixXf y(static_cast<Eigen::Index>(layer.rows), inputs.cols());
    MatrixXf scratch(static_cast<Eigen::Index>(mlnn::scratchFloats(layer.rows, frames)), 1);
    kernels.matrixFrames(layer, x.data(), layer.cols, y.data(), layer.rows, frames, scratch.data());
    x = y;
  }
  for (Eigen::Index f = 0; layers.endsInSoftmax() && f < x.cols(); ++f) {
    kernels.softmax(&x(0, f), static_cast<std::size_t>(x.rows()));
  }
  return x;
}

// What the pass gives, and what all kernels give that run here: those of a kind are alike.
bool addFloatsOf(const MultiLayerNNModel& model, const std::string& name, Sums& sums) {
  const char* const kinds[] = {"floats unfused,", "floats fused,"};
  const MatrixXf inputs = mlnn::test::finiteInputs(model.layers.front()->weights.cols());
  NNFwdPassFromFile pass(model);
  MatrixXf outputs;
  if (pass.evaluate(inputs, outputs) != 0) return false;
  sums.add(kinds[mlnn::bestKernels().fuses] + name, outputs);
  for (const mlnn::Kernels* kernels : mlnn::runnableKernels()) {
    sums.add(kinds[kernels->fuses] + name, outputsOf(model, inputs, *kernels));
  }
  return true;
}

bool addFloats(Sums& sums) {
  for (int fn = 0; fn < ActFn::kCount; ++fn) {
    const auto actFn = static_cast<ActFn::ActFn>(fn);
    if (!addFloatsOf(mlnn::test::goldenModel(actFn), ActFn::actFnToString(actFn), sums))
      return false;
  }
  MultiLayerNNModel digits;
  return digits.deserialize("examples/digits/synth.txt") == 0 &&
         addFloatsOf(digits, "digits", sums);
}

}  // namespace

int main() {
  Sums sums;
  if (!addFiles(sums) || !addIntegers(sums) || !addFloats(sums)) return 1;
  sums.print();
  return 0;
}
