// The reader of layer records: a record that it takes is written again byte for byte, or with row
// scales where it is older than these and they are shorter; one that it refuses leaves the layer
// alone, and no flipped bit goes unnoticed.
#include <cstring>
#include <memory>

#include "fuzz/ModelChecks.h"
#include "fuzz/Support.h"
#include "layers/NNLayer.h"

namespace {

using mlnn::fuzz::require;

std::string recordOf(const NNLayer& layer) {
  std::string record(static_cast<std::size_t>(layer.binarySerializedLength()), '\0');
  require(layer.serializeBinary(record.data()) == static_cast<int>(record.size()),
          "the record has another length");
  return record;
}

int read(const std::string& bytes, NNLayer& layer) {
  const std::unique_ptr<char[]> block(new char[bytes.size()]);
  std::memcpy(block.get(), bytes.data(), bytes.size());
  const mlnn::fuzz::Limits limits(bytes.size(), 8, 4096);
  const int consumed = layer.deserializeBinary(block.get(), static_cast<int>(bytes.size()));
  limits.check();
  return consumed;
}

// A changed bit must change the checksum or make the record one that is refused.
void requireNoticed(std::string record, std::size_t bit, uint32_t checksum) {
  record[bit / 8] = static_cast<char>(record[bit / 8] ^ 1 << bit % 8);
  NNLayer changed;
  if (read(record, changed) < 1) return;
  require(changed.checksum() != checksum, "a flipped bit goes unnoticed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  NNLayer layer(2, 1, true);
  const std::string before = recordOf(layer);
  const int consumed = read(bytes, layer);
  if (consumed < 1) {
    require(recordOf(layer) == before, "a refused record changed the layer");
    return 0;
  }
  require(static_cast<std::size_t>(consumed) <= size, "more was consumed than there is");
  require(consumed % 4 == 0, "the length is no multiple of 4");
  std::string record = bytes.substr(0, static_cast<std::size_t>(consumed));
  if (mlnn::fuzz::mayReplace(record, recordOf(layer))) record = recordOf(layer);
  require(recordOf(layer) == record, "the record changed");
  const uint32_t checksum = layer.checksum();
  require(checksum ==
              mlnn::fuzz::crc32c(reinterpret_cast<const uint8_t*>(record.data()), record.size()),
          "the checksum is not the CRC");
  NNLayer again;
  require(read(record, again) == static_cast<int>(record.size()),
          "the record alone cannot be read");
  require(recordOf(again) == record, "the record alone reads otherwise");
  const std::size_t bits = 8 * record.size();
  requireNoticed(record, checksum % bits, checksum);
  requireNoticed(record, checksum / 3 % bits, checksum);
  if (!record.empty()) {
    NNLayer shorter;
    require(read(record.substr(0, record.size() - 1), shorter) < 1, "a cut record is accepted");
  }
  return 0;
}
