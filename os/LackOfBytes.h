// What happens when the bytes of a mapped file cannot be had any more. Internal: not installed.
#pragma once

#include <cstddef>
#include <string>

namespace mlnn {

// What is to be known of one mapped file, where any thread may find its bytes gone.
struct MappedBytes {
  const void* data = nullptr;
  std::size_t length = 0;
  std::string message;        // a line for the standard error stream
  void (*clean)() = nullptr;  // comes before it; reaches nothing but globals, and takes no memory
  int status = 1;             // with which the process ends then
};

// Ends the process like that from now on, for one file at a time.
void endForLackOf(const MappedBytes& bytes);

// From now on, whoever reads bytes that are gone has what the system does then.
void letLackBe();

}  // namespace mlnn
