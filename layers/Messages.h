// Where the library's messages go: to the standard error stream, unless the thread that makes
// them collects them.
#pragma once

#include <iosfwd>
#include <sstream>
#include <string>

namespace mlnn {

// Returns the stream for a message: std::cerr itself, with whatever format its owner gave it,
// or what collects this thread's messages. Each message is one insertion chain.
std::ostream& messages();

// Prints a finished message as std::fputs to stderr would, or to what collects this thread's
// messages. For the one line that never passes through std::cerr.
void printMessage(const char* text);

// Collects what the library would print on this thread while the object lives; other threads
// are not touched. Objects nest: the innermost collects.
class CollectedMessages {
 public:
  CollectedMessages();
  ~CollectedMessages();
  CollectedMessages(const CollectedMessages&) = delete;
  CollectedMessages& operator=(const CollectedMessages&) = delete;

  std::string text() const { return out_.str(); }

 private:
  std::ostringstream out_;
  std::ostream* outer_;
};

}  // namespace mlnn
