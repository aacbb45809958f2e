// The C interface: what a C program sees of it (from_c.c), and what only C++ can look at.
#include <gtest/gtest.h>
#include <mlnn.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "features/ContextWindow.h"
#include "inference/CodedFwdPass.h"
#include "inference/IntegerFwdPass.h"
#include "model/ModelFile.h"
#include "model/RowQuantization.h"
#include "tests/c/from_c.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"

namespace {

using Eigen::MatrixXf;
using mlnn::test::AllocationWatch;
using mlnn::test::batchNormLayer;
using mlnn::test::FailingAllocation;
using mlnn::test::plainLayer;
using mlnn::test::someValues;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

// Two batch-norm layers whose activation, tanh, a text has in a property alone.
MultiLayerNNModel network() {
  MultiLayerNNModel model =
      mlnn::test::modelOf({batchNormLayer(16, 5), batchNormLayer(5, 5, 2), plainLayer(5, 2, 3)});
  model.layers[0]->actFn = model.layers[1]->actFn = ActFn::tanh;
  model.layers[2]->actFn = ActFn::linear;
  model.useSoftmax = true;
  model.props = {{"hidden_act_fn", "tanh"}, {"labels", "left,right"}};
  model.notes.lines = {
      "nn_tune feat_desc mel_deltas:bands=4,left=1,right=2,deltas=0,line_kernels=0,"
      "line_kernel_width=0"};
  EXPECT_EQ(model.featureDesc.deserialize("mel_deltas:bands=4,left=1,right=2,deltas=0,"
                                          "line_kernels=0,line_kernel_width=0"),
            0);
  model.deltasNorm.allocIfNeeded();
  return model;
}

std::string textOf(const MultiLayerNNModel& model) {
  std::ostringstream out;
  out.precision(9);
  model.serializeAscii(out);
  return out.str();
}

MatrixXf evaluated(const MultiLayerNNModel& model, const MatrixXf& inputs) {
  MatrixXf outputs;
  EXPECT_EQ(NNFwdPassFromFile(model).evaluate(inputs, outputs), 0);
  return outputs;
}

class CInterface : public testing::Test {
 protected:
  CInterface()
      : model_(network()),
        text_(textOf(model_)),
        image_(mlnn::test::ByteImage::of(model_).bytes()),
        textPath_(folder_.write("text", text_)),
        imagePath_(folder_.write("image", image_)),
        imageWords_((image_.size() + 3) / 4),
        inputs_(someValues(16, 50, 5)),
        expected_(evaluated(model_, inputs_)),
        frames_(someValues(4, 20, 6)) {
    std::memcpy(imageWords_.data(), image_.data(), image_.size());
    std::string whyNot;
    MatrixXf stacked;
    mlnn::ContextWindow::create(model_.featureDesc, model_.deltasNorm, 4, whyNot)
        ->stack(frames_, stacked);
    expectedStream_ = evaluated(model_, stacked);
  }

  from_c given() const {
    from_c values;
    values.text_path = textPath_.c_str();
    values.image_path = imagePath_.c_str();
    values.text = text_.data();
    values.text_length = text_.size();
    values.image = imageWords_.data();
    values.image_length = image_.size();
    values.inputs = inputs_.data();
    values.input_width = 16;
    values.count = 50;
    values.expected = expected_.data();
    values.output_width = 2;
    values.frames = frames_.data();
    values.frame_width = 4;
    values.frame_count = 20;
    values.expected_stream = expectedStream_.data();
    values.delay = 2;
    return values;
  }

  // Runs what was written in C.
  void expectHolds(const char* (*check)(const from_c*)) const {
    const from_c values = given();
    const char* wrong = nullptr;
    stderrOf([&] { wrong = check(&values); });
    EXPECT_EQ(wrong == nullptr ? std::string() : std::string(wrong), "");
  }

  mlnn_model opened() const {
    mlnn_model model = {0};
    stderrOf([&] { EXPECT_EQ(mlnn_model_open(textPath_.c_str(), nullptr, &model), MLNN_OK); });
    return model;
  }

