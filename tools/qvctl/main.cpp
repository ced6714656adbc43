// qvctl: steers a tool through its command channel, for people and scripts.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tools/qvctl/channel.h"
#include "tools/qvctl/heap_tool.h"

namespace qvctl {
namespace {

constexpr char kUsageText[] =
    "usage: qvctl DIR status\n"
    "       qvctl DIR send CODE [a2 [a3 [a4 [a5]]]] [--payload TEXT | --payload-file FILE]\n"
    "       qvctl DIR wait\n"
    "       qvctl DIR watch\n"
    "       qvctl DIR clean\n"
    "       qvctl DIR snapshot | pause | resume | reset-peak | stop\n"
    "\n"
    "DIR is the directory in which the tool opened its channel (it holds obkcmds.dat).\n"
    "  status  tells whether a tool is there, alive and ready, and what is pending\n"
    "  send    appends one command, waiting for room, and wakes the tool\n"
    "  wait    returns when the tool has taken all commands\n"
    "  watch   prints a line whenever something changes, until the tool is gone\n"
    "  clean   removes what a dead tool left; never a live one's\n"
    "Those of qvheap, which return when they are done:\n"
    "  snapshot    writes the results so far, and prints the file's name\n"
    "  pause       counts no allocations until resume; releases go on\n"
    "  resume      counts them again\n"
    "  reset-peak  the peak is what is live now\n"
    "  stop        closes the channel; counting goes on\n"
    "Numbers are decimal, 0x hexadecimal or 0 octal. --timeout SECONDS limits whatever waits for the\n"
    "tool (default 10).\n"
    "\n"
    "exit status: 0 done, 1 usage, 2 no channel, 3 stale lock file, 4 dead tool, 5 not ready,\n"
    "6 area full, 7 timed out, 8 payload too long, 9 no permission, 10 alive (clean), 11 system "
    "error\n";

struct Options {
  std::string directory, verb;
  std::vector<std::string> words;
  std::string payload;
  double timeoutSeconds = 10;
};

[[noreturn]] void FailUsage(const std::string& message) { throw Failure{kUsage, message}; }

int32_t ParseInt(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const long long value = strtoll(text.c_str(), &end, 0);
  if (text.empty() || *end != 0 || errno != 0 || value < INT32_MIN || value > UINT32_MAX) {
    FailUsage("'" + text + "' is no 32-bit number");
  }
  return int32_t(value);
}

double ParseSeconds(const std::string& text) {
  char* end = nullptr;
  const double value = strtod(text.c_str(), &end);
  if (text.empty() || *end != 0 || !(value >= 0)) FailUsage("'" + text + "' is no number of seconds");
  return value;
}

std::string ReadPayloadFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw Failure{kSystem, path + ": " + strerror(errno)};
  return {std::istreambuf_iterator<char>(stream), {}};
}

Options ParseArguments(int argc, char** argv) {
  Options options;
  std::vector<std::string> words;
  for (int i = 1; i < argc; i++) {
    const std::string word = argv[i];
    if (word == "--help") {
      fputs(kUsageText, stdout);
      exit(kOk);
    }
    if (word != "--payload" && word != "--payload-file" && word != "--timeout") {
      words.push_back(word);
      continue;
    }
    if (++i == argc) FailUsage(word + " needs a value");
    if (word == "--payload") options.payload = argv[i];
    if (word == "--payload-file") options.payload = ReadPayloadFile(argv[i]);
    if (word == "--timeout") options.timeoutSeconds = ParseSeconds(argv[i]);
  }
  if (words.size() < 2) FailUsage("a directory and a command are needed");
  options.directory = words[0];
  options.verb = words[1];
  options.words.assign(words.begin() + 2, words.end());
  const bool isSend = options.verb == "send";
  if (!isSend && !options.words.empty()) FailUsage("'" + options.words[0] + "' is one word too many");
  if (!isSend && !options.payload.empty()) FailUsage("only send takes a payload");
  return options;
}

void PrintFacts(const Facts& facts) {
  printf("tool      pid %d, %s\n", int(facts.creator),
         facts.Alive()        ? "alive"
         : facts.creatorAlive ? "alive, but detached"
                              : "dead");
  printf("channel   %s, %d pending\n", facts.ready ? "ready" : "not ready", facts.pending);
  printf("area      shared memory %d, %lu attached\n", facts.segmentId, facts.attached);
  printf("wake-up   semaphore %d, key 0x%x\n", facts.semaphoreId, unsigned(facts.semaphoreKey));
}

Status DoStatus(const Options& options) {
  const Facts facts = Channel(options.directory).Look();
  PrintFacts(facts);
  return !facts.Alive() ? kDeadTool : facts.ready ? kOk : kNotReady;
}

Status DoSend(const Options& options) {
  if (options.words.empty() || options.words.size() > 5) FailUsage("send takes one to five numbers");
  if (options.payload.size() > QV_COMMAND_PAYLOAD_BYTES) {
    throw Failure{kTooLong,
                  "the payload has " + std::to_string(options.payload.size()) + " bytes; 4352 fit"};
  }
  CommandRecord record = {};
  for (size_t i = 0; i < options.words.size(); i++) record.arguments[i] = ParseInt(options.words[i]);
  memcpy(record.payload, options.payload.data(), options.payload.size());
  Channel(options.directory).Send(record, options.timeoutSeconds);
  return kOk;
}

Status DoWait(const Options& options) {
  Channel(options.directory).AwaitTaken(options.timeoutSeconds);
  return kOk;
}

Status DoWatch(const Options& options) {
  const Channel channel(options.directory);
  int pending = -1;
  bool ready = false;
  for (;;) {
    const Facts facts = channel.Look();
    if (facts.pending != pending || facts.ready != ready) {
      printf("%s, %d pending\n", facts.ready ? "ready" : "not ready", facts.pending);
      fflush(stdout);
    }
    pending = facts.pending;
    ready = facts.ready;
    if (!facts.Alive()) break;
    const timespec pause = {0, 20'000'000};
    nanosleep(&pause, nullptr);
  }
  puts("the tool is gone");
  return kOk;
}

Status DoClean(const Options& options) {
  Clean(options.directory);
  return kOk;
}

Status Run(int argc, char** argv) {
  const Options options = ParseArguments(argc, argv);
  const struct {
    const char* verb;
    Status (*run)(const Options&);
  } verbs[] = {
      {"status", DoStatus}, {"send", DoSend}, {"wait", DoWait}, {"watch", DoWatch}, {"clean", DoClean}};
  for (const auto& verb : verbs) {
    if (options.verb == verb.verb) return verb.run(options);
  }
  if (kHeapCommands.count(options.verb) != 0) {
    DoHeapCommand(options.directory, options.verb, options.timeoutSeconds);
    return kOk;
  }
  FailUsage("'" + options.verb + "' is no command of qvctl");
}

}  // namespace
}  // namespace qvctl

int main(int argc, char** argv) {
  try {
    return qvctl::Run(argc, argv);
  } catch (const qvctl::Failure& failure) {
    fprintf(stderr, "qvctl: %s\n", failure.message.c_str());
    if (failure.status == qvctl::kUsage) fputs(qvctl::kUsageText, stderr);
    return failure.status;
  }
}
