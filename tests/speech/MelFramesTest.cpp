#include <gtest/gtest.h>

#include <Eigen/Core>
#include <algorithm>
#include <cmath>
#include <iostream>
#include <string>
#include <vector>

#include "MelFrames.h"
#include "Sound.h"
#include "tests/speech/Recordings.h"
#include "tests/support/DigitsFolder.h"

namespace {

using mlnn::test::recordings;
using mlnn::test::wavPath;

std::vector<double> samplesOf(const std::string& path) {
  std::vector<double> samples;
  readSoundFile(path, {[&samples](double sample) { samples.push_back(sample); }, [] {}});
  return samples;
}

std::vector<Frame> dueOf(MelFrames& frames) {
  std::vector<Frame> due;
  Frame frame;
  while (frames.next(frame)) due.push_back(frame);
  return due;
}

std::vector<Frame> framesOf(const std::vector<double>& samples) {
  MelFrames frames;
  for (const double sample : samples) frames.push(sample);
  frames.finish();
  return dueOf(frames);
}

double largestDifference(const std::vector<Frame>& frames, const Eigen::MatrixXf& expected) {
  double largest = 0;
  for (std::size_t t = 0; t < frames.size(); ++t) {
    for (std::size_t i = 0; i < frames[t].size(); ++i) {
      const float other = expected(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(t));
      largest = std::max(largest, std::abs(double{frames[t][i]} - double{other}));
    }
  }
  return largest;
}

}  // namespace

TEST(MelFrames, agreeWithTheRecordedFrames) {
  ASSERT_EQ(recordings().size(), 30u);
  double worst = 0;
  for (const std::string& name : recordings()) {
    const Eigen::MatrixXf expected = mlnn::test::readNpyFloats(
        mlnn::test::sourcePath("examples/digits/frames/" + name + ".npy"));
    const std::vector<Frame> frames = framesOf(samplesOf(wavPath(name)));
    ASSERT_EQ(static_cast<Eigen::Index>(frames.size()), expected.cols()) << name;
    worst = std::max(worst, largestDifference(frames, expected));
  }
  std::cout << "largest difference " << worst << "\n";
  EXPECT_LT(worst, 1e-4);
}

TEST(MelFrames, areDueAsSoonAsTheFramesThatTheyWaitForAreThere) {
  MelFrames frames;
  int due = 0;
  for (int sample = 1; sample <= 2000; ++sample) {
    frames.push(0.5 * std::sin(0.1 * sample));
    due += static_cast<int>(dueOf(frames).size());
    const int whole = sample < kFrameLength ? 0 : (sample - kFrameLength) / kFrameShift + 1;
    ASSERT_EQ(due, std::max(0, whole - kFrameDelay)) << sample;
  }
  frames.finish();
  EXPECT_EQ(dueOf(frames).size(), 4u);
}

TEST(MelFrames, ofSoundsShorterThanTheirReachRepeatWhatThereIs) {
  EXPECT_EQ(framesOf(std::vector<double>(kFrameLength - 1)).size(), 0u);
  const std::vector<Frame> silence = framesOf(std::vector<double>(kFrameLength));
  ASSERT_EQ(silence.size(), 1u);
  EXPECT_EQ(silence[0][0], static_cast<float>(std::log(1e-5)));
  for (std::size_t i = kBands; i < silence[0].size(); ++i) EXPECT_EQ(silence[0][i], 0.0f);
}
