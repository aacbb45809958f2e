#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <iomanip>
#include <iostream>
#include <limits>
#include <locale>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "inference/ImageFwdPass.h"
#include "layers/Messages.h"
#include "layers/Report.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/CaptureStderr.h"

using mlnn::CollectedMessages;
using mlnn::Message;
using mlnn::Severity;

namespace {

// What a model says to a bad request and to a good one: a line of each way of printing.
void makeModelSpeak() {
  MultiLayerNNModel model;
  model.retainPrecisionBits(32);
  model.retainPrecisionBits(3);
}

constexpr char kError[] =
    "ERROR: MultiLayerNNModel::retainPrecisionBits: bits must be 0 to 31, got 32";
constexpr char kInfo[] = "v_range 0.000000 - 0.000000 (0.000000), p_range 8";

const std::string kSpoken = std::string(kError) + "\n" + kInfo + "\n";

// What std::cerr has while it is turned to a buffer.
std::string streamed(void (*action)()) {
  std::ostringstream buffer;
  std::streambuf* const shown = std::cerr.rdbuf(buffer.rdbuf());
  action();
  std::cerr.rdbuf(shown);
  return buffer.str();
}

// Each message as its severity's number and its text.
std::vector<std::string> described(const std::vector<Message>& messages) {
  std::vector<std::string> result;
  for (const Message& message : messages) {
    result.push_back(std::to_string(static_cast<int>(message.severity)) + " " + message.text);
  }
  return result;
}

// What a sink has had, and whether a zero byte was behind each text.
struct Heard {
  std::mutex mutex;
  std::vector<Message> messages;
  bool allEnd = true;
};

void hear(Severity severity, std::string_view text, void* data) {
  Heard& heard = *static_cast<Heard*>(data);
  const std::lock_guard<std::mutex> lock(heard.mutex);
  heard.messages.push_back({severity, std::string(text)});
  heard.allEnd = heard.allEnd && text.data()[text.size()] == '\0';
}

class MessageSink : public testing::Test {
 protected:
  ~MessageSink() override { mlnn::setMessageSink(nullptr, nullptr); }
};

// Reads all that goes to descriptor 2 while it lives through a pipe, as another process does that
// is given the messages.
class StderrPipe {
 public:
  StderrPipe() : saved_(dup(STDERR_FILENO)) {
    if (pipe(ends_.data()) != 0) std::perror("pipe");
    dup2(ends_[1], STDERR_FILENO);
    close(ends_[1]);
    reader_ = std::thread([this] { readAll(); });
  }
  StderrPipe(const StderrPipe&) = delete;
  StderrPipe& operator=(const StderrPipe&) = delete;
  ~StderrPipe() {
    end();
    close(ends_[0]);
  }

