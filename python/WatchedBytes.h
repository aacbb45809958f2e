// Objects of Python with many bytes, which are filled a piece at a time, so that handlers of
// signals run meanwhile and can stop it.
#pragma once

#include <pybind11/pybind11.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <streambuf>
#include <string>
#include <vector>

#include "features/Watch.h"
#include "layers/ByteIo.h"

namespace mlnn::python {

namespace py = pybind11;

// Puts bytes into memory, and tells a watch after each piece, with 0 steps.
class WatchedBytes final : public ByteSink {
 public:
  WatchedBytes(char* target, const Watch& watch) : target_(target), watch_(watch) {}

  void take(const void* bytes, std::size_t count) override {
    constexpr std::size_t kPiece = std::size_t{1} << 20;
    const char* from = static_cast<const char*>(bytes);
    while (count > 0) {
      const std::size_t piece = std::min(count, kPiece);
      std::memcpy(target_, from, piece);
      target_ += piece;
      from += piece;
      count -= piece;
      tell(watch_, 0);
    }
  }

 private:
  char* target_;
  const Watch& watch_;
};

// A text in pieces of memory, none of which moves as it grows. Tells a watch of what is written,
// and hands on what that throws.
class TextPieces final : public std::streambuf {
 public:
  explicit TextPieces(const Watch& watch) : watch_(watch) {}

  std::size_t length() const { return length_; }
  void writeTo(ByteSink& sink) const {
    for (const std::string& piece : pieces_) sink.take(piece.data(), piece.size());
  }

 protected:
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    const auto length = static_cast<std::size_t>(count);
    tell(watch_, length);
    if (pieces_.empty() || pieces_.back().size() + length > kPiece) {
      pieces_.emplace_back();
      pieces_.back().reserve(std::max(length, kPiece));
    }
    pieces_.back().append(text, length);
    length_ += length;
    return count;
  }
  int_type overflow(int_type character) override {
    const char text = traits_type::to_char_type(character);
    xsputn(&text, 1);
    return character;
  }

 private:
  static constexpr std::size_t kPiece = std::size_t{1} << 20;

  const Watch& watch_;
  std::vector<std::string> pieces_;
  std::size_t length_ = 0;
};

// Returns a bytes object of that length, which `fill(sink)` fills without the interpreter's lock.
// REQUIRES: the thread holds that lock; fill hands over as many bytes, or throws.
template <typename Fill>
py::bytes bytesOf(std::size_t length, const Watch& watch, Fill fill) {
  const auto size = static_cast<py::ssize_t>(length);
  py::object bytes = py::reinterpret_steal<py::object>(PyBytes_FromStringAndSize(nullptr, size));
  if (!bytes) throw py::error_already_set();
  WatchedBytes sink(PyBytes_AS_STRING(bytes.ptr()), watch);
  {
    const py::gil_scoped_release othersRun;
    fill(sink);
  }
  return py::reinterpret_steal<py::bytes>(bytes.release());
}

// The same for a string, of which each byte is a character of ASCII.
template <typename Fill>
py::str asciiOf(std::size_t length, const Watch& watch, Fill fill) {
  const auto size = static_cast<py::ssize_t>(length);
  py::object text = py::reinterpret_steal<py::object>(PyUnicode_New(size, 127));
  if (!text) throw py::error_already_set();
  WatchedBytes sink(static_cast<char*>(PyUnicode_DATA(text.ptr())), watch);
  {
    const py::gil_scoped_release othersRun;
    fill(sink);
  }
  return py::reinterpret_steal<py::str>(text.release());
}

}  // namespace mlnn::python
