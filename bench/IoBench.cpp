// Reading and writing models, beside what the machine and general libraries do with the same
// bytes, in one table. Usage: IoBench [--megabytes N,N...] [--rounds N] [--folder DIR]
//
// All contenders of a section take turns, round by round, each running twice and timed the second
// time, and the median counts. Times are those of the processor, the kernel's part included, so
// that others who use it do not count. Files are in the page cache. Each load makes memory of its
// own, freed when the clock has stopped; "fresh" memory comes from the kernel, untouched.
#include <fast_float/fast_float.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/OnnxFile.h"
#include "inference/ImageFwdPass.h"
#include "model/MultiLayerNNModel.h"

namespace fs = std::filesystem;

namespace {

// What a run made; it goes when the clock has stopped.
using Result = std::shared_ptr<void>;

struct Contender {
  std::string name;
  std::function<Result()> run;
};

struct Section {
  std::string title;
  std::size_t bytes;  // that each run reads or writes
  std::vector<Contender> contenders;
};

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

// --- Measuring ---

double processorSeconds() {
  timespec time;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// Runs it twice and times the second run, so that it does not matter what the contender before
// it left: a virtual machine, for one, takes long to hand out memory that was idle.
double secondsOf(const Contender& contender) {
  contender.run();
  const double start = processorSeconds();
  const Result result = contender.run();
  const double seconds = processorSeconds() - start;
  return seconds;
}

std::vector<double> medians(const Section& section, int rounds) {
  std::vector<std::vector<double>> times(section.contenders.size());
  for (int round = -1; round < rounds; ++round) {  // the first one warms up
    for (std::size_t i = 0; i < times.size(); ++i) {
      const double seconds = secondsOf(section.contenders[i]);
      if (round >= 0) times[i].push_back(seconds);
    }
  }
  std::vector<double> result;
  for (std::vector<double>& of : times) {
    std::nth_element(of.begin(), of.begin() + rounds / 2, of.end());
    result.push_back(of[static_cast<std::size_t>(rounds / 2)]);
  }
  return result;
}

// Ratios are speeds relative to the first contender's.
void print(const Section& section, int rounds) {
  const std::vector<double> times = medians(section, rounds);
  std::printf("\n%s, %.1f MB\n", section.title.c_str(), static_cast<double>(section.bytes) / 1e6);
  for (std::size_t i = 0; i < times.size(); ++i) {
    std::printf("  %-44s %10.3f ms %9.0f MB/s %7.2fx\n", section.contenders[i].name.c_str(),
                1e3 * times[i], static_cast<double>(section.bytes) / times[i] / 1e6,
                times[0] / times[i]);
  }
  std::fflush(stdout);
}

// --- Models and files ---

// A network of 600 inputs and 40 outputs with about so many parameters.
MultiLayerNNModel networkOf(std::size_t parameters) {
  const auto width = static_cast<int>(
      (std::sqrt(640.0 * 640.0 + 4.0 * static_cast<double>(parameters)) - 640.0) / 2);
  int sizes[] = {600, width, width, 40};
  MultiLayerNNModel model(sizes, 4);
  std::mt19937 random(1);
  for (NNLayer* layer : model.layers) {
    const float scale = 2.0f / std::sqrt(static_cast<float>(layer->weights.cols()));
    std::normal_distribution<float> values(0, scale);
    for (Eigen::Index i = 0; i < layer->weights.size(); ++i)
      layer->weights.data()[i] = values(random);
    for (float& value : layer->bias) value = values(random);
  }
  model.setActFn(ActFn::sigmoid);
  model.deltasNorm.allocIfNeeded();
  return model;
}

std::vector<char> imageOf(const MultiLayerNNModel& model) {
  std::vector<char> image(static_cast<std::size_t>(model.binarySerializedLength()));
  model.serializeBinary(image.data());
  return image;
}

std::string textOf(const MultiLayerNNModel& model) {
  std::ostringstream out;
  model.serializeAscii(out);
  return out.str();
}

template <typename Bytes>
std::string fileOf(const fs::path& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  require(static_cast<bool>(out.flush()), "a file could not be written");
  return path.string();
}

// All parameters, one after the other.
std::vector<float> valuesOf(const MultiLayerNNModel& model) {
  std::vector<float> values;
  for (const NNLayer* layer : model.layers) {
    values.insert(values.end(), layer->weights.data(),
                  layer->weights.data() + layer->weights.size());
  }
  return values;
}

// The values as text, without the model around them.
std::string numbersOf(const std::vector<float>& values) {
  std::ostringstream out;
  for (const float value : values) out << value << '\t';
  return out.str();
}

// --- Contenders ---

Result loaded(const std::string& name) {
  const auto model = std::make_shared<MultiLayerNNModel>();
  require(model->deserialize(name.c_str()) == 0, "a model did not load");
  return model;
}

Result extracted(const std::string& name, std::size_t count) {
  std::ifstream in(name);
  const auto values = std::make_shared<std::vector<float>>(count);
  for (float& value : *values) in >> value;
  require(static_cast<bool>(in), "numbers could not be read");
  return values;
}

const char* skipBlanks(const char* p, const char* end) {
  while (p != end && (*p == '\t' || *p == '\n' || *p == ' ')) ++p;
  return p;
}

// Converts all numbers of a text in memory by `convert(p, end, value)`.
template <typename Convert>
Result converted(const std::string& numbers, std::size_t count, Convert convert) {
  const auto values = std::make_shared<std::vector<float>>(count);
  const char* p = numbers.data();
  const char* const end = p + numbers.size();
  for (float& value : *values) {
    const auto result = convert(skipBlanks(p, end), end, value);
    require(result.ec == std::errc(), "a number could not be converted");
    p = result.ptr;
  }
  return values;
}

// Memory that nobody has touched yet, as malloc takes it from the kernel.
using Memory = std::shared_ptr<char>;
Memory freshMemory(std::size_t length) {
  void* memory = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  require(memory != MAP_FAILED, "no memory");
  return {static_cast<char*>(memory), [length](char* p) { munmap(p, length); }};
}

void readInto(const std::string& name, char* target, std::size_t length) {
  const int file = open(name.c_str(), O_RDONLY);
  require(file >= 0, "a file could not be opened");
  for (std::size_t done = 0; done < length;) {
    const ssize_t count = read(file, target + done, length - done);
    require(count > 0, "a file could not be read");
    done += static_cast<std::size_t>(count);
  }
  close(file);
}

Memory mapped(const std::string& name, std::size_t length) {
  const int file = open(name.c_str(), O_RDONLY);
  void* memory = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, file, 0);
  require(file >= 0 && memory != MAP_FAILED, "a file could not be mapped");
  close(file);
  return {static_cast<char*>(memory), [length](char* p) { munmap(p, length); }};
}

// --- Sections ---

Section textReading(const fs::path& folder, std::size_t bytes) {
  const auto model = std::make_shared<MultiLayerNNModel>(networkOf(bytes / 10));
  const auto text = std::make_shared<std::string>(textOf(*model));
  const std::vector<float> values = valuesOf(*model);
  const auto numbers = std::make_shared<std::string>(numbersOf(values));
  const auto in = std::make_shared<std::istringstream>(*text);
  const std::string name = fileOf(folder / "model.txt", *text);
  const std::string bare = fileOf(folder / "numbers.txt", *numbers);
  const std::size_t count = values.size();
  return {"Text: read",
          text->size(),
          {{"stream extraction, file", [=] { return extracted(bare, count); }},
           {"fast_float, memory",
            [=] {
              return converted(*numbers, count, [](const char* p, const char* end, float& value) {
                return fast_float::from_chars(p, end, value);
              });
            }},
           {"std::from_chars, memory",
            [=] {
              return converted(*numbers, count, [](const char* p, const char* end, float& value) {
                return std::from_chars(p, end, value);
              });
            }},
           {"deserialize, file", [=] { return loaded(name); }},
           {"deserialize, string stream", [=] {
              in->clear();
              in->seekg(0);
              const auto read = std::make_shared<MultiLayerNNModel>();
              require(read->deserialize(*in) == 0, "a model did not load");
              return Result(read);
            }}}};
}

Section textWriting(std::size_t bytes, int precision) {
  const auto model = std::make_shared<MultiLayerNNModel>(networkOf(bytes / 10));
  const auto values = std::make_shared<std::vector<float>>(valuesOf(*model));
  return {"Text: write to /dev/null, " + std::to_string(precision) + " digits",
          textOf(*model).size(),
          {{"stream insertion",
            [=] {
              std::ofstream out("/dev/null");
              out.precision(precision);
              for (const float value : *values) out << value << '\t';
              return Result();
            }},
           {"serializeAscii", [=] {
              std::ofstream out("/dev/null");
              out.precision(precision);
              model->serializeAscii(out);
              return Result();
            }}}};
}

Section imageReading(const fs::path& folder, std::size_t bytes) {
  const MultiLayerNNModel model = networkOf(bytes / 4);
  const auto image = std::make_shared<std::vector<char>>(imageOf(model));
  const std::size_t length = image->size();
  const std::string name = fileOf(folder / "model.mlnn", *image);
  const std::string onnx = (folder / "model.onnx").string();
  mlnn::bench::writeOnnx(onnx, model);
  const Memory touched = freshMemory(length);
  std::memset(touched.get(), 1, length);
  return {"Image: read",
          length,
          {{"read() into fresh memory",
            [=] {
              const Memory memory = freshMemory(length);
              readInto(name, memory.get(), length);
              return Result(memory);
            }},
           {"read() into touched memory",
            [=] {
              readInto(name, touched.get(), length);
              return Result();
            }},
           {"memcpy into fresh memory",
            [=] {
              const Memory memory = freshMemory(length);
              std::memcpy(memory.get(), image->data(), length);
              return Result(memory);
            }},
           {"memcpy into touched memory",
            [=] {
              std::memcpy(touched.get(), image->data(), length);
              return Result();
            }},
           {"ONNX, libonnx (protobuf)", [=] { return mlnn::bench::loadOnnx(onnx); }},
           {"deserialize, file", [=] { return loaded(name); }},
           {"deserializeBinary, memory",
            [=] {
              const auto read = std::make_shared<MultiLayerNNModel>();
              const int consumed =
                  read->deserializeBinary(image->data(), static_cast<unsigned>(length));
              require(consumed == static_cast<int>(length), "an image was refused");
              return Result(read);
            }},
           {"ImageFwdPass, mapped file", [=] {
              const Memory memory = mapped(name, length);
              mlnn::ImageFwdPass pass;
              require(pass.open(memory.get(), length) == 0, "an image was refused");
              return Result();
            }}}};
}

Section imageWriting(const fs::path& folder, std::size_t bytes) {
  const auto model = std::make_shared<MultiLayerNNModel>(networkOf(bytes / 4));
  const auto image = std::make_shared<std::vector<char>>(imageOf(*model));
  const std::size_t length = image->size();
  const std::string name = fileOf(folder / "written.mlnn", *image);
  const Memory touched = freshMemory(length);
  std::memset(touched.get(), 1, length);
  return {"Image: write",
          length,
          {{"read() of such a file into fresh memory",
            [=] {
              const Memory memory = freshMemory(length);
              readInto(name, memory.get(), length);
              return Result(memory);
            }},
           {"memcpy into fresh memory",
            [=] {
              const Memory memory = freshMemory(length);
              std::memcpy(memory.get(), image->data(), length);
              return Result(memory);
            }},
           {"memcpy into touched memory",
            [=] {
              std::memcpy(touched.get(), image->data(), length);
              return Result();
            }},
           {"serializeBinary into fresh memory",
            [=] {
              const Memory memory = freshMemory(length);
              model->serializeBinary(memory.get());
              return Result(memory);
            }},
           {"serializeBinary into touched memory", [=] {
              model->serializeBinary(touched.get());
              return Result();
            }}}};
}

// The image of a model reduced to `bits`, in bytes of the model that it holds.
Section codedImages(const fs::path& folder, std::size_t bytes, int bits) {
  const auto model = std::make_shared<MultiLayerNNModel>(networkOf(bytes / 4));
  const auto plain = static_cast<double>(imageOf(*model).size());
  model->retainPrecisionBits(bits);
  const auto image = std::make_shared<std::vector<char>>(imageOf(*model));
  const std::string name = fileOf(folder / "coded.mlnn", *image);
  const std::size_t length = image->size();
  char title[100];
  std::snprintf(title, sizeof title, "Image reduced to %d bits (%.3f of the plain one), as floats",
                bits, static_cast<double>(length) / plain);
  return {title,
          static_cast<std::size_t>(plain),
          {{"memcpy of as many floats into fresh memory",
            [=] {
              const std::vector<float> values = valuesOf(*model);
              return Result(std::make_shared<std::vector<float>>(values));
            }},
           {"deserialize, file", [=] { return loaded(name); }},
           {"serializeBinary into fresh memory",
            [=] {
              const Memory memory = freshMemory(length);
              model->serializeBinary(memory.get());
              return Result(memory);
            }},
           {"binarySerializedLength", [=] {
              require(model->binarySerializedLength() == static_cast<int>(length), "length");
              return Result();
            }}}};
}

// --- From a file's name to the first posterior ---

template <typename Pass>
void evaluateOne(Pass& pass) {
  const Eigen::MatrixXf input = Eigen::MatrixXf::Constant(pass.numInputs(), 1, 0.5f);
  Eigen::MatrixXf output;
  require(pass.evaluate(input, output) == 0 && std::isfinite(output(0, 0)), "no posterior");
}

Result firstByLoading(const std::string& name) {
  Result result = loaded(name);
  auto& model = *static_cast<MultiLayerNNModel*>(result.get());
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  evaluateOne(*pass);
  return result;
}

Result firstByMapping(const std::string& name, std::size_t length, mlnn::ImageChecksum checksum) {
  const Memory memory = mapped(name, length);
  mlnn::ImageFwdPass pass;
  require(pass.open(memory.get(), length, checksum) == 0, "an image was refused");
  evaluateOne(pass);
  return memory;
}

Section firstPosterior(const fs::path& folder, std::size_t bytes) {
  const MultiLayerNNModel model = networkOf(bytes / 4);
  const std::vector<char> image = imageOf(model);
  const std::string text = fileOf(folder / "first.txt", textOf(model));
  const std::string name = fileOf(folder / "first.mlnn", image);
  const std::string onnx = (folder / "first.onnx").string();
  mlnn::bench::writeOnnx(onnx, model);
  const std::size_t length = image.size();
  return {"From file name to first posterior",
          length,
          {{"deserialize, image", [=] { return firstByLoading(name); }},
           {"deserialize, text of the same network", [=] { return firstByLoading(text); }},
           {"ImageFwdPass, read() into fresh memory",
            [=] {
              const Memory memory = freshMemory(length);
              readInto(name, memory.get(), length);
              mlnn::ImageFwdPass pass;
              require(pass.open(memory.get(), length) == 0, "an image was refused");
              evaluateOne(pass);
              return Result(memory);
            }},
           {"ImageFwdPass, mapped file",
            [=] { return firstByMapping(name, length, mlnn::ImageChecksum::kVerified); }},
           {"ImageFwdPass, mapped file, checksum declined",
            [=] { return firstByMapping(name, length, mlnn::ImageChecksum::kDeclined); }},
           {"ONNX, libonnx, parsed only", [=] { return mlnn::bench::loadOnnx(onnx); }}}};
}

// The readers' information lines would go into the measurement.
void silenceStderr() { require(std::freopen("/dev/null", "w", stderr) != nullptr, "/dev/null"); }

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Measures reading and writing of models");
  std::vector<std::size_t> megabytes = {1, 10, 100, 200};
  int rounds = 5;
  std::string folder = fs::temp_directory_path().string();
  app.add_option("--megabytes", megabytes, "Sizes of the files")
      ->delimiter(',')
      ->capture_default_str();
  app.add_option("--rounds", rounds, "Runs of which the median counts")->check(CLI::Range(1, 1000));
  app.add_option("--folder", folder, "Where the files go; they take six times the largest size");
  CLI11_PARSE(app, argc, argv);
  const fs::path place = fs::path(folder) / ("mlnn-io-bench-" + std::to_string(getpid()));
  fs::create_directories(place);
  silenceStderr();
  for (const std::size_t size : megabytes) {
    const std::size_t bytes = size * 1000 * 1000;
    print(textReading(place, bytes), rounds);
    print(textWriting(bytes, 6), rounds);
    print(textWriting(bytes, 9), rounds);
    print(imageReading(place, bytes), rounds);
    print(imageWriting(folder, bytes), rounds);
    print(codedImages(place, bytes, 8), rounds);
    print(codedImages(place, bytes, 3), rounds);
    print(firstPosterior(place, bytes), rounds);
  }
  fs::remove_all(place);
  return 0;
}
