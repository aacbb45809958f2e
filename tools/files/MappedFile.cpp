#include "tools/files/MappedFile.h"

#include "os/LackOfBytes.h"
#include "tools/ExitStatus.h"
#include "tools/files/InputFile.h"
#include "tools/files/UnfinishedFile.h"

namespace mlnn {
MappedFile::MappedFile(int descriptor, std::size_t length, const std::string& name)
    : mapping_(descriptor, length) {
  if (data() == nullptr) return;
  endForLackOf({data(), length, "ERROR: cannot read " + inputName(name) + ": it became shorter\n",
                UnfinishedFile::removeAny, kRefused});
}

MappedFile::~MappedFile() {
  if (data() != nullptr) letLackBe();
}

}  // namespace mlnn
