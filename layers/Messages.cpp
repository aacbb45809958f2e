#include "layers/Messages.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>

#include "layers/MessageText.h"
#include "layers/Report.h"
#include "os/ProcessLock.h"

namespace mlnn {
namespace {

void printByStdio(const char* line, std::size_t length) { std::fwrite(line, 1, length, stderr); }

// What collects this thread's messages; null where nothing does.
thread_local std::vector<Message>* collected = nullptr;

// An array, so that it neither takes memory nor ends before the thread's last message.
thread_local char lastErrorText[kLastErrorSize] = {};

struct Sink {
  MessageSink take;
  void* data;
};

Sink processSink = {};  // under the lock of the process

std::atomic<LinePrinter> linePrinter = printByStdio;

Sink currentSink() {
  const ProcessLock lock;
  return processSink;
}

void remember(std::string_view error) {
  const std::size_t length = std::min(error.size(), kLastErrorSize - 1);
  std::memcpy(lastErrorText, error.data(), length);
  lastErrorText[length] = '\0';
}

// The text of a message, and a byte behind it.
class Text {
 public:
  explicit Text(std::initializer_list<MessagePiece> pieces) {
    for (const MessagePiece& piece : pieces) length_ += piece.text().size();
    if (length_ >= sizeof few_) many_.reset(new char[length_ + 1]);
    char* end = bytes();
    for (const MessagePiece& piece : pieces) {
      end = std::copy(piece.text().begin(), piece.text().end(), end);
    }
  }

  std::string_view endingIn(char last) {
    bytes()[length_] = last;
    return {bytes(), length_};
  }

 private:
  char* bytes() { return many_ ? many_.get() : few_; }

  std::size_t length_ = 0;
  char few_[256];
  std::unique_ptr<char[]> many_;
};

void deliver(std::initializer_list<MessagePiece> pieces, LinePrinter print) {
  Text message(pieces);
  const std::string_view text = message.endingIn('\0');
  const Severity severity = severityOf(text);
  if (severity == Severity::kError) remember(text);
  if (collected != nullptr) {
    collected->push_back({severity, std::string(text)});
  } else if (const Sink sink = currentSink(); sink.take != nullptr) {
    sink.take(severity, text, sink.data);
  } else {
    print(message.endingIn('\n').data(), text.size() + 1);
  }
}

}  // namespace

void report(std::initializer_list<MessagePiece> pieces) { deliver(pieces, linePrinter.load()); }

void reportByStdio(const char* text) { deliver({text}, printByStdio); }

void setLinePrinter(LinePrinter printer) { linePrinter = printer; }

void setMessageSink(MessageSink sink, void* data) {
  const ProcessLock lock;
  processSink = {sink, data};
}

void printProblems(Severity severity, std::string_view text, void*) {
  if (severity == Severity::kInfo) return;
  Text message({std::string(text)});
  const std::string_view line = message.endingIn('\n');
  linePrinter.load()(line.data(), line.size() + 1);
}

CollectedMessages::CollectedMessages() : outer_(collected) { collected = &messages_; }

CollectedMessages::~CollectedMessages() { collected = outer_; }

std::string CollectedMessages::text() const {
  std::string text;
  for (const Message& message : messages_) (text += message.text) += '\n';
  return text;
}

const char* lastError() { return lastErrorText; }

void clearLastError() { lastErrorText[0] = '\0'; }

}  // namespace mlnn