  // What a pass over the model makes of the inputs.
  MatrixXf run(mlnn_model model) const {
    mlnn_pass pass;
    MatrixXf outputs(2, 50);
    EXPECT_EQ(mlnn_pass_create(model, &pass), MLNN_OK);
    EXPECT_EQ(mlnn_pass_run(pass, 50, inputs_.data(), 16, 16, outputs.data(), 2, 2), MLNN_OK);
    EXPECT_EQ(mlnn_pass_close(pass), MLNN_OK);
    return outputs;
  }

  TempFolder folder_;
  MultiLayerNNModel model_;
  std::string text_;
  std::string image_;
  std::string textPath_;
  std::string imagePath_;
  std::vector<uint32_t> imageWords_;  // the image, where floats may lie
  MatrixXf inputs_;
  MatrixXf expected_;
  MatrixXf frames_;
  MatrixXf expectedStream_;
};

TEST_F(CInterface, opensAndRunsModelsFromEverywhere) { expectHolds(from_c_open_and_run); }
TEST_F(CInterface, tellsWhatAModelIs) { expectHolds(from_c_ask); }
TEST_F(CInterface, runsStreams) { expectHolds(from_c_stream); }
TEST_F(CInterface, refusesEveryWrongArgument) { expectHolds(from_c_refusals); }
TEST_F(CInterface, handsOverMessages) { expectHolds(from_c_messages); }

TEST_F(CInterface, refusesModelsThatCannotBeRun) {
  const std::string noLayers = "MultiLayerNNModel\nnum_layers 0\n";
  const std::string noFit =
      "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 2\nlayer 1 size 1 2\nact_fn tanh\n0 1\n"
      "layer 2 size 1 3\nact_fn tanh\n0 1 1\n";
  for (const auto& [text, why] : std::vector<std::pair<std::string, std::string>>{
           {noLayers, "ERROR: NNFwdPassFromFile::evaluate: model has no layers"},
           {noFit, "ERROR: NNFwdPassFromFile::evaluate: layer 2 does not fit the model"}}) {
    stderrOf([&, &text = text, &why = why] {
      mlnn_model model;
      mlnn_pass pass = {5};
      ASSERT_EQ(mlnn_model_open_memory(text.data(), text.size(), nullptr, &model), MLNN_OK);
      EXPECT_EQ(mlnn_pass_create(model, &pass), MLNN_ERROR_MODEL);
      EXPECT_EQ(mlnn_last_error(), why);
      EXPECT_EQ(pass.id, 5u);
      mlnn_stream stream;
      EXPECT_NE(mlnn_stream_create(model, 0, &stream), MLNN_OK);
      EXPECT_EQ(mlnn_model_close(model), MLNN_OK);
    });
  }
}

// Whatever the model was opened from, and after it was closed: the bits of the C++ passes.
TEST_F(CInterface, modelsOfCodesAndIntegersGiveTheBitsOfTheirPasses) {
  ASSERT_EQ(mlnn::quantizeRows(model_, {}), 0);
  text_ = textOf(model_);
  image_ = mlnn::test::ByteImage::of(model_).bytes();
  imageWords_.assign((image_.size() + 3) / 4, 0);
  std::memcpy(imageWords_.data(), image_.data(), image_.size());
  imagePath_ = folder_.write("quantised", image_);
  const std::vector<std::function<mlnn_status(mlnn_model*)>> waysToOpen = {
      [&](mlnn_model* m) { return mlnn_model_open_memory(text_.data(), text_.size(), nullptr, m); },
      [&](mlnn_model* m) { return mlnn_model_open(imagePath_.c_str(), nullptr, m); },
      [&](mlnn_model* m) { return mlnn_model_open_image(imageWords_.data(), image_.size(), m); },
      [&](mlnn_model* m) { return mlnn_model_map_image(imagePath_.c_str(), m); }};
  const auto outputsOf = [&](FwdPass& pass) {
    MatrixXf outputs;
    EXPECT_EQ(pass.evaluate(inputs_, outputs), 0);
    return outputs;
  };
  const MatrixXf coded = outputsOf(*mlnn::CodedFwdPass::create(model_, 5, mlnn::CodesFor::kMemory));
  const MatrixXf integer =
      outputsOf(*mlnn::IntegerFwdPass::create(model_, mlnn::WideInputs::kFirst));
  EXPECT_FALSE(mlnn::test::sameBits(coded, integer));
  for (const auto& open : waysToOpen) {
    stderrOf([&] {
      mlnn_model model, codes, integers;
      ASSERT_EQ(open(&model), MLNN_OK);
      ASSERT_EQ(mlnn_model_to_codes(model, 5, MLNN_CODES_FOR_MEMORY, &codes), MLNN_OK);
      ASSERT_EQ(mlnn_model_to_integers(model, MLNN_WIDE_INPUTS_FIRST, &integers), MLNN_OK);
      EXPECT_EQ(mlnn_model_close(model), MLNN_OK);
      EXPECT_TRUE(mlnn::test::sameBits(run(codes), coded));
      EXPECT_TRUE(mlnn::test::sameBits(run(integers), integer));
      for (const mlnn_model converted : {codes, integers}) {
        size_t layers = 0;
        EXPECT_EQ(mlnn_model_layers(converted, &layers), MLNN_OK);
        EXPECT_EQ(layers, 3u);
        mlnn_model again = {7};
        EXPECT_EQ(mlnn_model_to_codes(converted, 5, 0, &again), MLNN_ERROR_MODEL);
        EXPECT_EQ(mlnn_model_to_integers(converted, 0, &again), MLNN_ERROR_MODEL);
        EXPECT_STREQ(
            mlnn_last_error(),
            "ERROR: the model was converted already: convert the one that it was made from");
        EXPECT_EQ(again.id, 7u);
        EXPECT_EQ(mlnn_model_close(converted), MLNN_OK);
      }
    });
  }
}

TEST_F(CInterface, passesOverAModelOfCodesShareThem) {
  MultiLayerNNModel large = mlnn::test::modelOf({plainLayer(2000, 1000)});
  large.deltasNorm.allocIfNeeded();
  const std::string image = mlnn::test::ByteImage::of(large).bytes();
  stderrOf([&] {
    mlnn_model model, codes;
    ASSERT_EQ(mlnn_model_open_memory(image.data(), image.size(), nullptr, &model), MLNN_OK);
    ASSERT_EQ(mlnn_model_to_codes(model, 8, MLNN_CODES_FOR_SPEED, &codes), MLNN_OK);
    ASSERT_EQ(mlnn_model_close(model), MLNN_OK);
    const AllocationWatch watch;
    mlnn_pass passes[8];
    for (mlnn_pass& pass : passes) EXPECT_EQ(mlnn_pass_create(codes, &pass), MLNN_OK);
    EXPECT_LT(watch.total(), 2000u * 1000u / 2);  // the codes take 2,000,000 once
    for (const mlnn_pass pass : passes) EXPECT_EQ(mlnn_pass_close(pass), MLNN_OK);
    EXPECT_EQ(mlnn_model_close(codes), MLNN_OK);
  });
}

TEST_F(CInterface, modelsThatCannotBeRunAreNotConverted) {
  const std::string text = "MultiLayerNNModel\nnum_layers 0\n";
  stderrOf([&] {
    mlnn_model model, other = {7};
    ASSERT_EQ(mlnn_model_open_memory(text.data(), text.size(), nullptr, &model), MLNN_OK);
    EXPECT_EQ(mlnn_model_to_codes(model, 8, MLNN_CODES_FOR_SPEED, &other), MLNN_ERROR_MODEL);
    EXPECT_STREQ(mlnn_last_error(), "ERROR: CodedFwdPass::create: model has no layers");
    EXPECT_EQ(mlnn_model_to_integers(model, MLNN_WIDE_INPUTS_NONE, &other), MLNN_ERROR_MODEL);
    EXPECT_STREQ(mlnn_last_error(), "ERROR: IntegerFwdPass::create: model has no layers");
    EXPECT_EQ(other.id, 7u);
    EXPECT_EQ(mlnn_model_close(model), MLNN_OK);
  });
}

TEST_F(CInterface, thePrinterOfProblemsLeavesOutInformation) {
  EXPECT_EQ(mlnn_set_message_function(&mlnn_print_problems, nullptr), MLNN_OK);
  EXPECT_EQ(stderrOf([&] {
              mlnn_model model;
              EXPECT_EQ(mlnn_model_open(textPath_.c_str(), nullptr, &model), MLNN_OK);
              EXPECT_EQ(mlnn_model_close(model), MLNN_OK);
              EXPECT_EQ(mlnn_model_close(model), MLNN_ERROR_HANDLE);
              mlnn_print_problems(MLNN_SEVERITY_WARNING, "Warning: own", nullptr);
              mlnn_print_problems(MLNN_SEVERITY_WARNING, nullptr, nullptr);
            }),
            "ERROR: mlnn_model_close: the handle is closed, or is not one\nWarning: own\n");
  EXPECT_EQ(mlnn_set_message_function(nullptr, nullptr), MLNN_OK);
}

TEST_F(CInterface, anImageIsRunWithoutACopy) {
  MultiLayerNNModel large = mlnn::test::modelOf({plainLayer(700, 700)});
  large.deltasNorm.allocIfNeeded();
  const std::string image = mlnn::test::ByteImage::of(large).bytes();
  std::vector<uint32_t> words((image.size() + 3) / 4);
  std::memcpy(words.data(), image.data(), image.size());
  const std::string path = folder_.write("large", image);
  stderrOf([&] {
    const AllocationWatch watch;
    mlnn_model inPlace, mapped;
    EXPECT_EQ(mlnn_model_open_image(words.data(), image.size(), &inPlace), MLNN_OK);
    EXPECT_EQ(mlnn_model_map_image(path.c_str(), &mapped), MLNN_OK);
    mlnn_pass passes[2];
    EXPECT_EQ(mlnn_pass_create(inPlace, &passes[0]), MLNN_OK);
    EXPECT_EQ(mlnn_pass_create(mapped, &passes[1]), MLNN_OK);
    EXPECT_LT(watch.total(), image.size() / 4);
    mlnn_model_close(inPlace);
    mlnn_model_close(mapped);
    mlnn_pass_close(passes[0]);
    mlnn_pass_close(passes[1]);
  });
}

// Floats of codes, in an image that is run from where it lies and in no other model.
TEST_F(CInterface, preparesTheCodesOfAnImage) {
  MultiLayerNNModel codes = mlnn::test::modelOf({plainLayer(300, 70), plainLayer(70, 40)});
  ASSERT_EQ(mlnn::quantizeRows(codes, {}), 0);
  codes.deltasNorm.allocIfNeeded();
  const std::string image = mlnn::test::ByteImage::of(codes).bytes();
  std::vector<uint32_t> words((image.size() + 3) / 4);
  std::memcpy(words.data(), image.data(), image.size());
  constexpr std::size_t kFirst = 300 * 70 * sizeof(float);
  constexpr std::size_t kSecond = 70 * 40 * sizeof(float);
  mlnn_model read = {0}, inPlace = {0}, integers = {0};
  stderrOf([&] {
    ASSERT_EQ(mlnn_model_open_memory(image.data(), image.size(), nullptr, &read), MLNN_OK);
    ASSERT_EQ(mlnn_model_open_image(words.data(), image.size(), &inPlace), MLNN_OK);
    ASSERT_EQ(mlnn_model_to_integers(inPlace, MLNN_WIDE_INPUTS_NONE, &integers), MLNN_OK);
  });
  const Eigen::VectorXf input = mlnn::test::someValues(300, 1, 5);
  Eigen::VectorXf expected(40), found(40);
  mlnn_pass pass = {0};
  ASSERT_EQ(mlnn_pass_create(inPlace, &pass), MLNN_OK);
  EXPECT_EQ(mlnn_pass_run(pass, 1, input.data(), 300, 300, expected.data(), 40, 40), MLNN_OK);
  std::size_t bytes = 1;
  EXPECT_EQ(mlnn_pass_prepare(pass, kSecond - 1, &bytes), MLNN_OK);
  EXPECT_EQ(bytes, 0u);
  EXPECT_EQ(mlnn_pass_prepare(pass, kFirst - 1, &bytes), MLNN_OK);
  EXPECT_EQ(bytes, kSecond);
  EXPECT_EQ(mlnn_pass_prepare(pass, SIZE_MAX, &bytes), MLNN_OK);
  EXPECT_EQ(bytes, kFirst + kSecond);
  EXPECT_EQ(mlnn_pass_run(pass, 1, input.data(), 300, 300, found.data(), 40, 40), MLNN_OK);
  EXPECT_TRUE(mlnn::test::sameBits(found, expected));
  mlnn_pass_close(pass);
  for (const mlnn_model other : {read, integers}) {
    ASSERT_EQ(mlnn_pass_create(other, &pass), MLNN_OK);
    bytes = 1;
    EXPECT_EQ(mlnn_pass_prepare(pass, SIZE_MAX, &bytes), MLNN_OK);
    EXPECT_EQ(bytes, 0u);
    mlnn_pass_close(pass);
  }
  for (const mlnn_model model : {read, inPlace, integers}) mlnn_model_close(model);
}

TEST_F(CInterface, allocatesNothingForAFrame) {
  const mlnn_model model = opened();
  mlnn_pass pass;
  mlnn_stream stream;
  ASSERT_EQ(mlnn_pass_create(model, &pass), MLNN_OK);
  ASSERT_EQ(mlnn_stream_create(model, 0, &stream), MLNN_OK);
  std::vector<float> outputs(2 * 50);
  const auto run = [&](std::size_t frames) {
    EXPECT_EQ(mlnn_pass_run(pass, frames, inputs_.data(), 16, 16, outputs.data(), 2, 2), MLNN_OK);
  };
  const AllocationWatch streamWatch;
  int has = 0;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(mlnn_stream_push(stream, frames_.col(i).data(), 4, outputs.data(), 2, &has),
                MLNN_OK);
    }
    do {
      EXPECT_EQ(mlnn_stream_finish(stream, outputs.data(), 2, &has), MLNN_OK);
    } while (has != 0);
  }
  EXPECT_EQ(streamWatch.allocations(), 0u);
  run(50);
  const AllocationWatch passWatch;
  for (const int frames : {50, 1, 7, 49, 50}) run(static_cast<std::size_t>(frames));
  EXPECT_EQ(passWatch.allocations(), 0u);
  mlnn_stream_close(stream);
  mlnn_pass_close(pass);
  mlnn_model_close(model);
}

