// The command-line tool `mlnn`. Its commands: tools/commands/Commands.cpp.
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "os/Program.h"
#include "tools/OutOfMemory.h"
#include "tools/commands/Commands.h"
#include "tools/files/UnfinishedFile.h"

namespace {

// What nobody catches ends here: memory that runs out before main, while the objects are made
// that the options' library keeps for the whole program; or that is too short even for throwing.
[[noreturn]] void endInOrder() {
  try {
    if (std::current_exception()) throw;
  } catch (const std::bad_alloc&) {
  } catch (...) {
    std::abort();
  }
  mlnn::UnfinishedFile::removeAny();
  mlnn::endAtOnce(mlnn::kOutOfMemory, mlnn::kRefused);
}

// Before all of those objects, whose priority is the lowest.
__attribute__((constructor(101))) void endInOrderFromTheStart() { std::set_terminate(endInOrder); }

int run(mlnn::Tool& tool, const std::vector<std::string>& words) {
  std::vector<const char*> line;
  line.reserve(words.size() + 1);
  for (const std::string& word : words) line.push_back(word.c_str());
  line.push_back(nullptr);
  return tool.run(static_cast<int>(words.size()), line.data());
}

}  // namespace

int main(int argc, char** argv) {
  mlnn::beginProgram();
  try {
    mlnn::Tool tool;
    mlnn::addCommands(tool);
    return run(tool, mlnn::wordsOf(argc, argv));
  } catch (const std::bad_alloc&) {  // what the options are takes memory, too, and so do messages
    mlnn::printOutOfMemory();
    return mlnn::kRefused;
  }
}
