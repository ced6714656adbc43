// Bytes into text. Design: tools/qvheap/report/text_cleaner.h.
#include "tools/qvheap/report/text_cleaner.h"

#include <algorithm>

namespace qvheap {
namespace {

// Lead bytes from 0xC2 to 0xF4 say how many follow; what else is wrong with a character (surrogates,
// numbers above U+10FFFF, a longer form than needed) shows in the byte after those.
size_t BytesAfterLead(unsigned char lead) {
  return lead < 0x80 ? 1 : lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
}

bool IsSecondByte(unsigned char lead, unsigned char second) {
  const unsigned char from = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned char to = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  return second >= from && second <= to;
}

bool IsControl(unsigned char byte) {
  return (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r') || byte == 0x7F;
}

unsigned char ByteAt(std::string_view text, size_t at) { return static_cast<unsigned char>(text[at]); }

// What nearly all of a text is.
bool IsPlain(char byte) { return byte >= ' ' && byte < 0x7F; }

// U+FFFE and U+FFFF are no characters of XML.
bool IsNonCharacter(std::string_view text) {
  return ByteAt(text, 0) == 0xEF && ByteAt(text, 1) == 0xBF && ByteAt(text, 2) >= 0xBE;
}

}  // namespace

size_t CharacterBytes(std::string_view text) {
  const unsigned char lead = ByteAt(text, 0);
  const size_t bytes = BytesAfterLead(lead);
  for (size_t i = 1; i < bytes && i < text.size(); i++) {
    const unsigned char byte = ByteAt(text, i);
    if (i == 1 ? !IsSecondByte(lead, byte) : (byte & 0xC0) != 0x80) return 0;
  }
  if (bytes == 3 && text.size() >= 3 && IsNonCharacter(text)) return 0;
  return bytes == 1 && IsControl(lead) ? 0 : bytes;
}

std::string TextCleaner::Clean(std::string_view piece) {
  std::string text = waiting_ + std::string(piece);
  waiting_.clear();
  for (size_t at = 0; at < text.size();) {
    if (IsPlain(text[at])) {
      at++;
      continue;
    }
    const size_t bytes = CharacterBytes(std::string_view(text).substr(at));
    if (bytes > text.size() - at) {
      waiting_ = text.substr(at);
      text.resize(at);
      break;
    }
    if (bytes == 0) text[at] = '?';
    at += std::max<size_t>(bytes, 1);
  }
  return text;
}

std::string TextCleaner::Finish() {
  const std::string clean(waiting_.size(), '?');
  waiting_.clear();
  return clean;
}

std::string CleanText(std::string_view text) {
  TextCleaner cleaner;
  std::string clean = cleaner.Clean(text);
  return clean + cleaner.Finish();
}

}  // namespace qvheap
