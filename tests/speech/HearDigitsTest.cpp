#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <sndfile.hh>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/speech/Recordings.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::recordings;
using mlnn::test::sourcePath;
using mlnn::test::wavPath;

std::string contentOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

class HearDigitsTest : public ::testing::Test {
 protected:
  HearDigitsTest() {
    std::string name = (fs::temp_directory_path() / "hear_digits.XXXXXX").string();
    folder_ = mkdtemp(name.data());
  }
  ~HearDigitsTest() override { fs::remove_all(folder_); }

  std::string path(const std::string& name) const { return folder_ + "/" + name; }
  std::string commandLine(const std::string& network) const {
    return "'" HEAR_DIGITS_PATH "' '" + sourcePath("examples/digits/" + network + ".txt") + "'";
  }

  // Runs a line of shell; its output and its messages are in out_ and err_.
  int run(const std::string& line) {
    const int status = std::system((line + " >" + path("out") + " 2>" + path("err")).c_str());
    out_ = contentOf(path("out"));
    err_ = contentOf(path("err"));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string folder_, out_, err_;
};

// What labels.csv says that a network must decide: recording and digit.
std::map<std::string, std::string> decisionsOf(const std::string& network) {
  std::ifstream in(sourcePath("examples/digits/labels.csv"));
  std::map<std::string, std::string> decisions;
  std::vector<std::string> head;
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> fields;
    std::istringstream words(line);
    for (std::string field; std::getline(words, field, ',');) fields.push_back(field);
    if (head.empty()) {
      head = fields;
      continue;
    }
    const auto column = std::find(head.begin(), head.end(), "predicted_" + network);
    decisions[fs::path(fields[0]).stem().string()] =
        fields[static_cast<std::size_t>(column - head.begin())];
  }
  return decisions;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The samples of a recording as a recorder pipes them.
std::string rawOf(const std::string& name) {
  SndfileHandle file(wavPath(name));
  std::vector<short> samples(static_cast<std::size_t>(file.frames()));
  file.read(samples.data(), file.frames());
  return {reinterpret_cast<const char*>(samples.data()), samples.size() * sizeof(short)};
}

}  // namespace

TEST_F(HearDigitsTest, decideAllWordsAsTheirLabelsSay) {
  for (const std::string network : {"synth", "synth-bn"}) {
    ASSERT_EQ(
        run(commandLine(network) + " --decisions " + sourcePath("examples/digits/wav") + "/*.wav"),
        0);
    const std::map<std::string, std::string> expected = decisionsOf(network);
    ASSERT_EQ(expected.size(), 30u);
    int right = 0;
    for (const std::string& line : linesOf(out_)) {
      const std::size_t colon = line.find(": ");
      const std::string name = fs::path(line.substr(0, colon)).stem().string();
      const std::string decision = line.substr(colon + 2, line.find(',') - colon - 2);
      EXPECT_EQ(decision, expected.at(name)) << name;
      right += decision == expected.at(name) ? 1 : 0;
    }
    EXPECT_EQ(right, 30);
    std::cout << network << ": " << right << " words decided as labels.csv says\n";
  }
}

TEST_F(HearDigitsTest, takesFlacAndRawSamplesLikeWav) {
  const std::string name = recordings().front();
  const std::string raw = rawOf(name);
  std::ofstream(path("a.raw"), std::ios::binary) << raw;
  {
    SndfileHandle flac(path("a.flac"), SFM_WRITE, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 1, 8000);
    flac.write(reinterpret_cast<const short*>(raw.data()),
               static_cast<sf_count_t>(raw.size() / sizeof(short)));
  }
  ASSERT_EQ(run(commandLine("synth") + " --posteriors " + wavPath(name)), 0);
  const std::vector<std::string> expected = linesOf(out_);
  ASSERT_GT(expected.size(), 40u);
  for (const std::string& from :
       {" " + path("a.flac"), " <" + path("a.raw"), " - <" + path("a.raw")}) {
    ASSERT_EQ(run(commandLine("synth") + " --posteriors" + from), 0);
    const std::vector<std::string> lines = linesOf(out_);
    ASSERT_EQ(lines.size(), expected.size()) << from;
    for (std::size_t i = 0; i + 1 < lines.size(); ++i) EXPECT_EQ(lines[i], expected[i]) << from;
    EXPECT_EQ(lines.back().substr(lines.back().find(": ")),
              expected.back().substr(expected.back().find(": ")));
  }
}

// The program says that a frame is known 60 ms after its last sample. So of the first n samples
// that have come through the pipe, which stays open, those frames are printed whose last sample is
// 60 ms, or 480 samples, old.
TEST_F(HearDigitsTest, printsWhileTheSoundArrives) {
  constexpr int kSamples = 3001;
  constexpr int kFramesByThen = (kSamples - 480 - 200) / 80 + 1;
  const std::string raw = rawOf(recordings().front());
  FILE* const pipe = popen((commandLine("synth") + " >" + path("out")).c_str(), "w");
  ASSERT_NE(pipe, nullptr);
  std::fwrite(raw.data(), 1, 2 * kSamples - 1, pipe);  // all but the last byte of a sample
  std::fflush(pipe);
  std::fwrite(raw.data() + 2 * kSamples - 1, 1, 1, pipe);
  std::fflush(pipe);
  std::vector<std::string> lines;
  for (int tries = 0; tries < 500 && lines.size() < 1 + kFramesByThen; ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    lines = linesOf(contentOf(path("out")));
  }
  ASSERT_EQ(lines.size(), 1u + kFramesByThen);
  EXPECT_EQ(lines[0],
            "a frame is known 60 ms after its last sample (6 frames of deltas and context)");
  EXPECT_EQ(pclose(pipe), 0);
  EXPECT_GT(linesOf(contentOf(path("out"))).size(), lines.size());
}

TEST_F(HearDigitsTest, refusesInOneLine) {
  SndfileHandle(path("fast.wav"), SFM_WRITE, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1, 16000);
  SndfileHandle(path("two.wav"), SFM_WRITE, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 2, 8000);
  const std::map<std::string, std::string> refusals = {
      {" --decisions " + path("fast.wav"),
       path("fast.wav") + ": expected 8000 samples a second, found 16000\n"},
      {" --decisions " + path("two.wav"), path("two.wav") + ": expected 1 channel, found 2\n"},
      {" --decisions " + path("none.wav"),
       path("none.wav") + ": System error : No such file or directory.\n"},
      {" --decisions <" + std::string(path("odd")),
       "standard input: the last sample lacks a byte\n"}};
  std::ofstream(path("odd")) << "odd";
  for (const auto& [arguments, message] : refusals) {
    EXPECT_EQ(run(commandLine("synth") + arguments), 1);
    EXPECT_EQ(out_, "");
    const std::vector<std::string> lines = linesOf(err_);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back() + "\n", "ERROR: " + message);
  }
}

TEST_F(HearDigitsTest, doesWhatItsPageShows) {
  const std::string page = contentOf(sourcePath("examples/speech/README.md"));
  ASSERT_EQ(run("cd '" + sourcePath(".") +
                "' && '" HEAR_DIGITS_PATH
                "' examples/digits/synth.txt examples/digits/wav/3_en-us_f4.wav | tail -n 4"),
            0);
  EXPECT_NE(page.find(out_), std::string::npos) << out_;
}
