#include <gtest/gtest.h>
#include <sys/stat.h>

#include <limits>
#include <string>
#include <thread>

#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"
#include "tools/files/FrameWriter.h"
#include "tools/files/Frames.h"

namespace {

using mlnn::FrameWriter;
using mlnn::test::contentOf;
using mlnn::test::someValues;
using mlnn::test::TempFolder;

void addInPieces(const Eigen::MatrixXf& frames, FrameWriter& writer) {
  writer.add(frames.leftCols(1));
  EXPECT_TRUE(writer.handOn());
  writer.add(frames.rightCols(frames.cols() - 1));
}

TEST(FrameWriter, writesTheSameInPieces) {
  const TempFolder folder;
  const Eigen::MatrixXf frames = someValues(3, 12, 1);
  for (const std::string name : {"frames.npy", "frames.txt"}) {
    const std::string path = folder.path(name);
    mlnn::writeFrames(path, frames);
    const std::string whole = contentOf(path);
    for (const bool knowsCount : {false, true}) {
      FrameWriter writer(path, 3, knowsCount ? std::optional<uint64_t>(12) : std::nullopt);
      addInPieces(frames, writer);
      writer.finish();
      EXPECT_EQ(contentOf(path), whole) << name;
    }
  }
}

TEST(FrameWriter, writesNumbersAsPrintfDoes) {
  const TempFolder folder;
  Eigen::MatrixXf frames(4, 2);
  frames << 0.1f, -0.0f, 1e30f, 1e-45f, std::numeric_limits<float>::infinity(),
      std::numeric_limits<float>::quiet_NaN(), 123456792, -2.5f;
  mlnn::writeFrames(folder.path("frames"), frames);
  EXPECT_EQ(contentOf(folder.path("frames")),
            "0.100000001 1.00000002e+30 inf 123456792\n-0 1.40129846e-45 nan -2.5\n");
}

TEST(FrameWriter, leavesNothingWhereItDoesNotFinish) {
  const TempFolder folder;
  {
    FrameWriter writer(folder.path("frames.npy"), 3, std::nullopt);
    writer.add(someValues(3, 2, 1));
  }
  EXPECT_TRUE(folder.names().empty());
}

// A pipe cannot be written again: the array waits for its header.
TEST(FrameWriter, writesAnArrayOfUnknownLengthToAPipe) {
  const TempFolder folder;
  const Eigen::MatrixXf frames = someValues(3, 12, 1);
  mlnn::writeFrames(folder.path("whole.npy"), frames);
  const std::string path = folder.path("pipe.npy");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  std::string read;
  std::thread reader([&] { read = contentOf(path); });
  {
    FrameWriter writer(path, 3, std::nullopt);
    addInPieces(frames, writer);
    writer.finish();
  }
  reader.join();
  EXPECT_EQ(read, contentOf(folder.path("whole.npy")));
}

}  // namespace
