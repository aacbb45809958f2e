// Runs a fuzz target over files, without a fuzzer: the corpus and every past failure in the
// ordinary tests, built by any compiler. Then over random changes to these files, always the same
// ones, so that a target is tried a little on every platform.
// Usage: Replay [--mutants N] FILE|FOLDER...
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed);

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxLength = 4096;

std::minstd_rand randomSource;

std::size_t below(std::size_t limit) { return randomSource() % limit; }

void addFile(const fs::path& path, std::vector<std::string>& inputs) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::cerr << "Replay: cannot read " << path << "\n";
    std::exit(2);
  }
  inputs.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> readInputs(const std::vector<std::string>& names) {
  std::vector<fs::path> paths;
  for (const std::string& name : names) {
    if (!fs::is_directory(name)) {
      paths.emplace_back(name);
      continue;
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(name)) {
      paths.push_back(entry.path());
    }
  }
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> inputs;
  for (const fs::path& path : paths) addFile(path, inputs);
  return inputs;
}

// A block of its own, as a fuzzer gives one, so that a byte too far is noticed.
void run(const std::string& input) {
  const std::vector<uint8_t> bytes(input.begin(), input.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

std::string mutated(const std::string& input) {
  std::vector<uint8_t> bytes(std::max(input.size(), kMaxLength));
  std::copy(input.begin(), input.end(), bytes.begin());
  std::size_t length = input.size();
  for (std::size_t times = 1 + below(4); times > 0; --times) {
    length = LLVMFuzzerCustomMutator(bytes.data(), length, bytes.size(),
                                     static_cast<unsigned int>(randomSource()));
  }
  return std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
}

}  // namespace

// What the fuzzer's library offers to custom mutators, here without its knowledge.
extern "C" std::size_t LLVMFuzzerMutate(uint8_t* data, std::size_t size, std::size_t maxSize) {
  switch (below(4)) {
    case 0:
      if (size == maxSize) return size;
      data[size] = static_cast<uint8_t>(below(256));
      std::rotate(data + below(size + 1), data + size, data + size + 1);
      return size + 1;
    case 1:
      if (size < 2) return size;
      std::memmove(data, data + 1, size - 1);
      return size - 1;
    default:
      if (size > 0) data[below(size)] ^= static_cast<uint8_t>(1u << below(8));
      return size;
  }
}

int main(int argc, char** argv) {
  std::vector<std::string> names(argv + 1, argv + argc);
  std::size_t mutants = 0;
  if (names.size() >= 2 && names[0] == "--mutants") {
    mutants = std::stoul(names[1]);
    names.erase(names.begin(), names.begin() + 2);
  }
  const std::vector<std::string> inputs = readInputs(names);
  if (inputs.empty()) {
    std::cerr << "Replay: no inputs\n";
    return 2;
  }
  for (const std::string& input : inputs) run(input);
  for (std::size_t i = 0; i < mutants; ++i) run(mutated(inputs[below(inputs.size())]));
  std::cout << inputs.size() << " inputs and " << mutants << " mutants: nothing found\n";
  return 0;
}
