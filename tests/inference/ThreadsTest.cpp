#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "inference/CodedFwdPass.h"
#include "inference/ImageFwdPass.h"
#include "inference/IntegerFwdPass.h"
#include "inference/Threads.h"
#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using Eigen::MatrixXf;
using mlnn::Threads;
using mlnn::test::sameBits;
using mlnn::test::someValues;

constexpr int kInputs = 40;

// Few weights: threads take some of the frames.
MultiLayerNNModel smallModel() {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(kInputs, 170),
                                                 mlnn::test::batchNormLayer(170, 133, 2),
                                                 mlnn::test::plainLayer(133, 9, 3)});
  model.deltasNorm = mlnn::test::imageModel().deltasNorm;
  model.useSoftmax = true;
  return model;
}

// More weights than the second-level cache holds: of few frames, threads take some of the outputs.
MultiLayerNNModel largeModel() {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(kInputs, 1030),
                                                 mlnn::test::batchNormLayer(1030, 707, 2),
                                                 mlnn::test::plainLayer(707, 9, 3)});
  model.deltasNorm = mlnn::test::imageModel().deltasNorm;
  model.layers[1]->actFn = ActFn::tanh;
  return model;
}

std::string imageOf(const MultiLayerNNModel& model, std::size_t offset) {
  std::string image(offset + static_cast<std::size_t>(model.binarySerializedLength()), '\0');
  model.serializeBinary(image.data() + offset);
  return image;
}

// A forward pass of each kind over one model, with what it needs.
struct AnyPass {
  std::string name;
  std::unique_ptr<FwdPass> pass;
  std::string image;
};

AnyPass imagePass(const std::string& name, const MultiLayerNNModel& model, std::size_t offset) {
  AnyPass any{name, nullptr, imageOf(model, offset)};
  auto pass = std::make_unique<mlnn::ImageFwdPass>();
  const mlnn::test::CaptureStderr captured;
  EXPECT_EQ(pass->open(any.image.data() + offset, any.image.size() - offset), 0);
  any.pass = std::move(pass);
  return any;
}

void forEachPass(const MultiLayerNNModel& model, const std::function<void(AnyPass)>& use) {
  use({"model", std::make_unique<NNFwdPassFromFile>(model), ""});
  use(imagePass("image", model, 0));
  use(imagePass("image at an odd address", model, 1));
  use({"8 bits", mlnn::CodedFwdPass::create(model, 8, mlnn::CodesFor::kMemory), ""});
  use({"4 bits", mlnn::CodedFwdPass::create(model, 4, mlnn::CodesFor::kMemory), ""});
  MultiLayerNNModel quantised = model;
  ASSERT_EQ(mlnn::quantizeRows(quantised, mlnn::RowQuantization()), 0);
  use({"quantised model", std::make_unique<NNFwdPassFromFile>(quantised), ""});
  use(imagePass("quantised image", quantised, 0));
  use({"integers", mlnn::IntegerFwdPass::create(quantised), ""});
  use({"wide integers", mlnn::IntegerFwdPass::create(quantised, mlnn::WideInputs::kAll), ""});
  use({"floats among integers", mlnn::IntegerFwdPass::create(model), ""});
}

// The pass gives with any number of threads what it gives with one.
void expectSameBits(FwdPass& pass, Eigen::Index frames, int threads) {
  SCOPED_TRACE(testing::Message() << frames << " frames, " << threads << " threads");
  const MatrixXf inputs = someValues(kInputs, frames, 7);
  MatrixXf alone;
  pass.setThreads(nullptr);
  ASSERT_EQ(pass.evaluate(inputs, alone), 0);
  pass.setThreads(Threads::start(threads));
  MatrixXf together;
  ASSERT_EQ(pass.evaluate(inputs, together), 0);
  ASSERT_TRUE(sameBits(together, alone));
  MatrixXf apart = MatrixXf::Constant(alone.rows() + 3, frames, 5.0f);
  ASSERT_EQ(
      pass.evaluate(mlnn::InputFrames(inputs), mlnn::OutputFrames(apart.topRows(alone.rows()))), 0);
  ASSERT_TRUE(sameBits(apart.topRows(alone.rows()), alone));
  ASSERT_TRUE((apart.bottomRows(3).array() == 5.0f).all());
}

TEST(FwdPassThreads, giveTheSameBitsOverFrames) {
  const MultiLayerNNModel model = smallModel();
  forEachPass(model, [](const AnyPass& any) {
    SCOPED_TRACE(any.name);
    for (const Eigen::Index frames : {0, 1, 129, 601}) {
      for (const int threads : {2, 3, 8}) {
        ASSERT_NO_FATAL_FAILURE(expectSameBits(*any.pass, frames, threads));
      }
    }
  });
}

TEST(FwdPassThreads, giveTheSameBitsOverOutputs) {
  const MultiLayerNNModel model = largeModel();
  forEachPass(model, [](const AnyPass& any) {
    SCOPED_TRACE(any.name);
    for (const Eigen::Index frames : {1, 7}) {
      for (const int threads : {2, 5}) {
        ASSERT_NO_FATAL_FAILURE(expectSameBits(*any.pass, frames, threads));
      }
    }
  });
}

