// Bounded copies, paths, the time stamp, and counted strings.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>

#include "tests/support/child.h"
#include "tests/support/threads.h"

using namespace qvtest;

namespace {

// What a function that changes a string in place leaves; ends behind it, so that asan sees a step
// beyond.
template <class Change>
std::string InPlace(const std::string& text, Change change) {
  std::vector<char> copy(text.begin(), text.end());
  copy.push_back(0);
  char* const result = change(copy.data());
  EXPECT_TRUE(copy.data() <= result && result < copy.data() + copy.size()) << text;
  return result;
}

// Takes over a string that the library made.
std::string Taken(char* text) {
  if (text == nullptr) return "(null)";
  const std::string copy = text;
  __QvFree(text);
  return copy;
}

int ViaList(char* buffer, size_t size, const char* format, ...) {
  va_list values;
  va_start(values, format);
  const int result = __QvVsnprintf(buffer, size, format, values);
  va_end(values);
  return result;
}

}  // namespace

// Faults: no NUL at the end, bytes behind it not cleared as strncpy does, a byte beyond the size.
TEST(Strings, BoundedCopiesEndWithNul) {
  for (const auto copy : {__QvStrncpy, __QvStrSCncpy}) {
    for (size_t sourceLength = 0; sourceLength < 7; sourceLength++) {
      for (size_t size = 0; size < 9; size++) {
        char buffer[10];
        memset(buffer, '#', sizeof buffer);
        const std::string source = std::string("abcdefg").substr(0, sourceLength);
        ASSERT_EQ(copy(buffer, source.c_str(), size), buffer);
        std::string expected = source;
        expected.resize(size, 0);
        if (size > 0) expected[size - 1] = 0;
        expected.resize(sizeof buffer, '#');
        EXPECT_EQ(std::string(buffer, sizeof buffer), expected) << sourceLength << " " << size;
      }
    }
  }
}

TEST(Strings, FormattingIsThatOfVsnprintf) {
  for (const auto format : {__QvSnprintf, __QvSCnprintf, ViaList}) {
    char buffer[8] = "#######";
    EXPECT_EQ(format(buffer, 6, "%s-%d-%5.2f", "ab", -7, 1.5), 11);
    EXPECT_EQ(std::string(buffer, 8), std::string("ab--7\0#", 7) + '\0');
    EXPECT_EQ(format(nullptr, 0, "%s", "abc"), 3);
  }
}

TEST(Strings, PathsAndNames) {
  const auto sanitize = [](char* path) { return __QvSanitizePath(path), path; };
  const char* const paths[][2] = {{"a//b///c/", "a/b/c/"}, {"", ""},      {"/", "/"},
                                  {"////", "/"},           {"//a", "/a"}, {"a", "a"},
                                  {"a/b", "a/b"},          {"a//", "a/"}, {"/.//../", "/./../"},
                                  {"\\\\", "\\\\"}};
  for (const auto& [path, expected] : paths) EXPECT_EQ(InPlace(path, sanitize), expected);
  __QvSanitizePath(nullptr);

  const char* const names[][2] = {{"/a/b/name", "name"},
                                  {"/a/b/", ""},
                                  {"abc", "abc"},
                                  {"/abc", "abc"},
                                  {"/", "/"},
                                  {"x", "x"},
                                  {"//", ""},
                                  {"a/b", "b"},
                                  {"", "(null)"},
                                  {"a//bc", "bc"}};
  for (const auto& [path, expected] : names) {
    EXPECT_EQ(Taken(__QvGetBaseName(path)), expected) << path;
    EXPECT_EQ(Taken(__QvGetSCBaseName(path)), expected) << path;
  }
  EXPECT_EQ(__QvGetBaseName(nullptr), nullptr);
  EXPECT_EQ(Taken(__QvStrdup("some text")), "some text");
  EXPECT_EQ(Taken(__QvStrdup("")), "");
  EXPECT_EQ(__QvStrdup(nullptr), nullptr);
}

TEST(Strings, WhiteSpaceAndCase) {
  const auto strip = [](char* text) { return __QvStripWhiteSpaces(text); };
  const char* const texts[][2] = {{"  x\t\n", "x"}, {"", ""},        {" \t\n\v\f\r ", ""},
                                  {"x", "x"},       {"a b ", "a b"}, {"\xA0 \xE9", "\xA0 \xE9"},
                                  {"\n a", "a"}};
  for (const auto& [text, expected] : texts) EXPECT_EQ(InPlace(text, strip), expected);
  EXPECT_EQ(__QvStripWhiteSpaces(nullptr), nullptr);

  std::string all, lower;
  for (int c = 255; c > 0; c--) all += char(c);
  for (int c = 255; c > 0; c--) lower += char('A' <= c && c <= 'Z' ? c + 32 : c);
  const auto toLower = [](char* text) { return __QvConvertUtf8ToLowerCase(text), text; };
  EXPECT_EQ(InPlace(all, toLower), lower);
  __QvConvertUtf8ToLowerCase(nullptr);
}

