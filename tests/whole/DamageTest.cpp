// Exhaustive damage: every change of a kind to the golden files, texts of both versions and
// images without and with codes and row scales. Nothing may crash, every refusal says why, and
// nothing that changes a layer record goes unnoticed. Every byte of the texts and of the image with
// codes takes 25 values, and all 256 where the environment sets MLNN_EXHAUSTIVE:
// scripts/check-all damage does. A sample has each fifth byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "model/ModelFormat.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/Extent.h"
#include "tests/support/ModelDifference.h"
#include "tests/support/SourceTree.h"

namespace {

using mlnn::test::AllocationWatch;
using mlnn::test::firstDifference;
using mlnn::test::sourcePath;

// What loading a damaged file may take, as docs/text-format.md and docs/binary-format.md promise.
std::size_t memoryFor(const std::string& bytes) {
  const bool isImage = mlnn::isImage(bytes);
  constexpr std::size_t kMiB = std::size_t{1} << 20;
  return isImage ? 8 * bytes.size() + kMiB : 64 * bytes.size() + 4 * kMiB;
}

// Counts that no file of this size means.
const std::vector<std::string> kCounts = {"-1",
                                          "0",
                                          "1",
                                          "2147483647",
                                          "2147483648",
                                          "9223372036854775808",
                                          "99999999999999999999999999999999999999999"};

std::string golden(const std::string& name) {
  std::ifstream in(sourcePath("tests/golden/" + name), std::ios::binary);
  EXPECT_TRUE(in) << name;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// What loading some bytes came to. std::cerr is gathered without the descriptor, since there are
// a hundred thousand of these.
struct Loading {
  int result = -1;
  std::string messages;
  std::unique_ptr<MultiLayerNNModel> model = std::make_unique<MultiLayerNNModel>();

  bool says(const std::string& part) const { return messages.find(part) != std::string::npos; }
  bool hasReason() const { return says("ERR"); }
};

Loading load(const std::string& bytes) {
  Loading loading;
  std::ostringstream messages;
  std::streambuf* const shown = std::cerr.rdbuf(messages.rdbuf());
  std::istringstream in(bytes);
  const AllocationWatch watch;
  loading.result = loading.model->deserialize(in);
  EXPECT_LE(watch.peak(), memoryFor(bytes));
  std::cerr.rdbuf(shown);
  loading.messages = messages.str();
  return loading;
}

// Whether what was read can be written, and is read from that again: the same model, which also
// is destroyed on the way.
bool writesAndReads(const MultiLayerNNModel& model) {
  std::ostringstream out;
  out.precision(9);
  model.serializeAscii(out);
  const Loading again = load(out.str());
  std::ostringstream twice;
  twice.precision(9);
  again.model->serializeAscii(twice);
  return again.result == 0 && twice.str() == out.str();
}

// Loads damaged bytes, which must either be refused with a reason or give a model that holds
// together. Returns the result.
int loadDamaged(const std::string& bytes, const std::string& what) {
  const Loading loading = load(bytes);
  if (loading.result != 0) {
    EXPECT_EQ(loading.result, 1) << what;
    EXPECT_TRUE(loading.hasReason()) << what << ": refused without a reason";
    loading.model->checksum();
    return loading.result;
  }
  // A note that moved behind the properties may mean something else there.
  if (bytes.find("# NVP # ") == std::string::npos) {
    EXPECT_TRUE(bytes.compare(0, 4, "MLNN") == 0 || writesAndReads(*loading.model)) << what;
  }
  return loading.result;
}

// --- Texts ---

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line + "\n");
  return lines;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line;
  return text;
}

// Where the integers that follow a keyword stand in a text: begin and length.
std::vector<std::pair<std::size_t, std::size_t>> countsIn(const std::string& text) {
  std::vector<std::pair<std::size_t, std::size_t>> counts;
  std::size_t lineBegin = 0;
  for (const std::string& line : linesOf(text)) {
    std::istringstream words(line);
    std::string keyword;
    words >> keyword;
    const bool hasCounts = keyword == mlnn::kLossKeyword || keyword == mlnn::kAccuracyKeyword ||
                           keyword == mlnn::kNumLayersKeyword || keyword == mlnn::kLayerKeyword ||
                           keyword == mlnn::kBatchNormLayerKeyword;
    for (std::size_t at = 0; hasCounts && at < line.size();) {
      const std::size_t begin = std::min(line.find_first_of("0123456789", at), line.size());
      const std::size_t end = std::min(line.find_first_not_of("0123456789", begin), line.size());
      if (begin < end) counts.emplace_back(lineBegin + begin, end - begin);
      at = end;
    }
    lineBegin += line.size();
  }
  return counts;
}

