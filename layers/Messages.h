// Messages — what the library says while it works, and who hears it: what collects the thread's
// messages, else the sink of the process, else the standard error stream.
//
// A message is one line for one event. How its text begins tells its severity, and the text is the
// same wherever it goes. A program that looks for none of this sees every message as a line on
// std::cerr (one, of MultiLayerNNModel::retainPrecisionBits, on stdio's stderr), each in one write,
// so that the lines of several threads stay whole. Numbers in a message are decimal, whatever
// format or locale std::cerr was given. A static program that takes images only
// (mlnn::ImageFwdPass) has no std::cerr of the library's: there the lines go to stdio's stderr,
// which is the same unless the program turned std::cerr elsewhere.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "features/Export.h"

namespace mlnn {

enum class Severity {
  kError,    // "ERROR: " or "ERRROR: ": something was refused, or read with a fault
  kWarning,  // "Warning: ": done, with a reservation
  kInfo,     // "info: ", and the line that begins "v_range "
};

// One line for one event.
struct Message {
  Severity severity;  // as the beginning of the text tells
  std::string text;   // with its beginning, without the line feed at its end
};

// Takes a message. `text` is as in Message and has a zero byte behind it; it holds until the call
// returns. `data` is what was given with the sink.
// Thread-safety: is called by the thread that makes the message, so by any that uses the library,
// and by several at once. It may call the library. It must not throw.
using MessageSink = void (*)(Severity severity, std::string_view text, void* data);

// From now on the process's messages go to `sink`, but for those that a thread collects; to the
// standard error stream again where it is null.
// Lifetime: a message that another thread began before may still reach the sink that was there, so
// that one's `data` must stay as long as such a thread may be within the library.
// Thread-safety: from any thread at any time.
MLNN_EXPORT void setMessageSink(MessageSink sink, void* data);

// A sink for programs that want to hear of problems only, setMessageSink(mlnn::printProblems,
// nullptr): errors and warnings go to the standard error stream as they do without a sink, and
// information goes nowhere.
MLNN_EXPORT void printProblems(Severity severity, std::string_view text, void* data);

// Collects what the library says on this thread while the object lives; other threads are not
// touched. Objects nest: the innermost collects alone. Where there is no memory for a message,
// std::bad_alloc passes through the operation that made it.
// REQUIRES: made and destroyed by one thread, the latest first.
class MLNN_EXPORT CollectedMessages {
 public:
  CollectedMessages();
  ~CollectedMessages();
  CollectedMessages(const CollectedMessages&) = delete;
  CollectedMessages& operator=(const CollectedMessages&) = delete;

  // What was collected so far, in order.
  const std::vector<Message>& messages() const { return messages_; }

  // The same as the standard error stream would have had it: a line feed behind each message.
  std::string text() const;

 private:
  std::vector<Message> messages_;
  std::vector<Message>* outer_;
};

// Returns the latest error message of this thread (its first 511 bytes), wherever it went; empty
// where there was none. It stays until this thread's next one or clearLastError(): like errno it
// tells why an operation was refused, not whether one was, and an operation that refuses without a
// message leaves it as it is.
// Lifetime: the thread's own memory, which changes with its next error message.
// Thread-safety: each thread has its own.
MLNN_EXPORT const char* lastError();

// Makes lastError() empty.
MLNN_EXPORT void clearLastError();

}  // namespace mlnn
