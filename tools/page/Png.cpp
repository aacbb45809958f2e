#include "tools/page/Png.h"

#include <algorithm>

namespace mlnn {
namespace {

constexpr std::string_view kSignature("\x89PNG\r\n\x1a\n", 8);
constexpr std::size_t kLongestStored = 65535;  // bytes of a block that is not compressed

void appendBigEndian(std::string& out, std::uint32_t word) {
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>(word >> shift & 0xFF);
}

void appendLittleEndian16(std::string& out, std::size_t number) {
  out += static_cast<char>(number & 0xFF);
  out += static_cast<char>(number >> 8 & 0xFF);
}

std::uint32_t crc32(std::string_view bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
  }
  return ~crc;
}

std::uint32_t adler32(std::string_view bytes) {
  constexpr std::uint32_t kPrime = 65521;
  std::uint32_t a = 1;
  std::uint32_t b = 0;
  for (const char byte : bytes) {
    a = (a + static_cast<unsigned char>(byte)) % kPrime;
    b = (b + a) % kPrime;
  }
  return b << 16 | a;
}

// A stream of zlib's format in blocks that are stored as they are.
std::string stored(std::string_view bytes) {
  const std::uint32_t check = adler32(bytes);
  std::string out("\x78\x01", 2);
  do {
    const std::string_view block = bytes.substr(0, kLongestStored);
    bytes.remove_prefix(block.size());
    out += bytes.empty() ? '\1' : '\0';  // the last block, or not
    appendLittleEndian16(out, block.size());
    appendLittleEndian16(out, ~block.size());
    out += block;
  } while (!bytes.empty());
  appendBigEndian(out, check);
  return out;
}

void appendChunk(std::string& out, std::string_view type, std::string_view content) {
  appendBigEndian(out, static_cast<std::uint32_t>(content.size()));
  const std::string body = std::string(type) + std::string(content);
  out += body;
  appendBigEndian(out, crc32(body));
}

std::string headerOf(const IndexedImage& image) {
  std::string header;
  appendBigEndian(header, static_cast<std::uint32_t>(image.width));
  appendBigEndian(header, static_cast<std::uint32_t>(image.height));
  return header + std::string("\x08\x03\0\0\0", 5);  // 8 bits a pixel, colours from a list
}

// Each row has a byte before it that says how it is filtered: not at all.
std::string rowsOf(const IndexedImage& image) {
  std::string rows;
  rows.reserve((image.width + 1) * image.height);
  for (std::size_t y = 0; y < image.height; ++y) {
    rows += '\0';
    for (std::size_t x = 0; x < image.width; ++x) {
      rows += static_cast<char>(image.pixels[y * image.width + x]);
    }
  }
  return rows;
}

}  // namespace

std::string pngOf(const IndexedImage& image, const std::vector<Colour>& colours) {
  std::string palette;
  std::string alphas;
  for (const Colour& colour : colours) {
    for (const std::uint8_t part : {colour.red, colour.green, colour.blue}) {
      palette += static_cast<char>(part);
    }
    alphas += static_cast<char>(colour.alpha);
  }
  std::string png(kSignature);
  appendChunk(png, "IHDR", headerOf(image));
  appendChunk(png, "PLTE", palette);
  appendChunk(png, "tRNS", alphas);
  appendChunk(png, "IDAT", stored(rowsOf(image)));
  appendChunk(png, "IEND", "");
  return png;
}

std::string dataUriOf(const std::string& png) { return "data:image/png;base64," + base64(png); }

std::string base64(std::string_view bytes) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::string_view group = bytes.substr(i, 3);
    std::uint32_t bits = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      bits = bits << 8 | (k < group.size() ? static_cast<unsigned char>(group[k]) : 0u);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      out += k <= group.size() ? kDigits[bits >> (18 - 6 * k) & 63] : '=';
    }
  }
  return out;
}

}  // namespace mlnn
