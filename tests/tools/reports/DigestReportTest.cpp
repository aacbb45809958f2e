#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/reports/DigestReport.h"

namespace {

using mlnn::digestOf;
using mlnn::ModelDigest;
using mlnn::ModelFile;
using mlnn::ModelFormat;
using mlnn::parseDigest;

ModelFile fileOf(MultiLayerNNModel model, ModelFormat format = ModelFormat::kText) {
  ModelFile file;
  file.format = format;
  file.model = std::move(model);
  return file;
}

ModelFile imageFile() { return fileOf(mlnn::test::fullModel(), ModelFormat::kBinary); }

std::string printed(const ModelDigest& digest) {
  std::ostringstream out;
  printDigest(digest, out);
  return out.str();
}

TEST(DigestReport, isATitleAFormatAndALineForEachSection) {
  ModelDigest digest;
  digest.format = ModelFormat::kBinary;
  digest.sections = {{"features", "01"}, {"unused arrays", "02"}};
  EXPECT_EQ(printed(digest),
            "mlnn digest 1\n"
            "format         binary\n"
            "features       01\n"
            "unused arrays  02\n");
}

TEST(DigestReport, hasRoomForAFormatBesideShorterNames) {
  ModelDigest digest;
  EXPECT_EQ(printed(digest), "mlnn digest 1\nformat  ascii\n");
  digest.sections = {{"a", "01"}};
  EXPECT_EQ(printed(digest), "mlnn digest 1\nformat  ascii\na       01\n");
}

TEST(DigestReport, readsItsOwnPrints) {
  for (const ModelFile& file : {fileOf(mlnn::test::fullModel()), imageFile()}) {
    const ModelDigest digest = digestOf(file);
    const std::string json = nlohmann::ordered_json{{"digest", jsonOf(digest)}}.dump();
    for (const std::string& print : {printed(digest), json}) {
      const ModelDigest read = parseDigest(print, "file");
      EXPECT_EQ(read.format, digest.format);
      EXPECT_EQ(printed(read), printed(digest));
    }
  }
}

std::string refusalOf(const std::string& text) {
  try {
    parseDigest(text, "old.digest");
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "taken";
}

TEST(DigestReport, refusesWhatIsNoPrint) {
  const std::string noPrint =
      "'old.digest' is no print of digests: it does not begin with 'mlnn digest 1', and is no JSON "
      "from this command with --digest";
  for (const char* text :
       {"", "mlnn digest 2\nformat ascii\n", "mlnn digest 1", "mlnn digest 1\nlayers 00\n", "{",
        "{}", "{\"digest\":3}", "{\"digest\":{\"version\":2,\"format\":\"ascii\",\"sections\":{}}}",
        "{\"digest\":{\"version\":1,\"format\":\"ascii\",\"sections\":{\"a\":1}}}"}) {
    EXPECT_EQ(refusalOf(text), noPrint) << text;
  }
  EXPECT_EQ(refusalOf("mlnn digest 1\nformat  \x1b\n"),
            "'old.digest' tells digests of an unknown format, '\\x1b'");
  EXPECT_EQ(refusalOf("mlnn digest 1\nformat  ascii\nlayers\n"),
            "'old.digest' has a line that is no digest: 'layers'");
}

// A file of some megabytes can nest values deeper than any stack could follow.
TEST(DigestReport, refusesValuesThatNestDeeply) {
  constexpr int kDepth = 1000000;
  std::string arrays(kDepth, '[');
  arrays.append(kDepth, ']');
  std::string objects;
  for (int i = 0; i < kDepth; ++i) objects += "{\"a\":";
  objects += "0" + std::string(kDepth, '}');
  const std::string head = "{\"digest\":{\"version\":";
  for (const std::string& deep : {arrays, objects}) {
    const std::string noPrint = refusalOf("{}");
    EXPECT_EQ(refusalOf("{\"digest\":" + deep + "}"), noPrint);
    EXPECT_EQ(refusalOf(head + deep + ",\"format\":\"ascii\",\"sections\":{}}}"), noPrint);
    EXPECT_EQ(refusalOf(head + "1,\"format\":" + deep + ",\"sections\":{}}}"), noPrint);
    EXPECT_EQ(refusalOf(head + "1,\"format\":\"ascii\",\"sections\":" + deep + "}}"), noPrint);
    EXPECT_EQ(refusalOf(head + "1,\"format\":\"ascii\",\"sections\":{\"a\":" + deep + "}}}"),
              noPrint);
    EXPECT_EQ(refusalOf("{\"other\":" + deep + "}"), noPrint);
  }
}

}  // namespace
