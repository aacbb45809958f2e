// What others send to end a process: signals, and on Windows Ctrl-C, Ctrl-Break and the closing of
// the console. What the process does to itself, as SIGSEGV and SIGABRT, is not among them.
// Internal: not installed.
#pragma once

namespace mlnn {

// Has `clean` called before one of them ends the process, or with null nothing. One that the caller
// of the program had ignored (as nohup does) stays ignored.
// `clean` reaches nothing but globals, and takes no memory.
void callBeforeEnd(void (*clean)());

// While it lives, they wait. Keeps errno.
class EndingSignalsWait {
 public:
  EndingSignalsWait();
  ~EndingSignalsWait();
  EndingSignalsWait(const EndingSignalsWait&) = delete;
  EndingSignalsWait& operator=(const EndingSignalsWait&) = delete;

 private:
  alignas(long) unsigned char before_[128];  // what the system had in mind
};

}  // namespace mlnn
