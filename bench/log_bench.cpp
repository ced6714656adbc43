// Log entries, each in the file before the call returns: beside spdlog's basic file sink that flushes
// every entry, and beside the floor, one snprintf with the local time and one write(2).
//
//   log_message     a registered message with one string argument
//   log_comment     free text with a number
// All write into a folder of their own, and each run begins with an empty file.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "bench/support/bench.h"
#include "include/qvrt.h"

#include <fcntl.h>
#ifdef QVBENCH_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

constexpr char kOption[] = "-no-such-option";

// The folder of this run's files, gone when the program ends.
class Folder {
 public:
  Folder() : path_(std::filesystem::temp_directory_path() / "qvbench.XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) {
      perror("mkdtemp");
      exit(1);
    }
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string File(const char* name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

const Folder& TheFolder() {
  static const Folder folder;
  return folder;
}

struct Ours {
  static std::string Path() { return TheFolder().File("qvlog.log"); }
  void Message(const char* option) {
    __QvLogInternal(QVLOG_SEVERITY_ERROR, QVLOG_MSG_BAD_OPTION, 0, QVLOG_ARG_STRING, option);
  }
  void Comment(const char* option, int number) {
    __QvLogInternal(QVLOG_SEVERITY_INFO, QVLOG_MSG_COMMENT, 0, "option %s at %d", option, number);
  }
};

#ifdef QVBENCH_HAVE_SPDLOG
struct Spdlog {
  static std::string Path() { return TheFolder().File("spdlog.log"); }
  static spdlog::logger& Logger() {
    static const auto logger = [] {
      auto made = spdlog::basic_logger_mt("qvbench", Path());
      made->flush_on(spdlog::level::trace);
      return made;
    }();
    return *logger;
  }
  void Message(const char* option) { Logger().error("BAD_OPTION option={}", option); }
  void Comment(const char* option, int number) { Logger().info("option {} at {}", option, number); }
};
#endif

struct TimeAndWrite {
  static std::string Path() { return TheFolder().File("write.log"); }
  static int Descriptor() {
    static const int descriptor = open(Path().c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0666);
    return descriptor;
  }
  template <class... Values>
  void Put(const char* format, Values... values) {
    char text[512];
    const time_t now = time(nullptr);
    tm local;
    localtime_r(&now, &local);
    const size_t length = strftime(text, sizeof text, "%c ", &local);
    const int more = snprintf(text + length, sizeof text - length, format, values...);
    benchmark::DoNotOptimize(write(Descriptor(), text, length + size_t(more)));
  }
  void Message(const char* option) { Put("ERROR BAD_OPTION option=%s\n", option); }
  void Comment(const char* option, int number) { Put("INFO option %s at %d\n", option, number); }
};

template <class Log>
void BeginEmpty() {
  benchmark::DoNotOptimize(truncate(Log::Path().c_str(), 0));
}

template <class Log>
void Message(benchmark::State& state) {
  Log log;
  log.Message(kOption);
  BeginEmpty<Log>();
  for (auto _ : state) log.Message(kOption);
}

template <class Log>
void Comment(benchmark::State& state) {
  Log log;
  log.Comment(kOption, 0);
  BeginEmpty<Log>();
  int number = 0;
  for (auto _ : state) log.Comment(kOption, number++);
}

template <class Log>
void AddAll(const char* who) {
  qvbench::Add("log_message", who, Message<Log>);
  qvbench::Add("log_comment", who, Comment<Log>);
}

}  // namespace

void qvbench::Setup() {
  StartHost();
  __QvCreateLogger("qvbench", Ours::Path().c_str(), 0);
  AddAll<Ours>("qvrt");
#ifdef QVBENCH_HAVE_SPDLOG
  AddAll<Spdlog>("spdlog");
#endif
  AddAll<TimeAndWrite>("time_and_write");
  Aim("log_message", "spdlog", 1.05);
  Aim("log_comment", "spdlog", 1.05);
}