  // Ends the redirection and returns the lines.
  std::vector<std::string> lines() {
    end();
    std::istringstream in(text_);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

 private:
  void end() {
    if (saved_ < 0) return;
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    saved_ = -1;
    reader_.join();
  }

  void readAll() {
    std::array<char, 4096> block;
    for (;;) {
      const ssize_t count = read(ends_[0], block.data(), block.size());
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return;
      text_.append(block.data(), static_cast<std::size_t>(count));
    }
  }

  std::array<int, 2> ends_{};
  int saved_;
  std::string text_;
  std::thread reader_;
};

}  // namespace

TEST(Messages, goToTheStandardErrorStreamUnlessCollected) {
  mlnn::test::CaptureStderr captured;
  makeModelSpeak();
  EXPECT_EQ(captured.text(), kSpoken);
}

TEST(Messages, goWhereStdCerrWasTurnedToButForThePrintedLine) {
  mlnn::test::CaptureStderr captured;
  EXPECT_EQ(streamed(makeModelSpeak), std::string(kError) + "\n");
  EXPECT_EQ(captured.text(), std::string(kInfo) + "\n");
}

TEST(Messages, areTheSameWhateverFormatAndLocaleTheStreamHas) {
  struct Grouping : std::numpunct<char> {
    std::string do_grouping() const override { return "\1"; }
  };
  const std::locale before = std::cerr.imbue(std::locale(std::locale::classic(), new Grouping));
  const std::ios_base::fmtflags flags = std::cerr.flags();
  mlnn::test::CaptureStderr captured;
  std::cerr << std::hex << std::showbase << std::setfill('*') << std::setw(100);
  makeModelSpeak();
  std::cerr.imbue(before);
  std::cerr.flags(flags);
  std::cerr.width(0);
  std::cerr.fill(' ');
  EXPECT_EQ(captured.text(), kSpoken);
}

TEST(Messages, holdNumbersOfEveryWidthAndSign) {
  const CollectedMessages collected;
  mlnn::report({"info: ", std::numeric_limits<int64_t>::min(), " ", -1, " ", 0, " ",
                std::numeric_limits<int64_t>::max(), " ", std::numeric_limits<uint64_t>::max(), " ",
                uint32_t{4294967295u}, " ", std::numeric_limits<int32_t>::min(), " ",
                int8_t{-128}});
  EXPECT_EQ(collected.text(),
            "info: -9223372036854775808 -1 0 9223372036854775807 18446744073709551615 4294967295 "
            "-2147483648 -128\n");
}

TEST(Messages, areWholeWhateverTheirLength) {
  for (const std::size_t length : {0u, 1u, 254u, 255u, 256u, 257u, 511u, 512u, 70000u}) {
    const std::string text(length, 'x');
    EXPECT_EQ(mlnn::test::stderrOf([&text] { mlnn::report({text, "y"}); }), text + "y\n");
  }
}

TEST(Messages, keepZeroBytes) {
  const std::string text("info: a\0b", 9);
  EXPECT_EQ(mlnn::test::stderrOf([&text] { mlnn::report({text}); }), text + "\n");
  const CollectedMessages collected;
  mlnn::report({text});
  EXPECT_EQ(collected.text(), text + "\n");
}

TEST(Messages, takeNoTextAsAnEmptyOne) {
  MultiLayerNNModel model;
  const char* const none = nullptr;
  int result = 0;
  EXPECT_EQ(mlnn::test::stderrOf([&] { result = model.deserialize(none); }),
            "ERROR: MultiLayerNNModel: could not read file: \n");
  EXPECT_EQ(result, 1);
}

// Of a datagram socket every write is a message of its own.
TEST(Messages, leaveInOneWriteEach) {
  const std::string longName(10000, 'z');
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
  const int saved = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  makeModelSpeak();
  MultiLayerNNModel().deserialize(longName.c_str());
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(ends[1]);
  std::array<char, 65536> block;
  for (const std::string& line : {std::string(kError), std::string(kInfo),
                                  "ERROR: MultiLayerNNModel: could not read file: " + longName}) {
    const ssize_t count = recv(ends[0], block.data(), block.size(), MSG_DONTWAIT);
    EXPECT_EQ(std::string(block.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))),
              line + "\n");
  }
  EXPECT_LE(recv(ends[0], block.data(), block.size(), MSG_DONTWAIT), 0);
  close(ends[0]);
}

// The longer lines do not fit into what a pipe takes at once.
TEST(Messages, ofSeveralThreadsStayWhole) {
  constexpr int kLoads = 2000;
  const std::string longName = "tests/golden/" + std::string(5000, 'z') + ".txt";
  StderrPipe seen;
  const auto load = [](const std::string& name, int loads) {
    for (int i = 0; i < loads; ++i) MultiLayerNNModel().deserialize(name.c_str());
  };
  std::thread texts(load, "tests/golden/version2.txt", kLoads);
  std::thread images(load, "tests/golden/image.mlnn", kLoads);
  std::thread refusals(load, longName, kLoads / 10);
  for (std::thread* thread : {&texts, &images, &refusals}) thread->join();
  const std::vector<std::string> lines = seen.lines();

  const CollectedMessages whole;
  load("tests/golden/version2.txt", 1);
  load("tests/golden/image.mlnn", 1);
  load(longName, 1);
  std::vector<std::string> expected;
  for (const Message& message : whole.messages()) {
    const int times = message.severity == Severity::kError ? kLoads / 10 : kLoads;
    expected.insert(expected.end(), static_cast<std::size_t>(times), message.text);
  }
  ASSERT_EQ(whole.messages().size(), 5u);
  ASSERT_EQ(lines.size(), expected.size());
  std::multiset<std::string> difference(expected.begin(), expected.end());
  for (const std::string& line : lines) {
    const auto found = difference.find(line);
    ASSERT_NE(found, difference.end()) << line;
    difference.erase(found);
  }
}

