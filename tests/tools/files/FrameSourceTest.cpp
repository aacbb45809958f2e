#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <system_error>

#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/files/FrameSource.h"
#include "tools/files/Frames.h"
#include "tools/files/Npy.h"

namespace {

using Eigen::MatrixXf;
using mlnn::FrameSource;
using mlnn::test::sameBits;
using mlnn::test::someValues;
using mlnn::test::TempFolder;

// A pipe that somebody has written to, and closed: what fits a pipe without a reader.
class WrittenPipe {
 public:
  explicit WrittenPipe(const std::string& bytes) {
    if (pipe(ends_) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    write(bytes);
  }
  ~WrittenPipe() {
    close(ends_[0]);
    end();
  }
  WrittenPipe(const WrittenPipe&) = delete;
  WrittenPipe& operator=(const WrittenPipe&) = delete;

  void write(const std::string& bytes) {
    if (::write(ends_[1], bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      throw std::system_error(errno, std::generic_category(), "write");
    }
  }
  void end() {
    if (ends_[1] >= 0) close(ends_[1]);
    ends_[1] = -1;
  }
  std::string name() const { return "/dev/fd/" + std::to_string(ends_[0]); }

 private:
  int ends_[2];
};

// All frames, and how many came at a time at most.
MatrixXf allOf(FrameSource& source, Eigen::Index most) {
  MatrixXf all(static_cast<Eigen::Index>(source.width()), 0);
  MatrixXf some;
  while (source.next(most, some)) {
    EXPECT_GT(some.cols(), 0);
    EXPECT_LE(some.cols(), most);
    all.conservativeResize(Eigen::NoChange, all.cols() + some.cols());
    all.rightCols(some.cols()) = some;
  }
  return all;
}

std::string npyOf(const MatrixXf& frames) {
  std::ostringstream out;
  mlnn::writeNpy(frames, out);
  return out.str();
}

std::string npyWith(const std::string& type, bool fortranOrder, const std::string& shape,
                    const std::string& values) {
  const std::string header = "{'descr': '" + type +
                             "', 'fortran_order': " + (fortranOrder ? "True" : "False") +
                             ", 'shape': " + shape + "}";
  return std::string("\x93NUMPY\1\0", 8) + static_cast<char>(header.size()) + '\0' + header +
         values;
}

template <typename Value>
std::string bytesOf(const MatrixXf& values) {
  const Eigen::Matrix<Value, -1, -1> cast = values.cast<Value>();
  return std::string(reinterpret_cast<const char*>(cast.data()),
                     static_cast<std::size_t>(cast.size()) * sizeof(Value));
}

std::string failureOf(const std::string& name, bool whole) {
  try {
    if (whole) {
      mlnn::readFrames(name);
    } else {
      const auto source = FrameSource::open(name);
      allOf(*source, 2);
    }
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "";
}

void expectAsWhole(const std::string& bytes) {
  const TempFolder folder;
  folder.write("frames", bytes);
  const MatrixXf whole = mlnn::readFrames(folder.path("frames"));
  for (const Eigen::Index most : {1, 3, 1000}) {
    const auto file = FrameSource::open(folder.path("frames"));
    EXPECT_FALSE(file->arrives());
    EXPECT_TRUE(sameBits(allOf(*file, most), whole)) << most;
    WrittenPipe pipe(bytes);
    pipe.end();
    EXPECT_TRUE(sameBits(allOf(*FrameSource::open(pipe.name()), most), whole)) << most;
  }
}

TEST(FrameSource, givesTheFramesOfATextSomeAtATime) {
  expectAsWhole("1 2\n3\t4\r\n\n# five\n5,6\n7 8");
  expectAsWhole("#\n1");
}

TEST(FrameSource, givesTheFramesOfAnArraySomeAtATime) {
  const MatrixXf frames = someValues(3, 7, 1);
  expectAsWhole(npyOf(frames));
  expectAsWhole(npyWith("<f8", false, "(7, 3)", bytesOf<double>(frames)));
  expectAsWhole(npyWith("<f4", true, "(7, 3)", bytesOf<float>(frames.transpose())));
  expectAsWhole(npyWith("<f8", true, "(7, 3)", bytesOf<double>(frames.transpose())));
  expectAsWhole(npyWith("<f4", false, "(21,)", bytesOf<float>(frames)));
}

TEST(FrameSource, knowsTheCountOfAnArray) {
  WrittenPipe pipe(npyOf(someValues(3, 7, 1)).substr(0, 130));
  const auto source = FrameSource::open(pipe.name());
  EXPECT_EQ(source->width(), 3u);
  EXPECT_EQ(source->count(), 7u);
  EXPECT_EQ(source->expected(), 7u);
}

TEST(FrameSource, guessesTheCountOfATextFromItsLength) {
  const TempFolder folder;
  folder.write("frames", "1 2\n3 4\n5 6\n");
  const auto source = FrameSource::open(folder.path("frames"));
  EXPECT_FALSE(source->count());
  EXPECT_EQ(source->expected(), 3u);
  EXPECT_EQ(FrameSource::open(WrittenPipe("1\n2\n").name())->expected(), 0u);
}

TEST(FrameSource, givesWhatHasArrivedWithoutWaitingForMore) {
  WrittenPipe pipe("1 2\n3 4\n5 ");
  const auto source = FrameSource::open(pipe.name());
  EXPECT_TRUE(source->arrives());
  MatrixXf some;
  ASSERT_TRUE(source->next(100, some));
  EXPECT_EQ(some, (MatrixXf(2, 2) << 1, 3, 2, 4).finished());
  pipe.write("6\n");
  ASSERT_TRUE(source->next(100, some));
  EXPECT_EQ(some, (MatrixXf(2, 1) << 5, 6).finished());
  pipe.end();
  EXPECT_FALSE(source->next(100, some));
}

TEST(FrameSource, givesFramesOfAnArrayThatHaveArrived) {
  const MatrixXf frames = someValues(2, 3, 1);
  const std::string bytes = npyOf(frames);
  WrittenPipe pipe(bytes.substr(0, bytes.size() - 3));
  const auto source = FrameSource::open(pipe.name());
  MatrixXf some;
  ASSERT_TRUE(source->next(100, some));
  EXPECT_TRUE(sameBits(some, frames.leftCols(2)));
  pipe.write(bytes.substr(bytes.size() - 3));
  pipe.end();
  ASSERT_TRUE(source->next(100, some));
  EXPECT_TRUE(sameBits(some, frames.rightCols(1)));
  EXPECT_FALSE(source->next(100, some));
}

TEST(FrameSource, givesTheFramesBeforeABrokenLine) {
  WrittenPipe pipe("1 2\n3 4\n5 x\n7 8\n");
  const auto source = FrameSource::open(pipe.name());
  MatrixXf some;
  ASSERT_TRUE(source->next(100, some));
  EXPECT_EQ(some.cols(), 2);
  EXPECT_THROW(source->next(100, some), mlnn::Failure);
}

// What is wrong with a file is told as of one that is read as a whole.
TEST(FrameSource, failsAsAWholeFileDoes) {
  const TempFolder folder;
  const std::string array = npyOf(someValues(3, 7, 1));
  const std::string wide = npyWith("<f4", false, "(1, 18446744073709551615)", "");
  for (const std::string& bytes :
       {std::string(), std::string("\n# none\n"), std::string("1\n2 3\n"), std::string("1\n1e999"),
        array.substr(0, 4), array.substr(0, 9), array.substr(0, 50), array.substr(0, 128),
        array.substr(0, 150), array + "x", array + std::string(300000, 'x'),
        npyWith("<i4", false, "(7, 3)", ""), npyWith("<f4", true, "(7, 3)", "1234"),
        npyWith("<f4", false, "(0, 3)", ""), wide}) {
    folder.write("frames", bytes);
    const std::string expected = failureOf(folder.path("frames"), true);
    EXPECT_NE(expected, "");
    EXPECT_EQ(failureOf(folder.path("frames"), false), expected);
  }
  EXPECT_EQ(failureOf(folder.path("none"), false), failureOf(folder.path("none"), true));
  EXPECT_EQ(failureOf(folder.path(), false), failureOf(folder.path(), true));
}

TEST(FrameSource, tellsHowLongAnArrayOfAPipeIs) {
  const std::string array = npyOf(someValues(3, 7, 1));
  for (const std::string& bytes : {array.substr(0, 150), array.substr(0, 50), array + "xyz"}) {
    const TempFolder folder;
    folder.write("frames", bytes);
    WrittenPipe pipe(bytes);
    pipe.end();
    const std::string name = "'" + pipe.name() + "'";
    const std::string whole = failureOf(folder.path("frames"), true);
    EXPECT_EQ(failureOf(pipe.name(), false), name + whole.substr(whole.find("': ") + 1));
  }
}

}  // namespace
