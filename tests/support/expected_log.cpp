// The expected message log. Design: tests/support/expected_log.h.
#include "tests/support/expected_log.h"

namespace qvtest {
namespace {

std::string Escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '"': out += "&quot;"; break;
      case '&': out += "&amp;"; break;
      case '\'': out += "&apos;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      default: out += c; break;
    }
  }
  return out;
}

std::string CommentOf(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c != '-' || out.empty() || out.back() != '-') out += c;
  }
  return "<!-- " + out + " -->";
}

}  // namespace

ExpectedLog& ExpectedLog::Comment(const std::string& text) {
  text_ += "\n\t" + CommentOf(text);
  return *this;
}

ExpectedLog& ExpectedLog::Error(const std::string& type, const std::string& body) {
  text_ += "\n\t<msg id='" + std::to_string(nextId_++) + "' source='qvrt'>\n\t\t<type>" + type +
           "</type>\n\t\t<severity>ERROR</severity>\n\t\t<timestamp></timestamp>" + body + "\n\t</msg>";
  return *this;
}

ExpectedLog& ExpectedLog::Message(const std::string& type, const std::string& argument,
                                  const std::string& value) {
  return Error(type, "\n\t\t<arg name='" + argument + "'>" + Escaped(value) + "</arg>");
}

ExpectedLog& ExpectedLog::Internal(const std::string& text) {
  return Error("INTERNAL", "\n\t\t" + CommentOf(text));
}

ExpectedLog& ExpectedLog::Fatal(const std::string& text) {
  return Internal(text).Error("ABNORMAL_TERMINATE", "");
}

std::string WithoutTimes(std::string log) {
  const std::string tag = "<timestamp>";
  for (size_t at = log.find(tag); at != std::string::npos; at = log.find(tag, at)) {
    at += tag.size();
    log.erase(at, log.find('<', at) - at);
  }
  return log;
}

}  // namespace qvtest
