// A model that a test of the C interface opens, and closes at its end.
#pragma once

#include <gtest/gtest.h>
#include <mlnn.h>

#include <cstddef>
#include <string>
#include <utility>

#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"

namespace mlnn::test {

class OpenedFile {
 public:
  // As it is read from its image.
  explicit OpenedFile(MultiLayerNNModel model) : OpenedFile(imageOf(std::move(model))) {}

  explicit OpenedFile(std::string bytes) : bytes_(std::move(bytes)) {
    stderrOf([&] {
      EXPECT_EQ(mlnn_model_open_memory(bytes_.data(), bytes_.size(), nullptr, &handle_), MLNN_OK);
    });
  }
  OpenedFile(const OpenedFile&) = delete;
  OpenedFile& operator=(const OpenedFile&) = delete;
  ~OpenedFile() { mlnn_model_close(handle_); }

  operator mlnn_model() const { return handle_; }
  const std::string& bytes() const { return bytes_; }

 private:
  static std::string imageOf(MultiLayerNNModel model) {
    model.deltasNorm.allocIfNeeded();  // as every image has it
    return ByteImage::of(model).bytes();
  }

  std::string bytes_;
  mlnn_model handle_ = {0};
};

// Makes a call while memory runs out, at every allocation in turn: each time it says so, until it
// gets all that it takes. To be used with tests/support/AllocationWatch.cpp.
template <typename Call>
void expectOutOfMemoryIsTold(const Call& call, const std::string& what) {
  for (std::size_t successes = 0; successes < 10000; ++successes) {
    mlnn_status status = MLNN_OK;
    bool happened = false;
    {
      const FailingAllocation failing(successes, Failing::kFromThenOn);
      status = call();
      happened = failing.happened();
    }
    if (!happened) {
      EXPECT_EQ(status, MLNN_OK) << what;
      EXPECT_GT(successes, 0u) << what;
      return;
    }
    ASSERT_EQ(status, MLNN_ERROR_MEMORY) << what << " after " << successes << " allocations";
    ASSERT_NE(std::string(mlnn_last_error()).find(": out of memory"), std::string::npos) << what;
  }
  ADD_FAILURE() << what << " takes more and more memory";
}

}  // namespace mlnn::test
