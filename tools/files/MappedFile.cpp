#include "tools/files/MappedFile.h"

#include <unistd.h>

#include <csignal>
#include <cstdint>

#include "tools/ExitStatus.h"
#include "tools/files/InputFile.h"
#include "tools/files/UnfinishedFile.h"

namespace mlnn {
namespace {

// What the handler has to know; handlers reach nothing but globals.
struct MappedBytes {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
  std::string message;
};

MappedBytes& mapped() {
  static MappedBytes bytes;
  return bytes;
}

extern "C" void endForLackOfBytes(int signal, siginfo_t* info, void*) {
  const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
  if (address < mapped().begin || address >= mapped().end) {
    std::signal(signal, SIG_DFL);  // as if there were no handler
    std::raise(signal);
    return;
  }
  UnfinishedFile::removeAny();
  const std::string& message = mapped().message;
  const ssize_t written = write(STDERR_FILENO, message.data(), message.size());
  static_cast<void>(written);  // there is nobody left to tell
  _exit(kRefused);
}

void handleLackOf(const void* data, std::size_t length, const std::string& name) {
  mapped().begin = reinterpret_cast<std::uintptr_t>(data);
  mapped().end = mapped().begin + length;
  mapped().message = "ERROR: cannot read " + inputName(name) + ": it became shorter\n";
  struct sigaction action = {};
  action.sa_sigaction = endForLackOfBytes;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGBUS, &action, nullptr);
}

}  // namespace

MappedFile::MappedFile(int descriptor, std::size_t length, const std::string& name)
    : mapping_(descriptor, length) {
  if (data() != nullptr) handleLackOf(data(), length, name);
}

MappedFile::~MappedFile() {
  if (data() != nullptr) std::signal(SIGBUS, SIG_DFL);
}

}  // namespace mlnn
