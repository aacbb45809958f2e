// The outputs of tests/golden/integers.csv, which are made without the library: every processor
// gives them to the bit.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "inference/DevicePass.h"
#include "inference/IntegerFwdPass.h"
#include "inference/IntegerLayers.h"
#include "inference/IntegerStackPass.h"
#include "layers/ActFn.h"
#include "layers/Messages.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/ByteImage.h"
#include "tests/support/GoldenModel.h"
#include "tests/support/SourceTree.h"

namespace {

using Eigen::Index;
using Eigen::MatrixXf;
using mlnn::WideInputs;
using mlnn::test::goldenInputs;
using mlnn::test::goldenModel;
using mlnn::test::kGoldenFrames;
using mlnn::test::kGoldenInputs;
using mlnn::test::kGoldenWidest;

std::string lineOf(const std::string& actFn, const char* wideInputs, Index frame,
                   const Eigen::VectorXf& outputs) {
  std::string line = actFn + "," + wideInputs + "," + std::to_string(frame) + ",";
  for (Index i = 0; i < outputs.size(); ++i) {
    uint32_t bits;
    std::memcpy(&bits, &outputs[i], sizeof bits);
    char text[16];
    std::snprintf(text, sizeof text, "%s%08x", i == 0 ? "" : " ", bits);
    line += text;
  }
  return line + "\n";
}

// The file as it comes out of what gives the outputs of a model for the inputs.
template <typename Evaluate>
std::string goldenTextBy(Evaluate evaluate) {
  const std::pair<const char*, WideInputs> wide[] = {
      {"none", WideInputs::kNone}, {"first", WideInputs::kFirst}, {"all", WideInputs::kAll}};
  std::string text = "act_fn,wide_inputs,frame,outputs\n";
  for (int fn = 0; fn < ActFn::kCount; ++fn) {
    const auto actFn = static_cast<ActFn::ActFn>(fn);
    for (const auto& [name, wideInputs] : wide) {
      const MatrixXf outputs = evaluate(goldenModel(actFn), wideInputs);
      for (Index f = 0; f < kGoldenFrames; ++f) {
        text += lineOf(ActFn::actFnToString(actFn), name, f, outputs.col(f));
      }
    }
  }
  return text;
}

// As these kernels write it.
std::string goldenText(const mlnn::IntegerKernels& kernels) {
  return goldenTextBy([&kernels](const MultiLayerNNModel& model, WideInputs wideInputs) {
    const mlnn::IntegerLayers layers(model, wideInputs);
    mlnn::IntegerMemory memory;
    MatrixXf outputs;
    mlnn::evaluateIntegers(layers, kernels, goldenInputs(), outputs, memory);
    return outputs;
  });
}

// As a device without a heap computes it, from images.
MatrixXf deviceOutputs(MultiLayerNNModel model, WideInputs wideInputs) {
  model.featureDesc.winSizeLeft = model.featureDesc.winSizeRight = 0;
  model.deltasNorm.allocIfNeeded();
  const mlnn::test::ByteImage image = mlnn::test::ByteImage::of(model);
  alignas(
      mlnn::kDeviceAlignment) char memory[mlnn::deviceMemoryBytes(kGoldenInputs, kGoldenWidest)];
  auto pass = mlnn::DevicePass::inIntegers(wideInputs);
  const mlnn::CollectedMessages silence;
  EXPECT_EQ(pass.open(image.bytes().data(), image.size(), memory, sizeof memory), 0);
  const MatrixXf inputs = goldenInputs();
  MatrixXf outputs(pass.numOutputs(), kGoldenFrames);
  for (Index f = 0; f < kGoldenFrames; ++f) {
    const float* const found = pass.evaluate(inputs.col(f).data());
    outputs.col(f) = Eigen::Map<const Eigen::VectorXf>(found, outputs.rows());
  }
  return outputs;
}

std::string goldenFile() {
  std::ifstream file(mlnn::test::sourcePath("tests/golden/integers.csv"));
  std::stringstream text;
  text << file.rdbuf();
  EXPECT_GT(text.str().size(), 20000u);
  return text.str();
}

TEST(IntegerGolden, aDeviceGivesTheOutputsOfTheFile) {
  EXPECT_EQ(goldenTextBy(deviceOutputs), goldenFile());
}

TEST(IntegerGolden, everyInstructionSetGivesTheOutputsOfTheFile) {
  const std::string expected = goldenFile();
  for (const mlnn::DotKernels* dots : mlnn::runnableDots()) {
    for (const mlnn::UnfusedKernels* unfused : mlnn::runnableUnfusedKernels()) {
      EXPECT_EQ(goldenText({*dots, *unfused}), expected) << dots->name << unfused->name;
    }
  }
}

TEST(IntegerGolden, modelHasIntegersOfBothWidthsAndALayerOfFloats) {
  const mlnn::IntegerLayers layers(goldenModel(ActFn::sigmoid), WideInputs::kNone);
  EXPECT_EQ(layers.layer(0).codes.bits, 8u);
  EXPECT_EQ(layers.layer(1).codes.bits, 4u);
  EXPECT_EQ(layers.layer(2).codes.codes, nullptr);
  EXPECT_EQ(layers.layer(3).codes.bits, 8u);
}

}  // namespace
