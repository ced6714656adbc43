// XML file writer, inside view: the inlines behind the exported calls and behind the message log.
//
// Bytes go straight into the stream's buffer while there is room, which is what the unlocked stdio
// calls do one character at a time; fwrite_unlocked takes over when there is none. The program under
// analysis may flush all streams at any moment (fflush(NULL), exit, fork), so the stream's own lock is
// held around every group of unlocked writes: StreamLock, once per exported call, once per log entry.
// That lock is innermost; nothing is allocated or called under it but stdio.
//
// `depth` and `scratch` belong to whoever holds the record's lock, which callers take; see qvrt.h.
#pragma once

#include <stdio.h>
#include <string.h>

#include "runtime/base.h"
#include "runtime/spin_lock.h"

namespace qv {

inline constexpr uint32_t kXmlSpinCount = 500;

class StreamLock : NonCopyable {
 public:
  QV_INLINE explicit StreamLock(FILE* stream) : stream_(stream) { flockfile(stream); }
  QV_INLINE ~StreamLock() { funlockfile(stream_); }

 private:
  FILE* const stream_;
};

// ---- Creation in steps, for the log: its record is taken before its stream can be opened. -----------

FILE* OpenXmlStream(const char* fileName, bool append);  // header written and flushed; null on failure
char* NewXmlFileName(const char* fileName);              // the copy that the record keeps
void InitializeXmlFile(QV_XML_FILE& file, FILE* stream, char* ownedFileName, bool append);
bool ReopenXmlFile(QV_XML_FILE& file);

// ---- Writers. The caller holds StreamLock; names and texts are not null. ----------------------------

// Signed: in a line-buffered stream (a terminal) the writing position stands beyond the end, so that
// every byte takes the slow way.
QV_INLINE void PutBytes(FILE* stream, const char* bytes, size_t count) {
  if (QV_LIKELY(ptrdiff_t(count) <= stream->_IO_write_end - stream->_IO_write_ptr)) {
    memcpy(stream->_IO_write_ptr, bytes, count);
    stream->_IO_write_ptr += count;
  } else {
    fwrite_unlocked(bytes, 1, count, stream);
  }
}

QV_INLINE void PutText(FILE* stream, const char* text) { PutBytes(stream, text, strlen(text)); }

template <size_t kSize>
QV_INLINE void PutLiteral(FILE* stream, const char (&text)[kSize]) {
  PutBytes(stream, text, kSize - 1);
}

QV_INLINE void BeginLine(QV_XML_FILE& file) {
  putc_unlocked('\n', file.stream);
  for (uint32_t i = 0; i < file.depth; i++) putc_unlocked('\t', file.stream);
}

// An unbalanced closing tag leaves the depth at 0.
QV_INLINE void Ascend(QV_XML_FILE& file) { file.depth -= file.depth != 0; }

QV_INLINE void PutStartOfTag(QV_XML_FILE& file, const char* name) {
  BeginLine(file);
  putc_unlocked('<', file.stream);
  PutText(file.stream, name);
}

QV_INLINE void PutAttribute(QV_XML_FILE& file, const char* name, const char* value) {
  putc_unlocked(' ', file.stream);
  PutText(file.stream, name);
  PutLiteral(file.stream, "='");
  PutText(file.stream, value);
  putc_unlocked('\'', file.stream);
}

QV_INLINE void PutEndOfElement(QV_XML_FILE& file, const char* name) {
  PutLiteral(file.stream, "</");
  PutText(file.stream, name);
  putc_unlocked('>', file.stream);
}

QV_INLINE void PutClosingTag(QV_XML_FILE& file, const char* name) {
  Ascend(file);
  BeginLine(file);
  PutEndOfElement(file, name);
}

QV_INLINE void PutElement(QV_XML_FILE& file, const char* name, const char* text, size_t length) {
  PutStartOfTag(file, name);
  putc_unlocked('>', file.stream);
  PutBytes(file.stream, text, length);
  PutEndOfElement(file, name);
}

// Decimal digits of a value, written backwards from `end`; the first of them.
inline char* FormatDecimal(char* end, int64_t value) {
  uint64_t rest = value < 0 ? 0 - uint64_t(value) : uint64_t(value);
  do {
    *--end = char('0' + rest % 10);
    rest /= 10;
  } while (rest != 0);
  if (value < 0) *--end = '-';
  return end;
}

// Escapes into `scratch`; the length there. Stops before the first character that does not fit.
size_t EscapeIntoScratch(QV_XML_FILE& file, const char* text);
// Formats into `scratch` with every run of '-' reduced to one, and writes the comment.
void PutComment(QV_XML_FILE& file, const char* format, va_list arguments);

}  // namespace qv
