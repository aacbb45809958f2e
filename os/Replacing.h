// What it takes to write a file beside another one and put it in its place in one step. Names as in
// os/Names.h; what fails tells why by errno. Internal: not installed.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "os/Descriptors.h"

namespace mlnn {

// The number of the own descriptor that the path stands for, as /dev/fd/3 does; else nothing.
std::optional<int> descriptorNamed(const std::filesystem::path& path);

// Follows symbolic links to what they name, which need not exist. Those of own descriptors stay:
// the file that is behind one may have another name by now, or none.
std::filesystem::path withoutLinks(std::filesystem::path path);

constexpr std::size_t kEndingOfNewFile = 6;

// Makes an empty file of a new name, `beginning` and kEndingOfNewFile characters, which `beginning`
// has then. Takes no memory where it has room for them.
// Returns: its descriptor, to write bytes as they are; -1 where that cannot be.
int makeNewFile(std::string& beginning);

// Gives a new file who may do what with it: owner and group of the file that it replaces, where
// the process may, and its permissions; or for null what any new file gets.
// Returns: whether it has the permissions.
bool takeAccess(int descriptor, const FileAccess* replaced);

// Waits until the file is on the disk, where the file system knows such a request.
bool reachesDisk(int descriptor);

// Waits until all that was written below these folders is on the disk. Returns: whether that is
// known; where it is not, each file has to wait for itself.
bool reachDiskTogether(const std::vector<std::string>& folders);

// Gives the file the name of another one, which is gone then, in one step.
bool replaceFile(const std::string& file, const std::string& replaced);

// Removes a file if it is there. Takes no memory: handlers of signals may call it.
void removeFile(const char* name);

// The descriptors that the process may have.
long mostDescriptors();

}  // namespace mlnn
