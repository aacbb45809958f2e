// The way to std::cerr, apart from layers/Messages.cpp: it takes along the iostreams, which a
// program for a small device has no room for.
#include <iostream>

#include "layers/Report.h"

namespace mlnn {
namespace {

// Unformatted: what its owner gave the stream for a width or a base is not for messages.
void printToStream(const char* line, std::size_t length) {
  std::cerr.write(line, static_cast<std::streamsize>(length));
}

}  // namespace

bool reportToStandardErrorStream() {
  setLinePrinter(printToStream);
  return true;
}

}  // namespace mlnn