class DamagedText : public testing::TestWithParam<const char*> {
 protected:
  std::string text_ = golden(GetParam());
};

TEST_P(DamagedText, isWholeWithoutDamage) { EXPECT_EQ(loadDamaged(text_, "whole"), 0); }

TEST_P(DamagedText, everyPrefixIsRefused) {
  // Without its last line feed too: the end of the file might cut a number.
  for (std::size_t length = 0; length < text_.size(); ++length) {
    EXPECT_EQ(loadDamaged(text_.substr(0, length), "prefix of " + std::to_string(length)), 1);
  }
}

// All values of a byte; or its neighbours by one bit, and those that mean something to a reader.
std::vector<int> valuesFor(char byte) {
  std::vector<int> values;
  if (mlnn::test::triesEverything()) {
    for (int value = 0; value < 256; ++value) values.push_back(value);
    return values;
  }
  for (int bit = 0; bit < 8; ++bit) values.push_back(static_cast<unsigned char>(byte) ^ 1 << bit);
  for (const char value : std::string("\0\t\n\v\r #+-.019eExN", 17)) values.push_back(value);
  return values;
}

std::size_t byteStep() { return mlnn::test::triesSample() ? 5 : 1; }

TEST_P(DamagedText, everyByteTakesEveryValue) {
  std::size_t accepted = 0;
  for (std::size_t i = 0; i < text_.size(); i += byteStep()) {
    std::string damaged = text_;
    for (const int value : valuesFor(text_[i])) {
      damaged[i] = static_cast<char>(value);
      const std::string what = "byte " + std::to_string(i) + " = " + std::to_string(value);
      accepted += loadDamaged(damaged, what) == 0 ? 1 : 0;
    }
  }
  EXPECT_GT(accepted, text_.size() / byteStep());  // digits of values, letters of notes
}

TEST_P(DamagedText, adjacentLinesChangePlaces) {
  std::vector<std::string> lines = linesOf(text_);
  for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
    std::swap(lines[i], lines[i + 1]);
    loadDamaged(joined(lines), "lines " + std::to_string(i + 1) + " and the next swapped");
    std::swap(lines[i], lines[i + 1]);
  }
}

TEST_P(DamagedText, aLineIsMissingOrTwice) {
  const std::vector<std::string> lines = linesOf(text_);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const auto at = static_cast<std::ptrdiff_t>(i);
    const std::string number = std::to_string(i + 1);
    const bool isComment = lines[i][0] == '#';
    std::vector<std::string> fewer = lines;
    fewer.erase(fewer.begin() + at);
    const int withoutIt = loadDamaged(joined(fewer), "line " + number + " missing");
    std::vector<std::string> more = lines;
    more.insert(more.begin() + at, lines[i]);
    const int withItTwice = loadDamaged(joined(more), "line " + number + " twice");
    if (isComment) continue;
    EXPECT_EQ(withoutIt, 1) << "line " << number << ": " << lines[i];
    EXPECT_EQ(withItTwice, 1) << "line " << number << ": " << lines[i];
  }
}

TEST_P(DamagedText, everyCountBecomesAnother) {
  const auto counts = countsIn(text_);
  EXPECT_EQ(counts.size(), 12u);  // two curves, the layers, and three for each of three layers
  for (const auto& [begin, length] : counts) {
    const std::string count = text_.substr(begin, length);
    for (const std::string& other : kCounts) {
      if (other == count) continue;
      std::string damaged = text_;
      damaged.replace(begin, length, other);
      EXPECT_EQ(loadDamaged(damaged, "count at " + std::to_string(begin) + " = " + other), 1)
          << begin << " " << other;
    }
  }
}

