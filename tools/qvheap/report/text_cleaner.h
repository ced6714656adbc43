// Makes any bytes readable for an XML parser. Names of programs and arguments are bytes, not text: the
// collector writes them as they are, and a parser would refuse the whole file for one that is no UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace qvheap {

class TextCleaner {
 public:
  // The next piece, with '?' for each byte that is part of no UTF-8 character and for control
  // characters. A character cut by the end of the piece waits for the next one.
  std::string Clean(std::string_view piece);
  // What waits still: the file ends within a character.
  std::string Finish();

 private:
  std::string waiting_;
};

// Bytes of the character that begins here; 0: none does; more than there are: the rest is missing.
size_t CharacterBytes(std::string_view text);

// A whole text at once.
std::string CleanText(std::string_view text);

}  // namespace qvheap
