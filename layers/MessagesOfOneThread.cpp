// Messages where there is one thread, no heap and no standard error stream: in place of
// layers/Messages.cpp in a build with MLNN_BARE_METAL. Without a sink a message goes nowhere, but
// the latest error stays for lastError(). Texts are cut to what that keeps.
#include <algorithm>

#include "layers/MessageText.h"
#include "layers/Messages.h"
#include "layers/Report.h"

namespace mlnn {
namespace {

char lastErrorText[kLastErrorSize] = {};
MessageSink sinkOfAll = nullptr;
void* sinkData = nullptr;

// Puts the text of a message into `text`, with a zero byte behind it. Returns its length.
std::size_t join(std::initializer_list<MessagePiece> pieces, char (&text)[kLastErrorSize]) {
  std::size_t length = 0;
  for (const MessagePiece& piece : pieces) {
    const std::size_t count = std::min(piece.text().size(), kLastErrorSize - 1 - length);
    std::copy_n(piece.text().data(), count, text + length);
    length += count;
  }
  text[length] = '\0';
  return length;
}

}  // namespace

void report(std::initializer_list<MessagePiece> pieces) {
  char text[kLastErrorSize];
  const std::string_view message(text, join(pieces, text));
  const Severity severity = severityOf(message);
  if (severity == Severity::kError) std::copy_n(text, message.size() + 1, lastErrorText);
  if (sinkOfAll != nullptr) sinkOfAll(severity, message, sinkData);
}

void setMessageSink(MessageSink sink, void* data) {
  sinkOfAll = sink;
  sinkData = data;
}

const char* lastError() { return lastErrorText; }

void clearLastError() { lastErrorText[0] = '\0'; }

}  // namespace mlnn
