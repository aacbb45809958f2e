#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>

#include "c/AnalysisCalls.h"
#include "tests/c/OpenedFile.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::Watch;
using mlnn::test::modelOf;
using mlnn::test::OpenedFile;
using mlnn::test::plainLayer;
using mlnn::test::stderrOf;

int stop(size_t, void*) { return -1; }
int count(size_t steps, void* data) {
  *static_cast<size_t*>(data) += steps;
  return 0;
}

template <typename Action>
std::string saidOf(mlnn_status status, Action action) {
  return stderrOf([&] { EXPECT_EQ(mlnn::watched("f", true, nullptr, nullptr, action), status); });
}

TEST(AnalysisCalls, letNothingOut) {
  EXPECT_EQ(saidOf(MLNN_OK, [](const Watch&) { return MLNN_OK; }), "");
  EXPECT_EQ(saidOf(MLNN_ERROR_MEMORY, [](const Watch&) -> mlnn_status { throw std::bad_alloc(); }),
            "ERROR: f: out of memory\n");
  EXPECT_EQ(saidOf(MLNN_ERROR_INTERNAL,
                   [](const Watch&) -> mlnn_status { throw std::runtime_error("why"); }),
            "ERROR: f: why\n");
  EXPECT_EQ(saidOf(MLNN_ERROR_INTERNAL, [](const Watch&) -> mlnn_status { throw 7; }),
            "ERROR: f: unknown error\n");
}

TEST(AnalysisCalls, areStoppedByTheirWatchAndByNothingElse) {
  const auto work = [](const Watch& watch) {
    mlnn::tell(watch, 3);
    return MLNN_OK;
  };
  size_t steps = 0;
  EXPECT_EQ(mlnn::watched("f", true, count, &steps, work), MLNN_OK);
  EXPECT_EQ(steps, 3u);
  EXPECT_EQ(
      stderrOf([&] { EXPECT_EQ(mlnn::watched("f", true, stop, nullptr, work), MLNN_STOPPED); }),
      "");
  EXPECT_EQ(mlnn::watched("f", true, nullptr, nullptr, work), MLNN_OK);
}

TEST(AnalysisCalls, doNothingWithoutAllPointersAndModels) {
  const OpenedFile opened(modelOf({plainLayer(2, 2)}));
  const mlnn_model none = {0};
  const auto work = [](const auto&...) {
    ADD_FAILURE() << "it is done";
    return MLNN_OK;
  };
  EXPECT_EQ(stderrOf([&] {
              EXPECT_EQ(mlnn::withFile("f", opened, false, nullptr, nullptr, work),
                        MLNN_ERROR_ARGUMENT);
              EXPECT_EQ(mlnn::withFile("f", none, true, nullptr, nullptr, work), MLNN_ERROR_HANDLE);
              EXPECT_EQ(mlnn::withFiles("f", opened, none, true, nullptr, nullptr, work),
                        MLNN_ERROR_HANDLE);
            }),
            "ERROR: f: a pointer is null\n"
            "ERROR: f: the handle is closed, or is not one\n"
            "ERROR: f: the handle is closed, or is not one\n");
}

TEST(AnalysisCalls, haveTheModelsOfTheirHandles) {
  const OpenedFile a(modelOf({plainLayer(2, 3)}));
  const OpenedFile b(modelOf({plainLayer(4, 5)}));
  std::string shapes;
  const auto work = [&shapes](const mlnn::ModelFile& one, const mlnn::ModelFile& two,
                              const Watch&) {
    shapes = one.model.description() + " " + two.model.description();
    return MLNN_OK;
  };
  EXPECT_EQ(mlnn::withFiles("f", a, b, true, nullptr, nullptr, work), MLNN_OK);
  EXPECT_EQ(shapes, modelOf({plainLayer(2, 3)}).description() + " " +
                        modelOf({plainLayer(4, 5)}).description());
}

}  // namespace
