// The .npy file format: a header that describes an array, and its values.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace mlnn {

// Whether the bytes begin as a .npy file does.
bool isNpy(const std::string& bytes);

// Whether they do so as far as they go.
bool couldBeNpy(std::string_view bytes);

// What the header of an array tells, and where its values begin.
struct NpyArray {
  uint64_t frames;
  uint64_t values;  // of a frame
  bool areDoubles;
  bool fortranOrder;  // the first value of all frames, the second one of all frames, ...
  std::size_t begin;  // in bytes from the beginning of the file
  std::string shape;  // as messages show it

  std::size_t valueLength() const { return areDoubles ? sizeof(double) : sizeof(float); }
};

// Reads the header of an array of which `bytes` are the beginning.
// Returns: nothing where more of them are needed, of which `wanted` then says how many, at least.
// Throws: Failure that begins with `what`, as parseNpy does.
std::optional<NpyArray> parseNpyHeader(std::string_view bytes, const std::string& what,
                                       std::size_t& wanted);

// Says that the bytes, for which parseNpyHeader wants more, are all.
// Throws: Failure that begins with `what`.
[[noreturn]] void failInNpyHeader(std::string_view bytes, const std::string& what);

// Makes sure that there are as many bytes of values as the header says.
// Throws: Failure that begins with `what`.
void checkNpyLength(const NpyArray& array, uint64_t available, const std::string& what);

// Copies so many values as floats, from memory where they need not be aligned.
void copyNpyValues(const NpyArray& array, const char* from, std::size_t count, float* target);

// Parses an array of frames x values: versions 1.0, 2.0 and 3.0, little-endian float32 or
// float64, either memory order. One dimension means one frame. Values are rounded to single
// precision. Nothing is allocated before the sizes are known to agree with the bytes.
// Returns: values x frames.
// Throws: Failure that begins with `what`.
Eigen::MatrixXf parseNpy(const std::string& bytes, const std::string& what);

// Returns what stands before the values of an array that writeNpy writes. It is as long whatever
// there are of frames.
std::string npyHeader(uint64_t frames, uint64_t values);

// Writes values x frames as an array of frames x values: version 1.0, float32, C order.
void writeNpy(const Eigen::MatrixXf& frames, std::ostream& out);

}  // namespace mlnn
