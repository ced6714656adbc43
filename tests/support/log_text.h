// Reads a message log back, strictly: every byte must be where the layout of log/message_log.h puts it.
//
//   EXPECT_EQ(ReadLog(child.Read("qvlog.log")).Brief(), "# a comment\n"
//                                                       "WARNING FREEING_RESERVES hidden
//                                                       num_bytes=33554416\n");
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace qvtest {

struct LogItem {
  int id = 0;  // 0: a comment on its own
  bool hidden = false;
  std::string source, type, severity, time, text;
  std::vector<std::pair<std::string, std::string>> arguments;

  std::string Brief() const;  // "SEVERITY TYPE[ hidden][ name=value…][ : text]", or "# text"
};

struct LogText {
  std::string source;  // of the root element
  bool closed = false;
  std::vector<LogItem> items;
  std::string broken;  // from the first byte that is not part of a whole entry on

  // Whole entries only, and ids without gaps from firstId.
  bool Whole(int firstId = 1) const;
  std::string Brief() const;                  // one line per item
  int Count(const std::string& brief) const;  // items of that brief
};

LogText ReadLog(const std::string& bytes);

}  // namespace qvtest