// The numbers of the feature description in a note: those that make no description are refused, and
// so is a description of another length than the model's inputs. Zero as length means none is told.
TEST_P(DamagedText, everyNumberOfTheDescriptionBecomesAnother) {
  const std::string prefix = "# nn_tune feat_desc mel_deltas:";
  const std::size_t line = text_.find(prefix);
  ASSERT_NE(line, std::string::npos);
  const std::size_t end = text_.find('\n', line);
  const std::vector<std::string> keys = {"bands",  "left",         "right",
                                         "deltas", "line_kernels", "line_kernel_width"};
  const std::vector<int64_t> golden = {1, 1, 1, 0, 0, 0};
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const std::string key = (i == 0 ? ":" : ",") + keys[i] + "=";
    const std::size_t begin = text_.find(key, line) + key.size();
    ASSERT_LT(begin, end) << key;
    ASSERT_EQ(text_.substr(begin, 1), std::to_string(golden[i])) << key;
    for (const std::string& other : kCounts) {
      std::string damaged = text_;
      damaged.replace(begin, 1, other);
      const Loading loading = load(damaged);
      const bool isFlag = keys[i] == "deltas" || keys[i] == "line_kernels";
      const bool isNumber =
          isFlag ? other == "0" || other == "1" : other.size() <= 10 && other != "2147483648";
      EXPECT_EQ(loading.says(" could not deserialize feature description string: "), !isNumber)
          << key << other;
      std::vector<int64_t> values = golden;
      if (isNumber) values[i] = std::stoll(other);
      const int64_t length = values[0] * (1 + values[1] + values[2]) * (values[3] != 0 ? 3 : 1);
      const bool isTold = length > 0 && length <= INT32_MAX;
      const bool fits = !isTold || length == 3;
      EXPECT_EQ(loading.says("feature description length ("), isNumber && !fits) << key << other;
      EXPECT_EQ(loading.result, isNumber && fits ? 0 : 1) << key << other;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Golden, DamagedText, testing::Values("version1.txt", "version2.txt"),
                         [](const auto& instance) {
                           return std::string(instance.param).substr(0, 8);
                         });

// --- Images ---

// Whether a forward pass takes the model.
bool evaluates(MultiLayerNNModel& model) {
  std::ostringstream messages;
  std::streambuf* const shown = std::cerr.rdbuf(messages.rdbuf());
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  Eigen::MatrixXf outputs;
  const int result = pass->evaluate(Eigen::MatrixXf::Ones(model.numInputs(), 1), outputs);
  std::cerr.rdbuf(shown);
  return result == 0;
}

// What is said of an image that was changed at this place: part of the message.
std::vector<std::string> reasonsAt(std::size_t at) {
  if (at < mlnn::kMagicLength) return {"ERR"};  // it is taken for a text
  if (at < mlnn::kFeatureDescLengthOffset) return {": checksums did not match ("};
  if (at < mlnn::kFeatureDescOffset) return {": sizeof feature description in model ("};
  if (at < mlnn::kMinvalsOffset) return {": deltas min length ("};
  if (at < mlnn::kNormvalsOffset) return {": deltas norm length ("};
  std::vector<std::string> reasons = {": could not read layer index: ",
                                      ": checksums did not match ("};
  if (at < mlnn::kHeadLength) reasons.emplace_back(": invalid layer count ");
  return reasons;
}

bool isRefusedFor(const std::vector<std::string>& reasons, const Loading& loading) {
  return loading.result == 1 &&
         std::any_of(reasons.begin(), reasons.end(),
                     [&](const std::string& reason) { return loading.says(reason); });
}

class DamagedImage : public testing::TestWithParam<const char*> {
 protected:
  // Where the image is long, most of its bytes take fewer values in the ordinary tests.
  std::vector<int> valuesAt(std::size_t at) const {
    if (image_.size() > 2000) return valuesFor(image_[at]);
    std::vector<int> all(256);
    std::iota(all.begin(), all.end(), 0);
    return all;
  }

  // The records of the layers.
  std::vector<std::string> records() const {
    std::vector<std::string> records;
    for (std::size_t at = mlnn::kHeadLength; at < image_.size();) {
      NNLayer layer;
      const int available = static_cast<int>(image_.size() - at);
      const int length = layer.deserializeBinary(image_.data() + at, available);
      if (length <= 0) throw std::logic_error("a golden record is refused");
      records.push_back(image_.substr(at, static_cast<std::size_t>(length)));
      at += static_cast<std::size_t>(length);
    }
    return records;
  }

  std::string image_ = golden(GetParam());
  std::string head_ = image_.substr(0, mlnn::kHeadLength);
};

TEST_P(DamagedImage, everyPrefixIsRefused) {
  for (std::size_t length = 0; length < image_.size(); ++length) {
    const Loading loading = load(image_.substr(0, length));
    EXPECT_EQ(loading.result, 1) << length;
    // An image too short for a checksum is refused without a word.
    const bool saysWhy = length < mlnn::kMagicLength || length >= mlnn::kMinImageLength;
    EXPECT_EQ(loading.hasReason(), saysWhy) << length << ": " << loading.messages;
    if (length < mlnn::kMinImageLength) continue;
    EXPECT_TRUE(isRefusedFor(length < mlnn::kHeadLength
                                 ? std::vector<std::string>{" bytes is shorter than its head ("}
                                 : reasonsAt(length),
                             loading))
        << length << ": " << loading.messages;
  }
}

TEST_P(DamagedImage, everyByteOfARecordTakesEveryValue) {
  for (std::size_t i = mlnn::kLayerCountOffset; i < image_.size(); i += byteStep()) {
    std::string damaged = image_;
    for (const int value : valuesAt(i)) {
      damaged[i] = static_cast<char>(value);
      const Loading loading = load(damaged);
      EXPECT_EQ(loading.hasReason(), damaged != image_) << i << " = " << value;
      EXPECT_TRUE(damaged == image_ ? loading.result == 0 : isRefusedFor(reasonsAt(i), loading))
          << i << " = " << value << ": " << loading.messages;
    }
  }
}

// What the head holds beside lengths is not covered by the checksum: it is read as it stands.
TEST_P(DamagedImage, everyByteOfTheHeadTakesEveryValue) {
  for (std::size_t i = 0; i < mlnn::kLayerCountOffset; i += byteStep()) {
    const bool isFree = (i >= mlnn::kFeatureDescOffset && i < mlnn::kMinvalsLengthOffset) ||
                        (i >= mlnn::kMinvalsOffset && i < mlnn::kNormvalsLengthOffset) ||
                        i >= mlnn::kNormvalsOffset;
    std::string damaged = image_;
    for (const int value : valuesAt(i)) {
      damaged[i] = static_cast<char>(value);
      const Loading loading = load(damaged);
      const bool isAccepted = isFree || damaged == image_;
      EXPECT_TRUE(isAccepted ? loading.result == 0 && !loading.hasReason()
                             : isRefusedFor(reasonsAt(i), loading))
          << i << " = " << value << ": " << loading.messages;
    }
  }
}

TEST_P(DamagedImage, everyCountBecomesAnother) {
  const std::vector<int64_t> counts = {-1, 0, 1, INT32_MAX, INT32_MIN, 1023, 1024, 65536};
  std::vector<std::size_t> words = {mlnn::kFeatureDescLengthOffset, mlnn::kMinvalsLengthOffset,
                                    mlnn::kNormvalsLengthOffset, mlnn::kLayerCountOffset};
  for (std::size_t at = mlnn::kHeadLength; at + 4 <= image_.size(); at += 4) words.push_back(at);
  for (const std::size_t at : words) {
    for (const int64_t count : counts) {
      mlnn::test::ByteImage damaged(image_);
      damaged.setInt32At(at, static_cast<int32_t>(count));
      if (damaged.bytes() == image_) continue;
      const Loading loading = load(damaged.bytes());
      EXPECT_TRUE(isRefusedFor(reasonsAt(at), loading))
          << "word at " << at << " = " << count << ": " << loading.messages;
    }
  }
}

TEST_P(DamagedImage, aRecordIsMissingOrTwice) {
  const std::vector<std::string> records = this->records();
  ASSERT_EQ(records.size(), 3u);
  const std::string checksums = ": checksums did not match (";
  const std::string leftOver = ": problem deserializing model\n";
  for (std::size_t i = 0; i < records.size(); ++i) {
    const auto at = static_cast<std::ptrdiff_t>(i);
    std::vector<std::string> fewer = records;
    fewer.erase(fewer.begin() + at);
    EXPECT_TRUE(isRefusedFor({checksums}, load(head_ + joined(fewer)))) << i;
    std::vector<std::string> more = records;
    more.insert(more.begin() + at, records[i]);
    // Behind the last record its double is left over.
    EXPECT_TRUE(isRefusedFor({i < 2 ? checksums : leftOver}, load(head_ + joined(more)))) << i;
  }
}

// The checksum is a sum and does not tell the order of the layers: the image is that of another
// model, which a forward pass refuses where its layers do not fit.
TEST_P(DamagedImage, adjacentRecordsChangePlacesUnnoticed) {
  std::vector<std::string> records = this->records();
  const Loading whole = load(image_);
  for (std::size_t i = 0; i + 1 < records.size(); ++i) {
    std::swap(records[i], records[i + 1]);
    const Loading loading = load(head_ + joined(records));
    std::swap(records[i], records[i + 1]);
    EXPECT_EQ(loading.result, 0) << i;
    EXPECT_FALSE(loading.hasReason()) << i << ": " << loading.messages;
    std::vector<NNLayer*>& layers = whole.model->layers;
    std::swap(layers[i], layers[i + 1]);
    EXPECT_EQ(firstDifference(*loading.model, *whole.model), "") << i;
    bool fits = true;
    for (std::size_t k = 0; k + 1 < layers.size(); ++k) {
      fits = fits && layers[k]->weights.rows() == layers[k + 1]->weights.cols();
    }
    EXPECT_EQ(evaluates(*loading.model), fits) << i;
    std::swap(layers[i], layers[i + 1]);
    EXPECT_TRUE(evaluates(*whole.model));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Golden, DamagedImage, testing::Values("image.mlnn", "coded.mlnn", "rows.mlnn"),
    [](const auto& instance) {
      return std::string(instance.param).substr(0, std::string(instance.param).find('.'));
    });

}  // namespace
