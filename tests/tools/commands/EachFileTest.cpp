#include <gtest/gtest.h>

#include "tests/support/CaptureStderr.h"
#include "tools/commands/EachFile.h"

namespace {

using mlnn::test::stderrOf;
using Names = std::vector<std::string>;

// What is known of a file is its name's length, by which its status is judged; "bad" is refused.
struct Told {
  int status = -1;
  std::string out;
  std::string err;
};

Told tell(const Names& names, bool asJson) {
  Told told;
  testing::internal::CaptureStdout();
  told.err = stderrOf([&] {
    told.status = mlnn::tellOfEach(
        names, asJson,
        [](const std::string& name) {
          if (name == "bad") throw mlnn::Failure("refused");
          return name.size();
        },
        [](std::size_t length) { std::cout << length << " letters\n"; },
        [](std::size_t length, mlnn::JsonPrinter& printer) { printer.entry(length); },
        [](std::size_t length) { return length > 4 ? 1 : 0; });
  });
  told.out = testing::internal::GetCapturedStdout();
  return told;
}

TEST(EachFile, standsBehindTheOneBefore) {
  const Told told = tell({"a", "bbb"}, false);
  EXPECT_EQ(told.out, "1 letters\n\n3 letters\n");
  EXPECT_EQ(told.err, "");
  EXPECT_EQ(told.status, 0);
  EXPECT_EQ(tell({"longer", "a"}, false).status, 1);
}

TEST(EachFile, isAnEntryOfJson) {
  const Told told = tell({"a", "bbb"}, true);
  EXPECT_EQ(mlnn::Json::parse(told.out), mlnn::Json({1, 3}));
  EXPECT_EQ(mlnn::Json::parse(tell({}, true).out), mlnn::Json::array());
}

TEST(EachFile, isLeftOutWhereItIsRefused) {
  for (const bool asJson : {false, true}) {
    const Told told = tell({"bad", "a", "bad"}, asJson);
    EXPECT_EQ(told.err, "ERROR: refused\nERROR: refused\n");
    EXPECT_EQ(told.status, mlnn::kRefused);
    if (asJson) {
      EXPECT_EQ(mlnn::Json::parse(told.out), mlnn::Json({1}));
    } else {
      EXPECT_EQ(told.out, "1 letters\n");
    }
  }
}

}  // namespace
