// Frames of features in files: .npy arrays or text.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <string>

namespace mlnn {

class OutputBatch;

// Reads frames from a file, a pipe or the standard input ("-"). What begins with the magic of
// a .npy file is one (tools/files/Npy.h), anything else is text: one frame a line, numbers
// separated by blanks, tabs or one comma. Blank lines and lines that begin with "#" are skipped, a
// carriage return before the line feed is ignored. A decimal point is "." in every locale.
// Returns: values x frames, at least one of each.
// Throws: Failure that says what was expected and what was found, with line and column or
// byte offset.
Eigen::MatrixXf readFrames(const std::string& name);

// The same, with a warning where a value is not finite.
Eigen::MatrixXf readRecording(const std::string& name);

// Returns what is to be warned of: that values of the file are not finite; "" where all are.
std::string notFiniteWarning(const Eigen::MatrixXf& frames, const std::string& name);
std::string notFiniteWarning(uint64_t values, const std::string& name);

// Parses frames in memory; `what` names them in messages.
Eigen::MatrixXf parseFrames(const std::string& bytes, const std::string& what);

// Writes values x frames, one frame a row: as .npy when the name ends in that, else as text
// with nine digits, which is exact. The file appears when it is complete.
// Throws: Failure.
void writeFrames(const std::string& name, const Eigen::MatrixXf& frames);

// The same for many files: each appears when the batch is committed.
void writeFrames(const std::string& name, const Eigen::MatrixXf& frames, OutputBatch& batch);

}  // namespace mlnn
