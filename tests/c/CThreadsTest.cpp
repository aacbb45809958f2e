// The C interface from several threads at once. scripts/check-all threads builds it with
// ThreadSanitizer, which looks for data that two threads touch.
#include <gtest/gtest.h>
#include <mlnn.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "c/HandleTable.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::plainLayer;
using mlnn::test::someValues;

constexpr int kThreads = 4;
constexpr int kRounds = 20;

// Runs the action in several threads; counts those for which it returned false.
template <typename Action>
int wrongThreads(Action action) {
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&wrong, action] { wrong += action() ? 0 : 1; });
  }
  for (std::thread& thread : threads) thread.join();
  return wrong;
}

std::string imageOfANetwork() {
  MultiLayerNNModel model = mlnn::test::modelOf({plainLayer(12, 40), plainLayer(40, 3, 2)});
  model.deltasNorm.allocIfNeeded();
  return mlnn::test::ByteImage::of(model).bytes();
}

class CThreads : public testing::Test {
 protected:
  CThreads()
      : image_(imageOfANetwork()),
        path_(folder_.write("image", image_)),
        inputs_(someValues(12, 7, 3)) {
    mlnn_set_message_function(&mlnn_print_problems, nullptr);
    mlnn_model_open(path_.c_str(), nullptr, &model_);
    mlnn_pass pass;
    mlnn_pass_create(model_, &pass);
    mlnn_pass_run(pass, 7, inputs_.data(), 12, 12, expected_, 3, 3);
    mlnn_pass_close(pass);
  }

  ~CThreads() override {
    mlnn_model_close(model_);
    mlnn_set_message_function(nullptr, nullptr);
  }

  // Whether a new pass over the model gives what it should.
  bool runs(mlnn_model model) const {
    mlnn_pass pass;
    float outputs[21] = {};
    return mlnn_pass_create(model, &pass) == MLNN_OK &&
           mlnn_pass_run(pass, 7, inputs_.data(), 12, 12, outputs, 3, 3) == MLNN_OK &&
           mlnn_pass_close(pass) == MLNN_OK && std::memcmp(outputs, expected_, sizeof outputs) == 0;
  }

  // Whether a new stream of frames that are whole inputs gives the same.
  bool streams(mlnn_model model) const {
    mlnn_stream stream;
    if (mlnn_stream_create(model, 12, &stream) != MLNN_OK) return false;
    float outputs[3];
    int has = 0;
    for (int i = 0; i < 7; ++i) {
      if (mlnn_stream_push(stream, inputs_.data() + 12 * i, 12, outputs, 3, &has) != MLNN_OK)
        return false;
    }
    return has == 1 && mlnn_stream_finish(stream, outputs, 3, &has) == MLNN_OK && has == 0 &&
           mlnn_stream_close(stream) == MLNN_OK;
  }

  mlnn::test::TempFolder folder_;
  std::string image_;
  std::string path_;
  Eigen::MatrixXf inputs_;
  mlnn_model model_ = {0};
  float expected_[21] = {};
};

TEST_F(CThreads, shareOneModel) {
  EXPECT_EQ(wrongThreads([this] {
              bool isRight = true;
              for (int i = 0; i < kRounds; ++i)
                isRight = runs(model_) && streams(model_) && isRight;
              return isRight;
            }),
            0);
}

TEST_F(CThreads, shareOneSetOfCodesAndOfIntegers) {
  mlnn_model codes, integers;
  ASSERT_EQ(mlnn_model_to_codes(model_, 8, MLNN_CODES_FOR_MEMORY, &codes), MLNN_OK);
  ASSERT_EQ(mlnn_model_to_integers(model_, MLNN_WIDE_INPUTS_NONE, &integers), MLNN_OK);
  EXPECT_EQ(wrongThreads([&] {
              bool isRight = true;
              for (int i = 0; i < kRounds; ++i)
                isRight = streams(codes) && streams(integers) && isRight;
              return isRight;
            }),
            0);
  mlnn_model_close(codes);
  mlnn_model_close(integers);
}

TEST_F(CThreads, openAndCloseTheirOwn) {
  mlnn::test::stderrOf([&] {
    EXPECT_EQ(wrongThreads([this] {
                for (int i = 0; i < kRounds; ++i) {
                  mlnn_model own;
                  const mlnn_status opened = i % 2 == 0
                                                 ? mlnn_model_open(path_.c_str(), nullptr, &own)
                                                 : mlnn_model_map_image(path_.c_str(), &own);
                  if (opened != MLNN_OK || !runs(own) || mlnn_model_close(own) != MLNN_OK)
                    return false;
                  size_t inputs;
                  if (mlnn_model_inputs(own, &inputs) != MLNN_ERROR_HANDLE) return false;
                }
                return true;
              }),
              0);
  });
}

// Whoever comes too late is told so, and passes that were made before go on.
TEST_F(CThreads, closeAModelThatOthersStartToUse) {
  mlnn::test::stderrOf([&] {
    for (int i = 0; i < kRounds; ++i) {
      mlnn_model shared;
      ASSERT_EQ(mlnn_model_open(path_.c_str(), nullptr, &shared), MLNN_OK);
      std::atomic<int> closed{0};
      EXPECT_EQ(wrongThreads([&, shared] {
                  mlnn_pass pass;
                  float outputs[21];
                  const mlnn_status made = mlnn_pass_create(shared, &pass);
                  closed += mlnn_model_close(shared) == MLNN_OK;
                  if (made != MLNN_OK) return made == MLNN_ERROR_HANDLE;
                  return mlnn_pass_run(pass, 7, inputs_.data(), 12, 12, outputs, 3, 3) == MLNN_OK &&
                         mlnn_pass_close(pass) == MLNN_OK;
                }),
                0);
      EXPECT_EQ(closed, 1);
    }
  });
}

void countErrors(mlnn_severity severity, const char*, void* data) {
  if (severity == MLNN_SEVERITY_ERROR) ++*static_cast<std::atomic<int>*>(data);
}

TEST_F(CThreads, areRefusedEachWithItsOwnText) {
  std::atomic<int> heard{0};
  mlnn_set_message_function(&countErrors, &heard);
  EXPECT_EQ(wrongThreads([this] {
              for (int i = 0; i < kRounds; ++i) {
                size_t count;
                const auto layer = reinterpret_cast<size_t>(&count);  // another one in each thread
                if (mlnn_model_layer_outputs(model_, layer, &count) != MLNN_ERROR_ARGUMENT)
                  return false;
                const std::string why = mlnn_last_error();
                if (why !=
                    "ERROR: mlnn_model_layer_outputs: there is no layer " + std::to_string(layer)) {
                  return false;
                }
              }
              return true;
            }),
            0);
  EXPECT_EQ(heard, kThreads * kRounds);
}

// Each thread has objects of its own, and asks for those of others by numbers that come and go.
TEST(HandleTableThreads, seeWhatIsThereAndNothingElse) {
  mlnn::HandleTable<int, 1> table;
  std::atomic<uint64_t> latest[kThreads] = {};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 500; ++round) {
        const uint64_t id = table.add(std::make_shared<int>(t));
        latest[t] = id;
        const std::shared_ptr<int> other = table.share(latest[(t + 1) % kThreads]);
        if (other && *other != (t + 1) % kThreads) ++wrong;
        const int* const own = table.find(id);
        if (own == nullptr || *own != t) ++wrong;
        if (!table.take(id) || table.find(id) != nullptr) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
