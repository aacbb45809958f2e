#include "os/LackOfBytes.h"

#include <signal.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>

namespace mlnn {
namespace {

// Handlers reach nothing but globals.
MappedBytes& mapped() {
  static MappedBytes bytes;
  return bytes;
}

extern "C" void endForLackOfBytes(int signal, siginfo_t* info, void*) {
  const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
  const auto begin = reinterpret_cast<std::uintptr_t>(mapped().data);
  if (address < begin || address >= begin + mapped().length) {
    std::signal(signal, SIG_DFL);  // as if there were no handler
    std::raise(signal);
    return;
  }
  mapped().clean();
  const std::string& message = mapped().message;
  const ssize_t written = write(STDERR_FILENO, message.data(), message.size());
  static_cast<void>(written);  // there is nobody left to tell
  _exit(mapped().status);
}

}  // namespace

void endForLackOf(const MappedBytes& bytes) {
  mapped() = bytes;
  struct sigaction action = {};
  action.sa_sigaction = endForLackOfBytes;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGBUS, &action, nullptr);
}

void letLackBe() { std::signal(SIGBUS, SIG_DFL); }

}  // namespace mlnn
