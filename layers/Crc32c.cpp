#include "layers/Crc32c.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "layers/BuiltForSize.h"

#if defined(__x86_64__) || defined(__i386__)
#include <nmmintrin.h>
#define MLNN_CRC32C_HARDWARE __attribute__((target("sse4.2")))
#elif defined(__ARM_FEATURE_CRC32)
#include <arm_acle.h>
#define MLNN_CRC32C_HARDWARE
#endif

namespace mlnn {
namespace {

constexpr uint32_t kPolynomial = 0x82F63B78;  // reflected: the highest bit stands for x^0

// --- Tables ---

using Table = std::array<uint32_t, 256>;

// Entry [k][b] is the state after the byte b, from the state 0, and k bytes of zeros.
constexpr std::size_t kSlices = 8;
using SliceTables = std::array<Table, kSlices>;

constexpr SliceTables makeSliceTables() {
  SliceTables tables{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t state = byte;
    for (int bit = 0; bit < 8; ++bit) state = state >> 1 ^ (state & 1 ? kPolynomial : 0);
    tables[0][byte] = state;
  }
  for (std::size_t k = 1; k < kSlices; ++k) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const uint32_t before = tables[k - 1][byte];
      tables[k][byte] = before >> 8 ^ tables[0][before & 0xFF];
    }
  }
  return tables;
}

constexpr SliceTables kSliceTables = makeSliceTables();

// Built for size, one table is all that stays.
constexpr Table kFirstTable = kSliceTables[0];
constexpr const Table& kByteTable = kBuiltForSize ? kFirstTable : kSliceTables[0];

