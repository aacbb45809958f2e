#include <unistd.h>

#include <array>
#include <cstdlib>
#include <iostream>

#include "fuzz/Support.h"

namespace mlnn::fuzz {
namespace {

// A buffer of fixed size; what does not fit is dropped.
class FixedBuffer : public std::streambuf {
 public:
  FixedBuffer() { clear(); }

  void clear() { setp(memory_.data(), memory_.data() + memory_.size()); }
  std::string_view text() const { return {pbase(), static_cast<std::size_t>(pptr() - pbase())}; }

 protected:
  int_type overflow(int_type) override { return 0; }

 private:
  std::array<char, std::size_t{1} << 20> memory_;
};

FixedBuffer& gathered() {
  static FixedBuffer buffer;
  return buffer;
}

ssize_t gather(void*, const char* text, std::size_t length) {
  gathered().sputn(text, static_cast<std::streamsize>(length));
  return static_cast<ssize_t>(length);
}

std::FILE* gatheringFile() {
  static std::FILE* const file = [] {
    std::FILE* made = fopencookie(nullptr, "w", {nullptr, gather, nullptr, nullptr});
    if (made == nullptr) report("fopencookie failed");
    std::setvbuf(made, nullptr, _IONBF, 0);
    return made;
  }();
  return file;
}

}  // namespace

void report(const std::string& finding) {
  dprintf(STDERR_FILENO, "FINDING: %s\n", finding.c_str());
  std::abort();
}

Diagnostics::Diagnostics() : shown_{std::cerr.rdbuf(&gathered()), stderr, -1} {
  gathered().clear();
  stderr = gatheringFile();
}

Diagnostics::~Diagnostics() {
  std::cerr.rdbuf(shown_.stream);
  stderr = shown_.file;
}

std::string_view Diagnostics::text() const { return gathered().text(); }

void Diagnostics::clear() { gathered().clear(); }

}  // namespace mlnn::fuzz
