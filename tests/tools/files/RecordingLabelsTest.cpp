#include <gtest/gtest.h>

#include "tests/support/TempFolder.h"
#include "tools/Failure.h"
#include "tools/files/RecordingLabels.h"

namespace {

using mlnn::RecordingLabels;

class RecordingLabelsTest : public testing::Test {
 protected:
  RecordingLabels read(const std::string& content) {
    return RecordingLabels::read(folder_.write("labels.csv", content));
  }

  // The message, without the folder's name.
  template <typename Action>
  std::string refusalOf(Action action) {
    try {
      action();
    } catch (const mlnn::Failure& failure) {
      std::string text = failure.what();
      const std::string folder = folder_.path();
      const std::size_t at = text.find(folder);
      if (at != std::string::npos) text.erase(at, folder.size() + (folder.back() != '/'));
      return text;
    }
    return "";
  }

  std::string refusalOfTable(const std::string& content) {
    return refusalOf([&] { read(content); });
  }

  mlnn::test::TempFolder folder_;
};

TEST_F(RecordingLabelsTest, areFoundByTheNameOfTheFile) {
  const RecordingLabels labels = read("speaker,file,label\nx,a.npy,yes\ny,b.npy,\"n,o\"\n");
  EXPECT_EQ(labels.of("a.npy"), "yes");
  EXPECT_EQ(labels.of("some/folder/b.npy"), "n,o");
  EXPECT_EQ(refusalOf([&] { labels.of("dir/c.npy"); }), "'labels.csv' has no label for 'c.npy'");
}

TEST_F(RecordingLabelsTest, mayBeGivenTwiceIfTheyAreTheSame) {
  EXPECT_EQ(read("file,label\na,yes\na,yes\n").of("a"), "yes");
  EXPECT_EQ(refusalOfTable("file,label\na,yes\na,no\n"),
            "'labels.csv', line 3: 'a' has the label 'yes' already");
}

TEST_F(RecordingLabelsTest, needBothColumns) {
  EXPECT_EQ(refusalOfTable(""), "'labels.csv' is empty; expected a heading");
  EXPECT_EQ(refusalOfTable("name,label\n"),
            "'labels.csv', line 1: expected a column called 'file'");
  EXPECT_EQ(refusalOfTable("file,class\n"),
            "'labels.csv', line 1: expected a column called 'label'");
  EXPECT_EQ(refusalOfTable("x,file,label\n1,2\n"),
            "'labels.csv', line 2: expected 3 or more fields but found 2");
}

}  // namespace
