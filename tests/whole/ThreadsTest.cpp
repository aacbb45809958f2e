// Several forward passes over one model at once, and several models written and read at once.
// scripts/check-all threads builds it with ThreadSanitizer, which looks for data that two threads
// touch; by itself it shows that all threads get the same results.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "features/ContextWindow.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/TestModels.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 20;

// Runs the action in several threads, each with its number.
template <typename Action>
void inThreads(Action action) {
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back([action, i] { action(i); });
  for (std::thread& thread : threads) thread.join();
}

MultiLayerNNModel wideModel() {
  MultiLayerNNModel model =
      mlnn::test::modelOf({mlnn::test::plainLayer(40, 70), mlnn::test::batchNormLayer(70, 33, 2),
                           mlnn::test::plainLayer(33, 9, 3)});
  model.layers[1]->actFn = ActFn::silu;
  return model;
}

TEST(Threads, forwardPassesOverOneModelDoNotMeet) {
  MultiLayerNNModel model = wideModel();
  const Eigen::MatrixXf inputs = mlnn::test::someValues(40, 11, 5);
  Eigen::MatrixXf alone;
  ASSERT_EQ(NNFwdPassFromFile(model).evaluate(inputs, alone), 0);
  std::vector<Eigen::MatrixXf> outputs(kThreads);
  inThreads([&](int thread) {
    const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
    for (int round = 0; round < kRounds; ++round) {
      pass->evaluate(inputs.leftCols(1 + (round + thread) % 11), outputs[std::size_t(thread)]);
    }
    pass->evaluate(inputs, outputs[std::size_t(thread)]);
  });
  for (const Eigen::MatrixXf& output : outputs) {
    EXPECT_TRUE(mlnn::test::sameBits(output, alone));
  }
}

TEST(Threads, oneModelIsWrittenAndDescribedFromSeveralThreads) {
  const MultiLayerNNModel model = wideModel();
  std::vector<std::string> texts(kThreads);
  inThreads([&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      std::ostringstream out;
      model.serializeAscii(out);
      std::string image(static_cast<std::size_t>(model.binarySerializedLength()), '\0');
      model.serializeBinary(image.data());
      texts[std::size_t(thread)] =
          out.str() + image + model.description() + std::to_string(model.checksum());
    }
  });
  for (const std::string& text : texts) EXPECT_EQ(text, texts[0]);
}

TEST(Threads, modelsOfTheirOwnAreReadAtOnce) {
  std::ostringstream out;
  out.precision(9);
  wideModel().serializeAscii(out);
  const std::string text = out.str();
  MultiLayerNNModel alone;
  std::istringstream once(text);
  ASSERT_EQ(alone.deserializeAscii(once), 0);
  std::vector<uint32_t> checksums(kThreads);
  inThreads([&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      MultiLayerNNModel model;
      std::istringstream in(text);
      if (model.deserializeAscii(in) != 0) return;
      checksums[std::size_t(thread)] = model.checksum();
    }
  });
  for (const uint32_t checksum : checksums) EXPECT_EQ(checksum, alone.checksum());
}

}  // namespace