TEST(CollectedMessages, takeAllThatThisThreadWouldPrint) {
  mlnn::test::CaptureStderr captured;
  {
    const CollectedMessages collected;
    makeModelSpeak();
    EXPECT_EQ(collected.text(), kSpoken);
  }
  EXPECT_EQ(captured.text(), "");
}

TEST(CollectedMessages, tellSeverityAndTextOfEach) {
  MultiLayerNNModel model;
  const CollectedMessages collected;
  model.createFirstLayer(2, 1, 0.0f, false);
  makeModelSpeak();
  model.convBatchNorm();
  model.setProp("key", "two\nlines");
  const std::vector<std::string> expected = {
      std::string("0 ") + kError, std::string("2 ") + kInfo,
      "1 Warning: request to translate batch norm network but layer is not batch norm: index=0",
      "2 info: setting 'key' = 'two\nlines'"};
  EXPECT_EQ(described(collected.messages()), expected);
}

TEST(CollectedMessages, knowTheOddErrorsOfImagesAsErrors) {
  const CollectedMessages collected;
  mlnn::report({"ERRROR: deserializeBinary: deltas min length (0) does not match"});
  mlnn::report({"ERRROR"});
  mlnn::report({""});
  const std::vector<std::string> expected = {
      "0 ERRROR: deserializeBinary: deltas min length (0) does not match", "2 ERRROR", "2 "};
  EXPECT_EQ(described(collected.messages()), expected);
}

TEST(CollectedMessages, leaveOtherThreadsAlone) {
  mlnn::test::CaptureStderr captured;
  const CollectedMessages collected;
  std::thread(makeModelSpeak).join();
  EXPECT_EQ(collected.text(), "");
  EXPECT_TRUE(collected.messages().empty());
  EXPECT_EQ(captured.text(), kSpoken);
}

TEST(CollectedMessages, nestAndHandBackToTheOuterOne) {
  const CollectedMessages outer;
  {
    const CollectedMessages inner;
    mlnn::report({"inner"});
    EXPECT_EQ(inner.text(), "inner\n");
  }
  mlnn::reportByStdio("outer");
  EXPECT_EQ(outer.text(), "outer\n");
}

