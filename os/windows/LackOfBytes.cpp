// The system lets nobody cut a file short that is mapped, but a disk in a network may go.
#include "os/LackOfBytes.h"

#include <io.h>

#include <cstdint>
#include <cstdlib>

#include "os/Descriptors.h"
#include "os/windows/Windows.h"

namespace mlnn {
namespace {

// Handlers reach nothing but globals.
MappedBytes& mapped() {
  static MappedBytes bytes;
  return bytes;
}

LONG CALLBACK endForLackOfBytes(EXCEPTION_POINTERS* exception) {
  const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
  if (record.ExceptionCode != EXCEPTION_IN_PAGE_ERROR) return EXCEPTION_CONTINUE_SEARCH;
  const std::uintptr_t address = record.ExceptionInformation[1];
  const auto begin = reinterpret_cast<std::uintptr_t>(mapped().data);
  const bool isMapped = address >= begin && address < begin + mapped().length;
  if (!isMapped) return EXCEPTION_CONTINUE_SEARCH;
  mapped().clean();
  writeBytes(kStandardError, mapped().message.data(), mapped().message.size());
  std::_Exit(mapped().status);
}

}  // namespace

void endForLackOf(const MappedBytes& bytes) {
  static void* const handler = AddVectoredExceptionHandler(1, endForLackOfBytes);
  static_cast<void>(handler);
  mapped() = bytes;
}

void letLackBe() { mapped().length = 0; }

}  // namespace mlnn