TEST(FwdPassThreads, serveEveryNumberOfThemFromOneToEight) {
  const MultiLayerNNModel small = smallModel();
  const MultiLayerNNModel large = largeModel();
  NNFwdPassFromFile smallPass(small);
  NNFwdPassFromFile largePass(large);
  for (int threads = 1; threads <= 8; ++threads) {
    ASSERT_NO_FATAL_FAILURE(expectSameBits(smallPass, 77, threads));
    ASSERT_NO_FATAL_FAILURE(expectSameBits(smallPass, threads - 1, threads));
    ASSERT_NO_FATAL_FAILURE(expectSameBits(largePass, 1, threads));
  }
}

TEST(FwdPassThreads, mayHaveInputsAmongTheOutputsAndInRows) {
  MultiLayerNNModel model = smallModel();
  NNFwdPassFromFile pass(model);
  const Eigen::Index frames = 301;
  const MatrixXf inputs = someValues(kInputs, frames, 7);
  MatrixXf expected;
  ASSERT_EQ(pass.evaluate(inputs, expected), 0);
  pass.setThreads(Threads::start(3));
  const Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor> inRows = inputs;
  MatrixXf found;
  ASSERT_EQ(pass.evaluate(inRows, found), 0);
  EXPECT_TRUE(sameBits(found, expected));
  MatrixXf both = inputs;
  ASSERT_EQ(pass.evaluate(both, mlnn::OutputFrames(both.topRows(9))), 0);
  EXPECT_TRUE(sameBits(both.topRows(9), expected));
  EXPECT_TRUE(sameBits(both.bottomRows(kInputs - 9), inputs.bottomRows(kInputs - 9)));
}

TEST(FwdPassThreads, serveSeveralPassesAtOnce) {
  const MultiLayerNNModel model = smallModel();
  const MatrixXf inputs = someValues(kInputs, 203, 7);
  MatrixXf alone;
  ASSERT_EQ(NNFwdPassFromFile(model).evaluate(inputs, alone), 0);
  const std::shared_ptr<Threads> shared = Threads::start(3);
  std::vector<MatrixXf> outputs(4);
  std::vector<std::thread> callers;
  for (MatrixXf& output : outputs) {
    callers.emplace_back([&] {
      NNFwdPassFromFile pass(model);
      pass.setThreads(shared);
      for (int round = 0; round < 20; ++round) pass.evaluate(inputs, output);
    });
  }
  for (std::thread& caller : callers) caller.join();
  for (const MatrixXf& output : outputs) EXPECT_TRUE(sameBits(output, alone));
}

TEST(Threads, areAtLeastOneAndAtMostTheLimit) {
  EXPECT_EQ(Threads::start(-3)->count(), 1);
  EXPECT_EQ(Threads::start(0)->count(), 1);
  EXPECT_EQ(Threads::start(1)->count(), 1);
  EXPECT_EQ(Threads::start(4)->count(), 4);
  EXPECT_LE(Threads::start(Threads::kMost + 1)->count(), Threads::kMost);
  EXPECT_GE(Threads::processors(), 1);
}

// What a child process found: it exits with 0 where `holds` gives true.
bool holdsInChild(const std::function<bool()>& holds) {
  const pid_t child = fork();
  if (child == 0) _exit(holds() ? 0 : 1);
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(Threads, areNotInAForkedChild) {
  const MultiLayerNNModel model = smallModel();
  auto pass = std::make_unique<NNFwdPassFromFile>(model);
  pass->setThreads(Threads::start(3));
  const MatrixXf inputs = someValues(kInputs, 300, 7);
  MatrixXf expected;
  ASSERT_EQ(pass->evaluate(inputs, expected), 0);
  EXPECT_TRUE(holdsInChild([&] {
    MatrixXf outputs;
    const bool isDone = pass->evaluate(inputs, outputs) == 0;
    pass.reset();
    return isDone && sameBits(outputs, expected);
  }));
  MatrixXf outputs;
  EXPECT_EQ(pass->evaluate(inputs, outputs), 0);
  EXPECT_TRUE(sameBits(outputs, expected));
}

std::size_t threadsOfProcess() {
  std::size_t threads = 0;
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "Threads:") status >> threads;
  }
  return threads;
}

// Whether there are so many. The system takes a moment to forget a thread that has ended.
bool areThreadsOfProcess(std::size_t expected) {
  for (int look = 0; look < 10000 && threadsOfProcess() != expected; ++look) usleep(1000);
  return threadsOfProcess() == expected;
}

TEST(Threads, endWithTheirLastOwner) {
  const std::size_t before = threadsOfProcess();
  if (before == 0) GTEST_SKIP() << "the system does not count threads";
  const MultiLayerNNModel model = smallModel();
  auto pass = std::make_unique<NNFwdPassFromFile>(model);
  pass->setThreads(Threads::start(5));
  EXPECT_TRUE(areThreadsOfProcess(before + 4));
  auto copy = std::make_unique<NNFwdPassFromFile>(*pass);
  pass.reset();
  EXPECT_TRUE(areThreadsOfProcess(before + 4));
  copy->setThreads(Threads::start(2));
  EXPECT_TRUE(areThreadsOfProcess(before + 1));
  copy.reset();
  EXPECT_TRUE(areThreadsOfProcess(before));
}

}  // namespace