TEST_F(CInterface, aPassRunsWithAnyNumberOfThreads) {
  MultiLayerNNModel network =
      mlnn::test::modelOf({mlnn::test::plainLayer(16, 300), mlnn::test::plainLayer(300, 200, 2)});
  network.deltasNorm.allocIfNeeded();
  const std::string image = mlnn::test::ByteImage::of(network).bytes();
  mlnn_model model;
  mlnn_pass pass;
  ASSERT_EQ(mlnn_model_open_image(image.data(), image.size(), &model), MLNN_OK);
  ASSERT_EQ(mlnn_pass_create(model, &pass), MLNN_OK);
  std::vector<float> alone(200 * 50);
  ASSERT_EQ(mlnn_pass_run(pass, 50, inputs_.data(), 16, 16, alone.data(), 200, 200), MLNN_OK);
  for (const int32_t threads : {1, 2, 3, 8, 1}) {
    ASSERT_EQ(mlnn_pass_set_threads(pass, threads), MLNN_OK);
    std::vector<float> outputs(200 * 50);
    ASSERT_EQ(mlnn_pass_run(pass, 50, inputs_.data(), 16, 16, outputs.data(), 200, 200), MLNN_OK);
    EXPECT_EQ(outputs, alone);
  }
  const mlnn::test::CaptureStderr captured;
  for (const int32_t threads : {0, -1, MLNN_MOST_THREADS + 1}) {
    EXPECT_EQ(mlnn_pass_set_threads(pass, threads), MLNN_ERROR_ARGUMENT);
    EXPECT_STREQ(mlnn_last_error(), "ERROR: mlnn_pass_set_threads: threads must be 1 to 256");
  }
  EXPECT_EQ(mlnn_pass_close(pass), MLNN_OK);
  EXPECT_EQ(mlnn_pass_set_threads(pass, 2), MLNN_ERROR_HANDLE);
  mlnn_model_close(model);
}

