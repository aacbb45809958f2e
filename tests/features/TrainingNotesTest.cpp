#include <gtest/gtest.h>

#include <locale>
#include <utility>

#include "features/TrainingNotes.h"

namespace {

using Lines = std::vector<std::string>;

// What the notes hold after one addString.
Lines added(const std::string& line) {
  TrainingNotes notes;
  notes.addString(line);
  return notes.lines;
}

TEST(TrainingNotesAddString, removesOneLeadingMarkAndBlank) {
  EXPECT_EQ(added("# trained on digits"), Lines{"trained on digits"});
  EXPECT_EQ(added("# # twice"), Lines{"# twice"});
  EXPECT_EQ(added("#  two blanks"), Lines{" two blanks"});
  EXPECT_EQ(added("# "), Lines{""});
}

TEST(TrainingNotesAddString, storesAnyOtherLineAsItIs) {
  for (const char* line : {"", "#", "#no blank", "#\ttab", "plain", " # indented", "##", "## x"}) {
    EXPECT_EQ(added(line), Lines{line}) << line;
  }
}

TEST(TrainingNotesAddString, leavesPropertyLinesToTheProperties) {
  EXPECT_EQ(added("# NVP alpha 1"), Lines{});
  EXPECT_EQ(added("# NVP "), Lines{});
}

TEST(TrainingNotesAddString, takesOnlyTheExactStartForAPropertyLine) {
  EXPECT_EQ(added("# NVP"), Lines{"NVP"});
  EXPECT_EQ(added("# NVPx y"), Lines{"NVPx y"});
  EXPECT_EQ(added("#NVP a b"), Lines{"#NVP a b"});
  EXPECT_EQ(added("#  NVP a b"), Lines{" NVP a b"});
  EXPECT_EQ(added("# nvp a b"), Lines{"nvp a b"});
  EXPECT_EQ(added("x # NVP a b"), Lines{"x # NVP a b"});
}

TEST(TrainingNotesAddString, appendsInOrderAndKeepsRepetitions) {
  TrainingNotes notes;
  notes.addString("# b");
  notes.addString("# a");
  notes.addString("# b");
  EXPECT_EQ(notes.lines, (Lines{"b", "a", "b"}));
}

// A stored line comes back from "# " + line, so a file that is written again keeps its notes.
TEST(TrainingNotesAddString, isStableOverWritingAndReading) {
  for (const char* line : {"# note", "#note", "note", "#", "# # note", ""}) {
    const Lines stored = added(line);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(added("# " + stored[0]), stored) << line;
  }
}

TEST(TrainingNotesAddRndLayer, tellsTheLayerAndTheScale) {
  TrainingNotes notes;
  notes.addRndLayer(2, 0.05f);
  notes.addRndLayer(13, 1.0f);
  notes.addRndLayer(14, 1e-7f);
  EXPECT_EQ(notes.lines, (Lines{"added randomly initialised layer 2, initScale 0.05",
                                "added randomly initialised layer 13, initScale 1",
                                "added randomly initialised layer 14, initScale 1e-07"}));
}

// A locale that writes 1,234.5 as "1.234,5".
class ForeignNumbers : public std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(TrainingNotesAddRndLayer, doesNotFollowTheGlobalLocale) {
  const std::locale before =
      std::locale::global(std::locale(std::locale::classic(), new ForeignNumbers));
  TrainingNotes notes;
  notes.addRndLayer(1234, 0.5f);
  std::locale::global(before);
  EXPECT_EQ(notes.lines, Lines{"added randomly initialised layer 1234, initScale 0.5"});
}

TEST(TrainingNotesCopy, isDeepAndReplacesTheLines) {
  TrainingNotes source;
  EXPECT_EQ(source.lines, Lines{});
  source.lines = {"one", "two"};
  TrainingNotes constructed(source);
  TrainingNotes assigned;
  assigned.lines = {"old", "old", "old"};
  assigned = source;
  for (TrainingNotes* copy : {&constructed, &assigned}) {
    EXPECT_EQ(copy->lines, source.lines);
    copy->lines[0] = "changed";
  }
  EXPECT_EQ(source.lines, (Lines{"one", "two"}));

  const TrainingNotes& same = source;
  source = same;
  EXPECT_EQ(source.lines, (Lines{"one", "two"}));
}

TEST(TrainingNotesMove, takesTheLinesAlong) {
  TrainingNotes source;
  source.lines = {"one", "two"};
  const std::string* first = source.lines.data();
  TrainingNotes constructed(std::move(source));
  TrainingNotes assigned;
  assigned = std::move(constructed);
  EXPECT_EQ(assigned.lines.data(), first);
}

}  // namespace
