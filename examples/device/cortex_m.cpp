// A Cortex-M board on a debugger, or emulated: the recordings are the file `words` on the
// debugger's machine, reached by semihosting, which is what ARM calls that.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "examples/device/Board.h"

int main();

// Where the linker script has put things.
extern "C" {
extern uint32_t data_begin[];
extern uint32_t data_end[];
extern uint32_t data_in_flash[];
extern uint32_t zeros_begin[];
extern uint32_t zeros_end[];
extern uint32_t stack_begin[];  // the lowest address
extern uint32_t stack_end[];
void start();

// What the compiler calls where a function is missing that a class promised: never.
void __cxa_pure_virtual() {
  for (;;) {
  }
}
}

namespace {

constexpr uint32_t kPaint = 0x5AFEC0DE;

enum Request : uint32_t { kOpen = 0x01, kWrite0 = 0x04, kRead = 0x06, kExit = 0x20 };

uintptr_t ask(Request request, const void* arguments) {
  register uintptr_t result asm("r0") = request;
  register const void* given asm("r1") = arguments;
  asm volatile("bkpt 0xAB" : "+r"(result) : "r"(given) : "memory");
  return result;
}

uintptr_t openWords() {
  static const char kName[] = "words";
  constexpr uintptr_t kReadBytes = 1;
  const uintptr_t arguments[] = {reinterpret_cast<uintptr_t>(kName), kReadBytes, sizeof kName - 1};
  return ask(kOpen, arguments);
}

[[noreturn]] void stop(int status) {
  constexpr uintptr_t kApplicationExit = 0x20026;
  const uintptr_t arguments[] = {kApplicationExit, static_cast<uintptr_t>(status)};
  ask(kExit, arguments);
  for (;;) {
  }
}

[[noreturn]] void fail() {
  show("the processor stopped at a fault\n");
  stop(1);
}

// The processor begins here: the stack's end, then whom it calls at the start and at faults.
struct Vectors {
  const void* stack;
  void (*handlers[15])();
};

__attribute__((section(".vectors"), used)) const Vectors kVectors = {
    stack_end,
    {start, fail, fail, fail, fail, fail, fail, fail, fail, fail, fail, fail, fail, fail, fail}};

#ifdef __ARM_FP
// Lets the processor compute floats: a bit of each of two coprocessors.
void allowFloats() {
  auto* const access = reinterpret_cast<volatile uint32_t*>(0xE000ED88);
  *access = *access | (0xFU << 20);
  asm volatile("dsb\nisb" ::: "memory");
}
#else
void allowFloats() {}
#endif

// Fills the stack that is not in use yet.
void paintStack() {
  uint32_t here;
  for (uint32_t* word = stack_begin; word < &here - 16; ++word) *word = kPaint;
}

}  // namespace

void start() {
  allowFloats();
  std::memcpy(data_begin, data_in_flash, static_cast<std::size_t>(data_end - data_begin) * 4);
  std::memset(zeros_begin, 0, static_cast<std::size_t>(zeros_end - zeros_begin) * 4);
  paintStack();
  stop(main());
}

bool readWords(void* bytes, std::size_t count) {
  static const uintptr_t file = openWords();
  const uintptr_t arguments[] = {file, reinterpret_cast<uintptr_t>(bytes), count};
  return ask(kRead, arguments) == 0;  // how many bytes are missing
}

void show(const char* text) { ask(kWrite0, text); }

std::size_t stackUsed() {
  const uint32_t* word = stack_begin;
  while (word < stack_end && *word == kPaint) ++word;
  return static_cast<std::size_t>(stack_end - word) * sizeof *word;
}
