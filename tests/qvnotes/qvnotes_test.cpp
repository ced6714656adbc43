// qvnotes reads back what compilers emit, adds definitions, and says clearly what is no image of ours.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

struct Result {
  int status;
  std::string text;
};

Result RunShell(const std::string& command) {
  FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
  std::string text;
  char buffer[4096];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, got);
  return {WEXITSTATUS(pclose(pipe)), text};
}

class Qvnotes : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "qvnotes.XXXXXX";
    folder_ = mkdtemp(pattern.data());
    image_ = folder_ + "/image";
  }
  void TearDown() override { fs::remove_all(folder_); }
  bool Compile(const std::string& compiler, const std::string& flags) {
    const Result built = RunShell(compiler + " " + flags + " -I" INCLUDE " " SOURCE " -o " + image_);
    EXPECT_EQ(built.status, 0) << compiler << flags << built.text;
    return built.status == 0;
  }
  std::string folder_, image_;
};

std::string Hex16(uint64_t value) {
  char text[32];
  snprintf(text, sizeof text, "%016lx", static_cast<unsigned long>(value));
  return text;
}

TEST_F(Qvnotes, ReadsBackImagesOfBothCompilersInEveryShape) {
  for (const std::string compiler : {"g++", "clang++"}) {
    for (const std::string flags :
         {"-O0 -fPIE -pie", "-O2 -fPIE -pie", "-O0 -fno-pie -no-pie", "-O2 -fno-pie -no-pie",
          "-O2 -ffunction-sections -Wl,--gc-sections"}) {
      if (!Compile(compiler, flags)) continue;
      const uint64_t base = flags.find("-no-pie") != std::string::npos ? 0x400000 : 0;
      std::istringstream ran(RunShell(image_).text);
      uint64_t begin = 0, phase = 0;
      ran >> std::hex >> begin >> phase;
      const Result listed = RunShell(QVNOTES " " + image_);
      EXPECT_EQ(listed.status, 0) << listed.text;
      const auto holds = [&](const std::string& line) {
        EXPECT_NE(listed.text.find(line), std::string::npos)
            << compiler << flags << line << listed.text;
      };
      holds("  table of version 1.2\n");
      holds("  " + Hex16(base + begin) + "  0                 0  main.begin\n");
      holds("  " + Hex16(base + phase) + "  31                0  phase\n");
      EXPECT_TRUE(listed.text.find("  r") != std::string::npos &&
                  listed.text.find("  twice.x\n") != std::string::npos)
          << listed.text;
    }
  }
}

TEST_F(Qvnotes, AddsDefinitionsAndReportsWhatItCannotRead) {
  ASSERT_TRUE(Compile("g++", "-O1"));
  std::ofstream(folder_ + "/defs") << "extra \"" << folder_
                                   << "//image\" 1234 0x2a\nother \"/x\" 1 1\n";
  const Result listed = RunShell(QVNOTES " --definitions " + folder_ + "/defs " + image_);
  EXPECT_EQ(listed.status, 0);
  EXPECT_NE(listed.text.find("  definitions\n  0000000000001234  42                0  extra\n"),
            std::string::npos)
      << listed.text;
  EXPECT_EQ(listed.text.find("other"), std::string::npos);
  EXPECT_EQ(RunShell(QVNOTES " --definitions " + folder_ + "/none " + image_).status, 2);
  // Definitions are what an image without the section has.
  std::ofstream(folder_ + "/plain") << "only \"" QVNOTES "\" 10\n";
  const Result plain = RunShell(QVNOTES " --definitions " + folder_ + "/plain " QVNOTES);
  EXPECT_EQ(plain.status, 0) << plain.text;
  EXPECT_NE(plain.text.find("  definitions\n  0000000000000010  -                 0  only\n"),
            std::string::npos)
      << plain.text;

  std::ofstream(folder_ + "/text") << "no image";
  const Result text = RunShell(QVNOTES " " + folder_ + "/text");
  EXPECT_EQ(text.status, 2);
  EXPECT_NE(text.text.find("is no ELF image"), std::string::npos);
  EXPECT_NE(RunShell(QVNOTES " " QVNOTES).text.find("has no section .ubq_notify_tab"),
            std::string::npos);
  EXPECT_NE(RunShell(QVNOTES " /no/such").text.find("No such file"), std::string::npos);
  EXPECT_EQ(RunShell(QVNOTES).status, 1);
  EXPECT_EQ(RunShell(QVNOTES " --what").status, 1);
}

// Damage in the section's bytes and cuts of the file anywhere: a message, never a crash.
TEST_F(Qvnotes, DamagedImagesGetAMessage) {
  ASSERT_TRUE(Compile("g++", "-O1 -s"));
  std::ifstream stream(image_, std::ios::binary);
  const std::string whole{std::istreambuf_iterator<char>(stream), {}};
  const size_t magic = whole.find(std::string(".ubq_notify_tab\0\x02\x01", 18));
  ASSERT_NE(magic, std::string::npos);
  const std::string damaged = folder_ + "/damaged";
  const auto write = [&](std::string bytes) { std::ofstream(damaged, std::ios::binary) << bytes; };
  for (const size_t at : {size_t{0}, size_t{16}, size_t{20}}) {
    std::string bytes = whole;
    bytes[magic + at] = '\x7f';
    write(bytes);
    const Result result = RunShell(QVNOTES " " + damaged);
    EXPECT_EQ(result.status, 2) << at << result.text;
    EXPECT_NE(result.text.find("qvnotes: " + damaged), std::string::npos);
  }
  for (size_t length = 0; length < whole.size(); length += whole.size() / 61 + 1) {
    write(whole.substr(0, length));
    const Result result = RunShell(QVNOTES " " + damaged);
    EXPECT_EQ(result.status, 2) << length << result.text;
    EXPECT_NE(result.text.find("qvnotes: " + damaged), std::string::npos) << length << result.text;
  }
}

}  // namespace
