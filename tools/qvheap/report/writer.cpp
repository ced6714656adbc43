// Writing reports. Design: tools/qvheap/report/writer.h.
#include "tools/qvheap/report/writer.h"

#include <errno.h>
#include <math.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

namespace qvheap {
namespace {

[[noreturn]] void Fail(const std::string& path, int error) {
  const std::string name = path == "-" ? "standard output" : path;
  throw std::runtime_error(name + ": cannot write: " + strerror(error));
}

bool BeginsCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }

// The bytes of the first so many characters.
size_t BytesOf(std::string_view text, size_t characters) {
  size_t at = 0;
  for (; at < text.size(); at++) {
    if (BeginsCharacter(text[at]) && characters-- == 0) break;
  }
  return at;
}

}  // namespace

Writer::Writer(const std::string& path)
    : path_(path), stream_(path == "-" ? stdout : fopen(path.c_str(), "we")) {
  if (stream_ == nullptr) Fail(path, errno);
  struct stat status;
  isOurs_ = stream_ != stdout && fstat(fileno(stream_), &status) == 0 && S_ISREG(status.st_mode);
}

Writer::~Writer() {
  if (stream_ != nullptr) Remove();
}

void Writer::Remove() {
  if (stream_ != stdout) fclose(stream_);
  stream_ = nullptr;
  if (isOurs_) unlink(path_.c_str());
}

void Writer::Print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vfprintf(stream_, format, arguments);
  va_end(arguments);
}

void Writer::Close() {
  errno = 0;
  if (fflush(stream_) != 0 || ferror(stream_) != 0) {
    const int error = errno != 0 ? errno : EIO;
    Remove();
    Fail(path_, error);
  }
  FILE* const stream = stream_;
  stream_ = nullptr;
  if (stream == stdout || fclose(stream) == 0) return;
  const int error = errno;
  if (isOurs_) unlink(path_.c_str());
  Fail(path_, error);
}

std::string WithCommas(int64_t number) {
  std::string digits = std::to_string(number);
  const size_t first = number < 0 ? 1 : 0;
  for (size_t at = digits.size(); at > first + 3;) digits.insert(at -= 3, ",");
  return digits;
}

std::string HumanBytes(int64_t bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = double(bytes);
  size_t unit = 0;
  // What would be printed as 1024.0 is 1.0 of the next unit.
  for (; fabs(value) >= 1023.95 && unit + 1 < std::size(kUnits); unit++) value /= 1024;
  char text[32];
  const int decimals = unit == 0 || fabs(value) >= 999.95 ? 0 : 1;
  snprintf(text, sizeof text, "%.*f %s", decimals, value, kUnits[unit]);
  return text;
}

std::string HumanTime(int64_t milliseconds) {
  char text[48];
  const long seconds = milliseconds / 1000, minutes = seconds / 60;
  if (milliseconds < 1000) {
    snprintf(text, sizeof text, "%ld ms", long{milliseconds});
  } else if (seconds < 60) {
    snprintf(text, sizeof text, "%.2f s", double(milliseconds) / 1000);
  } else if (minutes < 60) {
    snprintf(text, sizeof text, "%ld min %ld s", minutes, seconds % 60);
  } else {
    snprintf(text, sizeof text, "%ld h %ld min", minutes / 60, minutes % 60);
  }
  return text;
}

size_t ColumnsOf(std::string_view text) {
  size_t columns = 0;
  for (const char byte : text) columns += BeginsCharacter(byte);
  return columns;
}

std::string Cut(const std::string& text, size_t columns) {
  if (ColumnsOf(text) <= columns) return text;
  return text.substr(0, BytesOf(text, columns - 3)) + "...";
}

std::string CutMiddle(const std::string& text, size_t columns) {
  const size_t all = ColumnsOf(text);
  if (all <= columns) return text;
  const size_t tail = (columns - 3) / 2;
  return text.substr(0, BytesOf(text, columns - 3 - tail)) + "..." +
         text.substr(BytesOf(text, all - tail));
}

}  // namespace qvheap
