#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "layers/Messages.h"
#include "layers/Report.h"

namespace {

std::string said(std::initializer_list<mlnn::MessagePiece> pieces) {
  const mlnn::CollectedMessages messages;
  mlnn::report(pieces);
  return messages.messages().size() == 1 ? messages.messages()[0].text : "not one message";
}

template <typename Integer>
void expectDigits(Integer number) {
  EXPECT_EQ(said({number}), std::to_string(number));
}

TEST(Report, writesNumbersOfEveryWidth) {
  expectDigits(0);
  expectDigits(-1);
  expectDigits(static_cast<unsigned char>(200));
  expectDigits(static_cast<signed char>(-128));
  expectDigits(static_cast<short>(-32768));
  expectDigits(std::numeric_limits<int32_t>::min());
  expectDigits(std::numeric_limits<int32_t>::max());
  expectDigits(std::numeric_limits<int64_t>::min());
  expectDigits(std::numeric_limits<int64_t>::max());
  expectDigits(std::numeric_limits<uint64_t>::max());
}

TEST(Report, putsPiecesTogether) {
  const std::string text = "of a string";
  EXPECT_EQ(said({"piece ", 2, " ", text}), "piece 2 of a string");
  const char* const none = nullptr;
  EXPECT_EQ(said({"a", none, "b"}), "ab");
  EXPECT_EQ(said({""}), "");
}

TEST(Report, takesTextOfAnyLength) {
  for (const std::size_t length : {255u, 256u, 257u, 5000u}) {
    const std::string text(length, 'x');
    EXPECT_EQ(said({text, 7}), text + "7");
  }
}

}  // namespace
