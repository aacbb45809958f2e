// A computer with a system: recordings come on the standard input.
#include <cstdio>

#include "examples/device/Board.h"

bool readWords(void* bytes, std::size_t count) {
  return std::fread(bytes, 1, count, stdin) == count;
}

void show(const char* text) { std::fputs(text, stdout); }

std::size_t stackUsed() { return 0; }
