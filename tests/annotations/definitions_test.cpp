// Definitions files: lines against a dull splitter, files as a whole, matching, memory.
#include <gtest/gtest.h>
#include <string.h>

#include <fstream>
#include <string>
#include <vector>

#include "include/qvrt.h"
#include "tests/support/child.h"

namespace {

void Append(const AnnotationRecord* r, void* context) {
  std::ostringstream text;
  text << (r->name != nullptr ? r->name : "(null)") << ' ' << std::hex << r->address << ' '
       << r->hasLocation << ' ' << r->locationValue << ' ' << r->isRegister << r->registerOffset
       << r->probeSize << (r->expression == nullptr) << '\n';
  *static_cast<std::string*>(context) += text.str();
}

TEST(Definitions, LinesOfEveryShape) {
  const auto child = qvtest::RunChild([] {
    const struct {
      const char* line;
      int result;
      const char *name, *path;
      uint32_t offset, hasValue;
      uint64_t value;
    } cases[] = {
        {"foo \"/usr//lib/libx.so\" 1a40 3", 1, "foo", "/usr/lib/libx.so", 0x1A40, 1, 3},
        {"\t foo  \"/a b/c\"\t0x10 0x20 \r\n", 1, "foo", "/a b/c", 0x10, 1, 0x20},
        {"foo \"/a\" ff", 0, "foo", "/a", 0xFF, 0, 0},
        {"foo \"/a\" 10 010 five", 0, "foo", "/a", 0x10, 1, 8},
        {"foo", 0, "foo", nullptr, 0, 0, 0},
        {"\"two words\" \"/a\" 1 18446744073709551615", 1, "\"two words\"", "/a", 1, 1, ~0ull},
        {"foo x 1 2", 1, "foo", "", 1, 1, 2},
        {"foo \"/never ends 1 2", 0, "foo", "/never ends 1 ", 0, 0, 0},
        {" \t\n", 0, nullptr, nullptr, 0, 0, 0},
        {"", 0, nullptr, nullptr, 0, 0, 0},
    };
    for (const auto& c : cases) {
      std::string line = c.line;
      ZcaDefinition d = {};
      CHECK_EQ(__QvZCAParseDefinition(line.data(), &d), c.result);
      CHECK((c.name == nullptr) == (d.name == nullptr) &&
            (c.name == nullptr || !strcmp(c.name, d.name)));
      CHECK((c.path == nullptr) == (d.modulePath == nullptr));
      if (c.path != nullptr) CHECK(std::string(c.path) == d.modulePath);
      CHECK_EQ(d.offset, c.offset);
      CHECK_EQ(d.hasValue, c.hasValue);
      if (c.hasValue) CHECK_EQ(d.value->value, c.value);
      __QvFree(d.name);
      __QvFree(d.modulePath);
      __QvFree(d.value);
    }
    std::string line = "x  \n";
    ZcaDefinition d = {};
    __QvZCAParseDefinition(line.data(), &d);
    CHECK(line[1] == 0 && line[2] == 0 && line[3] == 0);
    CHECK_EQ(__QvZCAParseDefinition(nullptr, &d) + __QvZCAParseDefinition(line.data(), nullptr), 0);
  });
  EXPECT_TRUE(child.Ok()) << child.err;
}

TEST(Definitions, FilesAppendInOrderAndMatchBySanitizedPath) {
  const auto child = qvtest::RunChild([] {
    __QvRtStartup();
    std::ofstream("a") << "\none \"/m//x\" 10 1\n\n\ntwo \"/m/x\" 20\nthree \"/m/y\" 30 3\n\n";
    std::ofstream("b") << "four \"/m/x\" 40 4 5\nfive \"/m/x\" 50 5" << std::string(70000, ' ')
                       << "6\n";
    std::ofstream("empty");
    std::string seen;
    __QvZCAProcessExternalRecords("/m/x", 0, Append, &seen);
    CHECK(seen.empty());
    CHECK_EQ(__QvZCALoadExternalDefinitions("a"), 1);
    CHECK_EQ(__QvZCALoadExternalDefinitions("empty"), 1);
    CHECK_EQ(__QvZCALoadExternalDefinitions("b"), 1);
    CHECK_EQ(__QvZCALoadExternalDefinitions("missing<"), 0);
    __QvZCAProcessExternalRecords("/m///x", 0x1000, Append, &seen);
    CHECK(seen == "one 1010 1 1 0001\ntwo 1020 0 0 0001\nfour 1040 1 4 0001\nfive 1050 1 5 0001\n");
    seen.clear();
    __QvZCAProcessExternalRecords("/m/x/", 0, Append, &seen);
    __QvZCAProcessExternalRecords(nullptr, 0, Append, &seen);
    __QvZCAProcessExternalRecords("/m/x", 0, nullptr, &seen);
    __QvZCACleanupDefinitions();
    __QvZCACleanupDefinitions();
    __QvZCAProcessExternalRecords("/m/x", 0, Append, &seen);
    CHECK(seen.empty());
    CHECK_EQ(__QvZCALoadExternalDefinitions("a"), 1);
    __QvZCAProcessExternalRecords("/m/y", 0, Append, &seen);
    CHECK(seen == "three 30 1 3 0001\n");
  });
  EXPECT_TRUE(child.Ok()) << child.err;
  const std::string log = child.Read("qvlog.log");
  EXPECT_NE(log.find("Unexpected number of annotation arguments: 4"), std::string::npos);
  EXPECT_NE(log.find("<type>FAIL_OPEN_FILE</type>"), std::string::npos);
  EXPECT_NE(log.find("<arg name='filename'>missing&lt;</arg>"), std::string::npos);
}

}  // namespace
