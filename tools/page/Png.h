// PNG pictures of few colours, and how they stand in a page.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mlnn {

struct Colour {
  std::uint8_t red;
  std::uint8_t green;
  std::uint8_t blue;
  std::uint8_t alpha;  // 255 hides what is behind it
};

// Each pixel is the number of a colour, row by row from the top.
struct IndexedImage {
  std::size_t width = 0;
  std::size_t height = 0;
  std::vector<std::uint8_t> pixels;
};

// Returns a PNG file. Its pixels are not compressed: pictures of weights have little to spare.
// REQUIRES: width and height are positive, there are so many pixels, and at most 256 colours.
std::string pngOf(const IndexedImage& image, const std::vector<Colour>& colours);

// Returns a PNG file as an address that a page can have instead of a file's.
std::string dataUriOf(const std::string& png);

std::string base64(std::string_view bytes);

}  // namespace mlnn