TEST_F(CInterface, leavesNothingBehind) {
  const auto everything = [&] {
    stderrOf([&] {
      const mlnn_model model = opened();
      mlnn_pass pass;
      mlnn_stream stream;
      mlnn_pass_create(model, &pass);
      mlnn_stream_create(model, 0, &stream);
      mlnn_model_close(model);
      mlnn_pass_close(pass);
      mlnn_stream_close(stream);
    });
  };
  everything();  // the tables of handles stay
  const AllocationWatch watch;
  for (int i = 0; i < 20; ++i) everything();
  EXPECT_EQ(watch.live(), 0);
}

TEST_F(CInterface, givesACodeWhereverMemoryRunsOut) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "allocations cannot be made to fail";
  const mlnn_model model = opened();
  std::vector<float> outputs(2 * 50);
  for (std::size_t successes = 0;; ++successes) {
    bool happened = false;
    int codes[] = {MLNN_OK, MLNN_OK, MLNN_OK, MLNN_OK};
    std::string why;
    stderrOf([&] {
      mlnn_pass pass = {0};
      mlnn_stream stream = {0};
      mlnn_model other = {0};
      {
        const FailingAllocation failing(successes, mlnn::test::Failing::kFromThenOn);
        codes[0] = mlnn_pass_create(model, &pass);
        if (codes[0] == MLNN_OK) {
          codes[1] = mlnn_pass_run(pass, 50, inputs_.data(), 16, 16, outputs.data(), 2, 2);
        }
        codes[2] = mlnn_stream_create(model, 0, &stream);
        codes[3] = mlnn_model_open_image(imageWords_.data(), image_.size(), &other);
        happened = failing.happened();
        why = happened ? std::string() : "none";
      }
      why += mlnn_last_error();
      EXPECT_EQ(pass.id == 0, codes[0] != MLNN_OK);
      EXPECT_EQ(stream.id == 0, codes[2] != MLNN_OK);
      EXPECT_EQ(other.id == 0, codes[3] != MLNN_OK);
      if (pass.id != 0) mlnn_pass_close(pass);
      if (stream.id != 0) mlnn_stream_close(stream);
      if (other.id != 0) mlnn_model_close(other);
    });
    if (!happened) break;
    bool isTold = false;
    for (const int code : codes) {
      EXPECT_TRUE(code == MLNN_OK || code == MLNN_ERROR_MEMORY) << successes << ": " << code;
      isTold = isTold || code == MLNN_ERROR_MEMORY;
    }
    EXPECT_TRUE(isTold) << successes;
    EXPECT_NE(why.find(": out of memory"), std::string::npos) << why;
    ASSERT_LT(successes, 500u);
  }
  mlnn_model_close(model);
}