uint32_t wordAt(const unsigned char* bytes) {
  uint32_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

uint32_t updateByTables(uint32_t state, const unsigned char* bytes, std::size_t count) {
  const SliceTables& t = kSliceTables;
  if (!kBuiltForSize) {
    for (; count >= kSlices; bytes += kSlices, count -= kSlices) {
      const uint32_t low = state ^ wordAt(bytes);
      const uint32_t high = wordAt(bytes + 4);
      state = t[7][low & 0xFF] ^ t[6][low >> 8 & 0xFF] ^ t[5][low >> 16 & 0xFF] ^ t[4][low >> 24] ^
              t[3][high & 0xFF] ^ t[2][high >> 8 & 0xFF] ^ t[1][high >> 16 & 0xFF] ^
              t[0][high >> 24];
    }
  }
  for (; count > 0; ++bytes, --count) state = state >> 8 ^ kByteTable[(state ^ *bytes) & 0xFF];
  return state;
}

#ifdef MLNN_CRC32C_HARDWARE

// --- The processor's instruction ---
//
// One takes three cycles, but three can be under way. So long stretches are cut into three
// strands, whose states are joined: the state after some bytes and N more is the state after the
// bytes and N zeros, exclusive-or the state after the N bytes alone. Built for size there is one
// strand, since the tables for joining take more than all other code here.

// The product of two polynomials modulo kPolynomial.
constexpr uint32_t multiply(uint32_t a, uint32_t b) {
  uint32_t product = 0;
  for (uint32_t bit = uint32_t{1} << 31; bit != 0; bit >>= 1) {
    if (a & bit) product ^= b;
    b = b >> 1 ^ (b & 1 ? kPolynomial : 0);
  }
  return product;
}

// x^exponent modulo kPolynomial.
constexpr uint32_t powerOfX(std::size_t exponent) {
  uint32_t power = uint32_t{1} << 31;
  for (uint32_t square = uint32_t{1} << 30; exponent != 0; exponent >>= 1) {
    if (exponent & 1) power = multiply(power, square);
    square = multiply(square, square);
  }
  return power;
}

// What a number of zero bytes makes of each byte of a state.
using ZerosTables = std::array<Table, 4>;

constexpr ZerosTables makeZerosTables(std::size_t zeros) {
  ZerosTables tables{};
  const uint32_t factor = powerOfX(8 * zeros);
  for (uint32_t k = 0; k < 4; ++k) {
    for (uint32_t byte = 0; byte < 256; ++byte) {
      tables[k][byte] = multiply(byte << 8 * k, factor);
    }
  }
  return tables;
}

uint32_t afterZeros(const ZerosTables& t, uint32_t state) {
  return t[0][state & 0xFF] ^ t[1][state >> 8 & 0xFF] ^ t[2][state >> 16 & 0xFF] ^
         t[3][state >> 24];
}

constexpr std::size_t kLongStrand = 2048;
constexpr std::size_t kShortStrand = 256;
constexpr ZerosTables kLongZeros = makeZerosTables(kLongStrand);
constexpr ZerosTables kShortZeros = makeZerosTables(kShortStrand);

#if defined(__x86_64__)
using Word = uint64_t;
MLNN_CRC32C_HARDWARE inline uint32_t takeWord(uint32_t state, Word word) {
  return static_cast<uint32_t>(_mm_crc32_u64(state, word));
}
#elif defined(__i386__)
using Word = uint32_t;
MLNN_CRC32C_HARDWARE inline uint32_t takeWord(uint32_t state, Word word) {
  return _mm_crc32_u32(state, word);
}
#else
using Word = uint64_t;
inline uint32_t takeWord(uint32_t state, Word word) { return __crc32cd(state, word); }
#endif

MLNN_CRC32C_HARDWARE inline uint32_t takeByte(uint32_t state, unsigned char byte) {
#if defined(__ARM_FEATURE_CRC32)
  return __crc32cb(state, byte);
#else
  return _mm_crc32_u8(state, byte);
#endif
}

MLNN_CRC32C_HARDWARE inline uint32_t takeWordAt(uint32_t state, const unsigned char* bytes) {
  Word word;
  std::memcpy(&word, bytes, sizeof word);
  return takeWord(state, word);
}

// Takes three strands of `strand` bytes each.
MLNN_CRC32C_HARDWARE inline uint32_t takeStrands(uint32_t state, const unsigned char* bytes,
                                                 std::size_t strand, const ZerosTables& zeros) {
  uint32_t second = 0;
  uint32_t third = 0;
  for (std::size_t i = 0; i < strand; i += sizeof(Word)) {
    state = takeWordAt(state, bytes + i);
    second = takeWordAt(second, bytes + strand + i);
    third = takeWordAt(third, bytes + 2 * strand + i);
  }
  return afterZeros(zeros, afterZeros(zeros, state) ^ second) ^ third;
}

MLNN_CRC32C_HARDWARE uint32_t updateByInstruction(uint32_t state, const unsigned char* bytes,
                                                  std::size_t count) {
  if (!kBuiltForSize) {
    for (; count >= 3 * kLongStrand; bytes += 3 * kLongStrand, count -= 3 * kLongStrand) {
      state = takeStrands(state, bytes, kLongStrand, kLongZeros);
    }
    for (; count >= 3 * kShortStrand; bytes += 3 * kShortStrand, count -= 3 * kShortStrand) {
      state = takeStrands(state, bytes, kShortStrand, kShortZeros);
    }
  }
  for (; count >= sizeof(Word); bytes += sizeof(Word), count -= sizeof(Word)) {
    state = takeWordAt(state, bytes);
  }
  for (; count > 0; ++bytes, --count) state = takeByte(state, *bytes);
  return state;
}

bool hasInstruction() {
#if defined(__ARM_FEATURE_CRC32)
  return true;
#else
  return __builtin_cpu_supports("sse4.2");
#endif
}

#endif  // MLNN_CRC32C_HARDWARE

Crc32cUpdate bestUpdate() {
#ifdef MLNN_CRC32C_HARDWARE
  if (hasInstruction()) return updateByInstruction;
#endif
  return updateByTables;
}

uint32_t update(uint32_t state, const void* bytes, std::size_t count) {
  static const Crc32cUpdate best = bestUpdate();
  return best(state, static_cast<const unsigned char*>(bytes), count);
}

}  // namespace

void Crc32c::add(const void* bytes, std::size_t count) { state_ = update(state_, bytes, count); }

void Crc32c::copy(void* target, const void* source, std::size_t count) {
  constexpr std::size_t kPiece = std::size_t{16} << 10;
  auto* to = static_cast<char*>(target);
  const auto* from = static_cast<const char*>(source);
  for (std::size_t done = 0; done < count;) {
    const std::size_t piece = std::min(count - done, kPiece);
    add(from + done, piece);
    std::memcpy(to + done, from + done, piece);
    done += piece;
  }
}

std::vector<Crc32cMethod> runnableCrc32cMethods() {
  std::vector<Crc32cMethod> methods;
#ifdef MLNN_CRC32C_HARDWARE
  if (hasInstruction()) methods.push_back({"instruction", updateByInstruction});
#endif
  methods.push_back({"tables", updateByTables});
  return methods;
}

}  // namespace mlnn