TEST(CollectedMessages, haveNoGroupedNumbersWhateverTheLocale) {
  struct Grouping : std::numpunct<char> {
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  {
    const CollectedMessages collected;
    mlnn::report({1234567});
    EXPECT_EQ(collected.text(), "1234567\n");
  }
  std::locale::global(before);
}

TEST_F(MessageSink, hasEveryMessageOfTheProcess) {
  mlnn::test::CaptureStderr captured;
  Heard heard;
  mlnn::setMessageSink(hear, &heard);
  makeModelSpeak();
  EXPECT_EQ(captured.text(), "");
  EXPECT_EQ(described(heard.messages),
            (std::vector<std::string>{std::string("0 ") + kError, std::string("2 ") + kInfo}));
  EXPECT_TRUE(heard.allEnd);
}

TEST_F(MessageSink, isLeftOutWhereAThreadCollects) {
  Heard heard;
  mlnn::setMessageSink(hear, &heard);
  {
    const CollectedMessages collected;
    makeModelSpeak();
    EXPECT_EQ(collected.text(), kSpoken);
  }
  EXPECT_TRUE(heard.messages.empty());
  makeModelSpeak();
  EXPECT_EQ(heard.messages.size(), 2u);
}

TEST_F(MessageSink, givesBackTheStandardErrorStream) {
  mlnn::test::CaptureStderr captured;
  Heard heard;
  mlnn::setMessageSink(hear, &heard);
  mlnn::setMessageSink(nullptr, &heard);
  makeModelSpeak();
  EXPECT_EQ(captured.text(), kSpoken);
  EXPECT_TRUE(heard.messages.empty());
}

TEST_F(MessageSink, thatPrintsProblemsLeavesOutInformation) {
  mlnn::setMessageSink(mlnn::printProblems, nullptr);
  EXPECT_EQ(streamed([] {
              mlnn::report({"info: some"});
              mlnn::report({"Warning: one"});
              mlnn::report({"v_range 1"});
              mlnn::report({"ERRROR: another"});
              mlnn::report({"ERROR: ", std::string(1000, 'x')});
            }),
            "Warning: one\nERRROR: another\nERROR: " + std::string(1000, 'x') + "\n");
  mlnn::test::CaptureStderr captured;
  makeModelSpeak();
  EXPECT_EQ(captured.text(), std::string(kError) + "\n");
}

TEST_F(MessageSink, hearsEveryThreadWhileItIsExchanged) {
  constexpr int kThreads = 4;
  constexpr std::size_t kRounds = 1000;
  Heard first;
  Heard second;
  mlnn::setMessageSink(hear, &first);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([] {
      for (std::size_t round = 0; round < kRounds; ++round) makeModelSpeak();
    });
  }
  for (std::size_t i = 0; i < kRounds; ++i) {
    mlnn::setMessageSink(hear, i % 2 == 0 ? &second : &first);
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<std::string> all = described(first.messages);
  for (const std::string& message : described(second.messages)) all.push_back(message);
  EXPECT_EQ(all.size(), 2 * kThreads * kRounds);
  EXPECT_EQ(std::count(all.begin(), all.end(), std::string("0 ") + kError), kThreads * kRounds);
  EXPECT_EQ(std::count(all.begin(), all.end(), std::string("2 ") + kInfo), kThreads * kRounds);
}

TEST_F(MessageSink, mayUseTheLibrary) {
  mlnn::test::CaptureStderr captured;
  std::string collected;
  mlnn::setMessageSink(
      [](Severity, std::string_view, void* data) {
        const CollectedMessages inner;
        makeModelSpeak();
        *static_cast<std::string*>(data) += inner.text();
      },
      &collected);
  MultiLayerNNModel().setProp("a", "b");
  EXPECT_EQ(collected, kSpoken);
  EXPECT_EQ(captured.text(), "");
}

TEST(LastError, isTheLatestErrorWhereverItWent) {
  mlnn::clearLastError();
  EXPECT_STREQ(mlnn::lastError(), "");
  const CollectedMessages collected;
  makeModelSpeak();
  EXPECT_STREQ(mlnn::lastError(), kError);
  MultiLayerNNModel().deserialize("no/such/file");
  EXPECT_STREQ(mlnn::lastError(), "ERROR: MultiLayerNNModel: could not read file: no/such/file");
}

TEST(LastError, staysUntilItIsCleared) {
  mlnn::clearLastError();
  const CollectedMessages collected;
  makeModelSpeak();
  MultiLayerNNModel model;
  model.setProp("a", "b");
  EXPECT_EQ(model.deleteLayers(1), 1);
  EXPECT_STREQ(mlnn::lastError(), kError);
  mlnn::clearLastError();
  EXPECT_STREQ(mlnn::lastError(), "");
}

TEST(LastError, belongsToItsThread) {
  mlnn::clearLastError();
  std::string other;
  std::thread([&other] {
    const CollectedMessages collected;
    mlnn::ImageFwdPass pass;
    EXPECT_EQ(pass.open("not an image", 12), 1);
    other = mlnn::lastError();
  }).join();
  EXPECT_EQ(other, "ERROR: MultiLayerNNModel::deserializeBinary: could not find header 'MLNN'");
  EXPECT_STREQ(mlnn::lastError(), "");
}

TEST(LastError, holdsTheFirst511BytesOfALongOne) {
  const CollectedMessages collected;
  const std::string text = "ERROR: " + std::string(504, 'x');
  mlnn::report({text});
  EXPECT_EQ(mlnn::lastError(), text);
  mlnn::report({text, "y"});
  EXPECT_EQ(mlnn::lastError(), text);
  EXPECT_EQ(collected.messages()[1].text, text + "y");
}
