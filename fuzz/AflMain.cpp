// Runs a fuzz target under AFL++: many inputs in one process, each from shared memory.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

__AFL_FUZZ_INIT();

int main() {
  __AFL_INIT();
  const unsigned char* const input = __AFL_FUZZ_TESTCASE_BUF;
  while (__AFL_LOOP(10000)) {
    // A block of its own, so that a byte too far is noticed.
    const std::vector<uint8_t> bytes(input, input + __AFL_FUZZ_TESTCASE_LEN);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  return 0;
}
