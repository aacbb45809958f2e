// takesLinearTime — tells work whose time grows with the length of its input from work whose time
// grows with a power of it.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <string>

namespace mlnn::test {

// Returns an input of about this many bytes.
using InputOfLength = std::function<std::string(std::size_t)>;
using WorkOnInput = std::function<void(const std::string&)>;

// Measures the work's processor time at some length and at four times that length, which in
// linear time takes four times as long, and in quadratic time sixteen times. The length is
// 256 KiB, or less where that takes some milliseconds already. Up to 8 times as long is taken for
// linear, since memory is slower where more of it is in use; and so is less than a millisecond for
// the longer input.
// Noise makes work slower and never faster, so the least of three runs counts, and where that
// grows too much, all is measured again, some times. What then still grows too much is measured at
// four and at sixteen times the length: where arrays reach some size, the system's part in making
// them takes longer at one go, which happens once, while a power grows at every step.
::testing::AssertionResult takesLinearTime(const InputOfLength& input, const WorkOnInput& work);

}  // namespace mlnn::test
