#include <gtest/gtest.h>

#include <functional>

#include "tools/Failure.h"
#include "tools/commands/HeaderEntries.h"

namespace {

std::string refusalOf(const std::function<void()>& check) {
  try {
    check();
  } catch (const mlnn::UsageError& refusal) {
    return refusal.what();
  }
  return "";
}

std::string ofNote(const std::string& note) {
  return refusalOf([&note] { mlnn::checkNote(note); });
}

std::string ofProperty(const std::string& key, const std::string& value) {
  return refusalOf([&] { mlnn::checkProperty(key, value); });
}

TEST(HeaderEntries, takeWhatATextKeeps) {
  for (const char* note : {"", "made by hand", "#", "a = b", "\xE8\xAA\x9E", "softmax 0"}) {
    EXPECT_EQ(ofNote(note), "") << note;
  }
  EXPECT_EQ(ofProperty("labels", "left,right"), "");
  EXPECT_EQ(ofProperty("empty", ""), "");
  EXPECT_EQ(ofProperty("a=b", "c d"), "");
}

TEST(HeaderEntries, refuseNotesThatMeanSomethingToTheReader) {
  for (const char* note : {"NVP labels a", "x deltas_norm_minvals y",
                           "nn_tune comment -win_size_left 3", "nn_tune feat_desc mel_deltas:"}) {
    EXPECT_EQ(ofNote(note),
              "a text model would not keep this as a note, but take it for something else: '" +
                  std::string(note) + "'");
  }
  EXPECT_EQ(ofNote("a\nb"), "a note cannot have a line feed: 'a\\nb'");
}

TEST(HeaderEntries, refusePropertiesThatHaveNoLineOfTheirOwn) {
  EXPECT_EQ(ofProperty("", "x"), "a property needs a name before the '='");
  EXPECT_EQ(ofProperty("a b", "x"), "the name of a property cannot have a blank: 'a b'");
  EXPECT_EQ(ofProperty("a", "x\ny"), "a property cannot have a line feed: 'a=x\\ny'");
}

}  // namespace
