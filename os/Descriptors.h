// Descriptors of open files, and what a name stands for. Names as in os/Names.h.
// What fails tells why by errno. Internal: not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace mlnn {

constexpr int kStandardInput = 0;
constexpr int kStandardOutput = 1;
constexpr int kStandardError = 2;

// Device and number of a file, which all its names share. The system's own types have another width
// where a program is built for short numbers of files.
using FileIdentity = std::pair<uint64_t, uint64_t>;

enum class FileKind { kRegular, kCharacterDevice, kOther };

// What a file that is replaced hands down to the one that takes its place.
struct FileAccess {
  unsigned owner = 0;
  unsigned group = 0;
  unsigned permissions = 0;
};

struct FileStatus {
  FileKind kind = FileKind::kOther;
  uint64_t length = 0;
  FileIdentity identity;
  FileAccess access;
};

// Each returns whether that could be done. The second follows links, and opens nothing where that
// could be noticed.
bool readStatus(int descriptor, FileStatus& status);
bool readStatus(const char* name, FileStatus& status);

// Each returns a descriptor that programs which are started do not get, for bytes as they are, or
// -1.
int openForReading(const char* name);
int openForWriting(const char* name);  // the file must be there, and stays as it is
int duplicated(int descriptor);

// Each returns how many bytes it was, 0 at the end of the file, or -1.
std::ptrdiff_t readBytes(int descriptor, void* bytes, std::size_t most);
std::ptrdiff_t writeBytes(int descriptor, const void* bytes, std::size_t count);

// The same from a place of a regular file on; where the next call of readBytes reads is not known
// then.
std::ptrdiff_t readBytesAt(int descriptor, uint64_t place, void* bytes, std::size_t most);

// Returns whether readBytes would return at once.
bool hasBytesReady(int descriptor);

// Returns the place in a regular file from which bytes are read, or to which they are written, or
// -1.
int64_t placeIn(int descriptor);

// Returns whether that is another place now.
bool moveTo(int descriptor, uint64_t place);

// Returns whether the file was closed without an error.
bool closeDescriptor(int descriptor);

bool isTerminal(int descriptor);

}  // namespace mlnn
