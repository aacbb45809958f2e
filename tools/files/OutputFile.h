// OutputFile — a file that appears under its name only when it is complete.
#pragma once

#include <ostream>
#include <string>

#include "os/Descriptors.h"
#include "tools/Failure.h"
#include "tools/files/DescriptorBuffer.h"
#include "tools/files/FileDescriptor.h"
#include "tools/files/UnfinishedFile.h"

namespace mlnn {

// A file could not be written.
class WriteFailure : public Failure {
 public:
  WriteFailure(const std::string& what, int error);

  int error() const { return error_; }  // an errno; 0 where it is not known

 private:
  int error_;
};

// Writes beside the file, in the same folder, and takes its name at the end, when all is on the
// disk; until then, and after a failure, whatever had that name is untouched. A file that is
// replaced keeps its permissions and, as far as the process may give them, its owner and group; a
// symbolic link keeps pointing to it. It is another file then: hard links keep to the old one, and
// set-user-ID, set-group-ID and sticky bits, access lists and extended attributes are not taken
// over.
//
// "-" is the standard output; that, whatever else is a descriptor's (/dev/stdout, /dev/fd/3), and
// what is not a regular file (a pipe, a device), is written to directly.
//
// A signal from outside that ends the process, but for SIGKILL, removes the unfinished file as
// well.
class OutputFile {
 public:
  // Throws: WriteFailure that names the file and the reason.
  explicit OutputFile(const std::string& name);

  std::ostream& stream() { return stream_; }

  // Whether it is a file of its own until it takes its name, so that what was written can be
  // changed.
  bool canBeginAgain() const { return !unfinished_.path().empty(); }

  // Puts these bytes in the place of the first ones that were written.
  // REQUIRES: canBeginAgain(), and as many were written. Throws: WriteFailure.
  void overwrite(const std::string& bytes);

  // Makes sure that everything is written, and gives the file its name.
  // Throws: WriteFailure; then nothing is left behind.
  void finish();

  // A file that is whole, but may not be on the disk and not have its name yet. It is removed with
  // the object where it has none.
  class Whole {
   public:
    // Whether it waits for its name: what is written to directly has it.
    bool hasNoName() const { return !unfinished_.path().empty(); }
    const std::string& path() const { return path_; }  // which it is to have

    // Throws: WriteFailure; then nothing is left behind when the object goes.
    void waitForDisk() const;
    void takeName();

   private:
    friend class OutputFile;
    Whole(std::string name, std::string path, UnfinishedFile unfinished, FileDescriptor descriptor);

    std::string name_;
    std::string path_;
    UnfinishedFile unfinished_;
    FileDescriptor descriptor_;
  };

  // The same in steps, for somebody who waits for the disk later. Only the destructor may follow.
  // Throws: WriteFailure; then nothing is left behind.
  Whole whole();

 private:
  FileDescriptor open();
  FileDescriptor copyOf(int descriptor);
  FileDescriptor openBeside(const FileAccess* replaced);
  [[noreturn]] void fail(int error) const;

  std::string name_;  // as the caller gave it, for messages
  std::string path_;  // the file itself, at the end of all links
  UnfinishedFile unfinished_;
  FileDescriptor descriptor_;
  DescriptorBuffer buffer_;
  std::ostream stream_;
};

}  // namespace mlnn