TEST_F(CInterface, oneModelServesManyThreads) {
  const mlnn_model model = opened();
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        mlnn_pass pass;
        std::vector<float> outputs(2 * 50);
        if (mlnn_pass_create(model, &pass) != MLNN_OK) return;
        mlnn_pass_run(pass, 50, inputs_.data(), 16, 16, outputs.data(), 2, 2);
        right += std::memcmp(outputs.data(), expected_.data(), 100 * sizeof(float)) == 0;
        mlnn_pass_close(pass);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, 200);
  mlnn_model_close(model);
}

// More handles than the first blocks of their table have.
TEST_F(CInterface, thousandsOfHandlesAreToldApart) {
  const mlnn_model model = opened();
  std::vector<mlnn_pass> passes(3000);
  for (mlnn_pass& pass : passes) ASSERT_EQ(mlnn_pass_create(model, &pass), MLNN_OK);
  float outputs[2];
  const auto run = [&](mlnn_pass pass) {
    return mlnn_pass_run(pass, 1, inputs_.data(), 16, 16, outputs, 2, 2);
  };
  stderrOf([&] {
    for (std::size_t i = 0; i < passes.size(); i += 2) {
      EXPECT_EQ(mlnn_pass_close(passes[i]), MLNN_OK);
    }
    for (std::size_t i = 0; i < passes.size(); ++i) {
      EXPECT_EQ(run(passes[i]), i % 2 == 0 ? MLNN_ERROR_HANDLE : MLNN_OK);
    }
    for (std::size_t i = 1; i < passes.size(); i += 2) {
      EXPECT_EQ(mlnn_pass_close(passes[i]), MLNN_OK);
    }
  });
  mlnn_model_close(model);
}

}  // namespace