// Faults: an unsigned step, 0 that stands still, two callers with one value.
TEST(Timestamp, IsDistinctForEveryCaller) {
  const ChildResult child = RunChild([] {
    CHECK_EQ(__QvUpdateTimestamp(0), 1u);
    CHECK_EQ(__QvUpdateTimestamp(5), 6u);
    CHECK_EQ(__QvUpdateTimestamp(-1), 5u);
    CHECK_EQ(__QvUpdateTimestamp(-5), 0u);
    CHECK_EQ(__QvUpdateTimestamp(INT32_MAX), 0x7FFFFFFFu);
    CHECK_EQ(__QvUpdateTimestamp(INT32_MAX), 0xFFFFFFFEu);
    std::vector<uint64_t> taken[4];
    RunThreads(4, [&](int thread) {
      for (int i = 0; i < 20000; i++) taken[thread].push_back(__QvUpdateTimestamp(i % 2 * 3));
    });
    std::vector<uint64_t> all;
    for (const auto& some : taken) all.insert(all.end(), some.begin(), some.end());
    std::sort(all.begin(), all.end());
    CHECK(std::adjacent_find(all.begin(), all.end()) == all.end());
    CHECK_EQ(all.back(), 0xFFFFFFFEu + uint64_t{160000});
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

namespace {

// A counted string beside its model: a std::string, and the capacity by the rules of growth.
class StringPair {
 public:
  explicit StringPair(uint32_t category, uint32_t capacity, const std::string& text)
      : string_(__QvStrAlloc(category, capacity, text.c_str())),
        category_(category),
        capacity_(capacity) {
    ExpectSet(text);
    Validate();
  }
  ~StringPair() { __QvStrDestroy(string_); }

  void Set(const char* text) {
    ExpectSet(text);
    ASSERT_EQ(__QvStrSet(string_, text), string_);
    Validate();
  }
  void Append(const char* text) {
    const uint32_t added = uint32_t(strlen(text));
    if (model_.size() + added + 1 > capacity_) capacity_ = 2 * (added + capacity_);
    model_ += std::string(text);
    __QvStrAppend(string_, text);
    Validate();
  }
  // A text inside the string's own buffer.
  const char* Own(uint64_t random) const { return string_->buffer + random % (model_.size() + 1); }
  size_t Length() const { return model_.size(); }

 private:
  void ExpectSet(const std::string& text) {
    const uint32_t length = uint32_t(text.size());
    if (length + 1 > capacity_) capacity_ = length == 0 ? 1 : 2 * length;
    model_ = text;
  }
  void Validate() const {
    ASSERT_EQ(string_->length, model_.size());
    ASSERT_EQ(string_->capacity, capacity_);
    ASSERT_EQ(string_->category, category_);
    ASSERT_EQ(memcmp(string_->buffer, model_.c_str(), model_.size() + 1), 0) << model_;
  }

  QV_STRING* const string_;
  const uint32_t category_;
  uint32_t capacity_;
  std::string model_;
};

}  // namespace

// Faults: a capacity off the rule, growth one byte late, a text in the own buffer read after its
// release.
TEST(CountedStrings, AgreeWithAModel) {
  EXPECT_EQ(StringPair(3, 4, "hello").Length(), 5u);
  for (uint32_t seed = 1; seed <= 20; seed++) {
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    StringPair string(uint32_t(random() % 64), uint32_t(random() % 6), std::string(random() % 6, 'i'));
    for (int i = 0; i < 3000 && !HasFatalFailure(); i++) {
      std::string text(random() % 4 == 0 ? random() % 300 : random() % 4, 0);
      for (char& c : text) c = char('a' + random() % 26);
      switch (random() % (string.Length() > 4000 ? 2 : 4)) {
        case 0: string.Set(text.c_str()); break;
        case 1: string.Set(string.Own(random())); break;
        case 2: string.Append(text.c_str()); break;
        default: string.Append(string.Own(random()));
      }
    }
  }
}

TEST(CountedStrings, GrowAsDocumentedAndTolerateNull) {
  QV_STRING* const string = __QvStrAlloc(0, 4, "hello");
  EXPECT_EQ(string->capacity, 10u);
  __QvStrAppend(string, "world");
  EXPECT_EQ(string->capacity, 30u);
  EXPECT_STREQ(string->buffer, "helloworld");
  __QvStrAppend(string, nullptr);
  __QvStrAppend(nullptr, "text");
  EXPECT_EQ(__QvStrSet(string, nullptr), string);
  EXPECT_EQ(__QvStrSet(nullptr, "text"), nullptr);
  EXPECT_STREQ(string->buffer, "helloworld");
  __QvStrDestroy(string);
  __QvStrDestroy(nullptr);
  QV_STRING* const empty = __QvStrAlloc(0, 0, nullptr);
  EXPECT_EQ(empty->capacity, 1u);
  EXPECT_STREQ(empty->buffer, "");
  __QvStrDestroy(empty);
}
