#include "layers/Messages.h"

#include <cstdio>
#include <iostream>
#include <locale>

namespace mlnn {
namespace {

// What collects this thread's messages; null where they go to the standard error stream.
thread_local std::ostream* collector = nullptr;

}  // namespace

std::ostream& messages() { return collector == nullptr ? std::cerr : *collector; }

void printMessage(const char* text) {
  if (collector == nullptr) {
    std::fputs(text, stderr);
  } else {
    *collector << text;
  }
}

CollectedMessages::CollectedMessages() : outer_(collector) {
  out_.imbue(std::locale::classic());
  collector = &out_;
}

CollectedMessages::~CollectedMessages() { collector = outer_; }

}  // namespace mlnn
