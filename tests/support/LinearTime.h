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

// Counts the instructions that the work takes for 64 KiB and for four times as much, which in
// linear time takes four times as many, and in quadratic time sixteen times. Up to 6 times as many
// is taken for linear, since arrays that grow are copied a few times; and so is less than a million
// for the longer input.
// Counted, not timed: the same on every machine, busy or not. Whoever runs this must run the
// program by callgrind with --callgrind-out-file=FILE and give FILE as $CALLGRIND_OUT_FILE;
// without, the result is a failure that says so.
::testing::AssertionResult takesLinearTime(const InputOfLength& input, const WorkOnInput& work);

}  // namespace mlnn::test
