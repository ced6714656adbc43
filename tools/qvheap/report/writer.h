// Where a report goes: standard output or a file, with the errors of writing told once, at the end. A
// file that could not be written whole is removed, for half a report looks like one; but not what was there
// before and is no ordinary file, such as a device.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <string_view>

namespace qvheap {

class Writer {
 public:
  // "-" is standard output. Throws std::runtime_error.
  explicit Writer(const std::string& path);
  ~Writer();  // without Close: removes the file
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void Put(std::string_view text) { fwrite(text.data(), 1, text.size(), stream_); }
  [[gnu::format(printf, 2, 3)]] void Print(const char* format, ...);
  // Throws std::runtime_error if not everything was written.
  void Close();

 private:
  void Remove();

  const std::string path_;
  FILE* stream_;
  bool isOurs_ = false;  // an ordinary file
};

// "12,345,678"
std::string WithCommas(int64_t number);
// At most 9 characters: "0 B", "999 B", "12.3 KiB", "1000 MiB"
std::string HumanBytes(int64_t bytes);
// "12 ms", "1.52 s", "2 min 5 s", "3 h 12 min"
std::string HumanTime(int64_t milliseconds);
// At most so many columns, "..." for what is cut from its end (or its middle). A column is taken to be
// a character.
std::string Cut(const std::string& text, size_t columns);
std::string CutMiddle(const std::string& text, size_t columns);
size_t ColumnsOf(std::string_view text);

}  // namespace qvheap
