// The messages of builds for devices, which take the place of layers/Messages.cpp here too.
#include <gtest/gtest.h>

#include <string>

#include "layers/Messages.h"
#include "layers/Report.h"

namespace {

using mlnn::report;
using mlnn::Severity;

// A sink that keeps what it is told last.
struct Told {
  ~Told() { mlnn::setMessageSink(nullptr, nullptr); }

  static void take(Severity severity, std::string_view text, void* data) {
    auto& told = *static_cast<Told*>(data);
    told.severity = severity;
    told.text = text;
    told.endsInZero = text.data()[text.size()] == '\0';
    ++told.count;
  }

  Severity severity = Severity::kInfo;
  std::string text;
  bool endsInZero = false;
  int count = 0;
};

TEST(MessagesOfOneThread, goToTheSink) {
  Told told;
  report({"ERROR: nobody listens"});
  mlnn::setMessageSink(Told::take, &told);
  report({"Warning: ", 12, " of ", uint64_t{18446744073709551615U}, std::string(" bytes")});
  EXPECT_EQ(told.count, 1);
  EXPECT_EQ(told.text, "Warning: 12 of 18446744073709551615 bytes");
  EXPECT_EQ(told.severity, Severity::kWarning);
  EXPECT_TRUE(told.endsInZero);
}

TEST(MessagesOfOneThread, latestErrorStays) {
  mlnn::clearLastError();
  EXPECT_STREQ(mlnn::lastError(), "");
  report({"ERROR: first"});
  report({"info: not an error"});
  EXPECT_STREQ(mlnn::lastError(), "ERROR: first");
  report({"ERRROR: ", -7});
  EXPECT_STREQ(mlnn::lastError(), "ERRROR: -7");
}

TEST(MessagesOfOneThread, longTextsAreCut) {
  Told told;
  mlnn::setMessageSink(Told::take, &told);
  report({"ERROR: ", std::string(500, 'x'), std::string(100, 'y'), "z"});
  EXPECT_EQ(told.text, "ERROR: " + std::string(500, 'x') + "yyyy");
  EXPECT_EQ(mlnn::lastError(), told.text);
}

}  // namespace
