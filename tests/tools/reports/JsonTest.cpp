#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "tools/reports/Json.h"

namespace {

using mlnn::Json;
using mlnn::JsonPrinter;

// What the whole looks like, which the printer's pieces must.
std::string wholeOf(const Json& json) {
  return json.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

template <typename Print>
std::string piecesOf(const Print& print) {
  std::ostringstream out;
  JsonPrinter printer(out);
  print(printer);
  return out.str();
}

TEST(JsonTest, piecesLookLikeTheWhole) {
  const Json inner = {{"rows", {1, 2}}, {"none", Json::object()}, {"text", "a\nb"}};
  const std::string pieces = piecesOf([&](JsonPrinter& printer) {
    printer.beginObject();
    printer.member("name", "n");
    printer.member("inner", inner);
    printer.array("list", 2, [&](std::size_t) { return inner; });
    printer.key("object");
    printer.beginObject();
    printer.member("last", nullptr);
    printer.end();
    printer.end();
  });
  EXPECT_EQ(pieces, wholeOf({{"name", "n"},
                             {"inner", inner},
                             {"list", {inner, inner}},
                             {"object", {{"last", nullptr}}}}));
}

TEST(JsonTest, emptyOnesStayOnALine) {
  EXPECT_EQ(piecesOf([](JsonPrinter& printer) {
              printer.beginArray();
              printer.end();
            }),
            "[]\n");
  EXPECT_EQ(piecesOf([](JsonPrinter& printer) {
              printer.beginArray();
              printer.beginObject();
              printer.end();
              printer.entry(Json::array());
              printer.end();
            }),
            "[\n  {},\n  []\n]\n");
  EXPECT_EQ(piecesOf([](JsonPrinter& printer) {
              printer.beginObject();
              printer.array("list", 0, [](std::size_t) { return Json(); });
              printer.end();
            }),
            "{\n  \"list\": []\n}\n");
}

TEST(JsonTest, whatJsonCannotHoldIsReplaced) {
  const std::string pieces = piecesOf([](JsonPrinter& printer) {
    printer.beginObject();
    printer.member("\xff", "\xfe\xe8\xaa\x9e");
    printer.member("number", NAN);
    printer.end();
  });
  EXPECT_EQ(pieces, "{\n  \"\\ufffd\": \"\\ufffd\\u8a9e\",\n  \"number\": null\n}\n");
}

TEST(JsonTest, piecesOfALineLookLikeTheWhole) {
  const Json inner = {{"rows", {1, 2}}, {"none", Json::object()}, {"text", "a\xC3\xA4\xFF\nb"}};
  std::ostringstream out;
  JsonPrinter printer(out, JsonPrinter::Form::kLine);
  printer.beginObject();
  printer.member("name", "n");
  printer.key("list");
  printer.beginArray();
  printer.entry(inner);
  printer.entry(NAN);
  printer.end();
  printer.key("empty");
  printer.beginArray();
  printer.end();
  printer.end();
  const Json whole = {{"name", "n"}, {"list", {inner, NAN}}, {"empty", Json::array()}};
  EXPECT_EQ(out.str(), whole.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n");
}

}  // namespace
