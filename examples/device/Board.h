// What name_words.cpp needs of the board that it runs on. Each board has its own source:
// cortex_m.cpp, and desk.cpp for a computer with a system.
#pragma once

#include <cstddef>

// Reads so many bytes of the recordings. Returns: whether there were as many.
bool readWords(void* bytes, std::size_t count);

// Shows a text that ends in a zero byte.
void show(const char* text);

// Returns the most bytes of stack that were in use at once so far; 0 where nobody knows.
std::size_t stackUsed();
