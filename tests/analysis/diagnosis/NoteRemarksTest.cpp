#include <gtest/gtest.h>

#include <string>

#include "analysis/diagnosis/NoteRemarks.h"

namespace {

using mlnn::remarkOnNote;

std::string values(std::size_t count) {
  std::string text = "1";
  for (std::size_t i = 1; i < count; ++i) text += ",1";
  return text;
}

TEST(NoteRemarks, areNoneForLinesThatAreAsTheyShouldBe) {
  for (const std::string& line :
       {std::string("# made by hand"), std::string("# NVP labels left,right"),
        std::string("# nn_tune comment -win_size_left 3"),
        "# TRAIN rbm_train a b -deltas_norm_minvals " + values(120)}) {
    EXPECT_EQ(remarkOnNote(line), "") << line;
  }
}

TEST(NoteRemarks, areMadeOnOptions) {
  EXPECT_EQ(
      remarkOnNote("# nn_tune comment -win_size_left three"),
      "the value 'three' of -win_size_left is no number; it counts as far as it reads as one, "
      "or as 0");
  EXPECT_EQ(remarkOnNote("# nn_tune comment -win_size_left 3 -win_size_right 4"),
            "has several options, of which only -win_size_left counts, with the line's last word");
}

TEST(NoteRemarks, areMadeOnNormalisations) {
  const std::string few = remarkOnNote("# TRAIN rbm_train a b -deltas_norm_minvals 1,2,3");
  EXPECT_EQ(few.rfind("names deltas_norm_minvals but sets nothing: ", 0), 0u) << few;
  EXPECT_EQ(remarkOnNote("# TRAIN rbm_train a b -deltas_norm_normvals " + values(119) + ",x"),
            "value 120 of deltas_norm_normvals, 'x', is no number; it counts as far as it reads as "
            "one, or as 0");
}

}  // namespace
