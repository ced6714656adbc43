// Options between launcher and collector. Design: collectors/qvheap/options.h.
#include "collectors/qvheap/options.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace qvheap {

const OptionInfo kOptionInfos[kOptionNames] = {
    {"-out", "a directory", "DIR: where the files go;", false, ".", 0, true},
    {"-quiet", nullptr, "no table on standard error at the end;", false, nullptr, 0, true},
    {"-exact", nullptr, "a stack for every allocation, not for samples;", false, nullptr, 0, true},
    {"-interval", "a number of bytes", "BYTES: allocated from sample to sample on average;", true,
     nullptr, 65536, true},
    {"-every", "a number of seconds", "SECONDS: from line to line of the time series, 0 for none;",
     true, nullptr, 0, true},
    {"-dump", "a list of channels", "LIST: what happens inside, by topic, in the log;", false, nullptr,
     0, true},
    {"-nochannel", nullptr, "no command channel, hence no second thread;", false, nullptr, 0, true},
    {"-help", nullptr, "this text;", false, nullptr, 0, true},
    {"--help", nullptr, "this text;", false, nullptr, 0, false},
};

namespace {

constexpr uint32_t kMostElements = 2 * kCollectorOptions;
constexpr char kLauncherFormat[] = "pid=%d,stderr=%lx:%lx";

// The text as it grows; nothing more is added once something did not fit.
struct Writer {
  char* out;
  const char* end;
  bool fits;

  void Put(char c) {
    if (out == end) fits = false;
    if (fits) *out++ = c;
  }
  void PutElement(const char* element) {
    Put(' ');
    for (; *element != 0; element++) {
      if (*element == ' ' || *element == '\\') Put('\\');
      Put(*element);
    }
  }
};

uint32_t RegisterOption(uint32_t parser, const OptionInfo& info) {
  if (info.argument == nullptr) {
    return __QvRegisterBooleanOption(parser, info.name, info.description, 0, 0, info.inHelp);
  }
  if (info.isNumber) {
    return __QvRegisterIntegerOption(parser, info.name, info.description, info.defaultNumber, 0,
                                     info.inHelp);
  }
  return __QvRegisterStringOption(parser, info.name, info.description, info.defaultText, 0, 0,
                                  info.inHelp);
}

void PutOption(Writer& writer, const OptionParser& parser, uint32_t name) {
  const OptionName option = OptionName(name);
  const OptionInfo& info = kOptionInfos[name];
  if (!parser.IsSet(option)) return;
  if (info.argument == nullptr) {
    if (parser.Truth(option)) writer.PutElement(info.name);  // the default is false
    return;
  }
  char number[16];
  snprintf(number, sizeof number, "%u", info.isNumber ? parser.Number(option) : 0);
  writer.PutElement(info.name);
  writer.PutElement(info.isNumber ? number : parser.Text(option));
}

// Cuts the text into its elements where it stands; how many, or none if there are too many.
uint32_t SplitElements(char* text, char* (&elements)[kMostElements]) {
  uint32_t count = 0;
  char* out = text;
  while (*text != 0) {
    if (count == kMostElements) return 0;
    elements[count++] = out;
    for (; *text != 0 && *text != ' '; *out++ = *text++) {
      if (*text == '\\' && text[1] != 0) text++;
    }
    if (*text == ' ') text++;
    *out++ = 0;  // never beyond what has been read: a blank or the end stood there
  }
  return count;
}

bool TakeValues(const OptionParser& parser, Options& options) {
  const char* const directory = parser.Text(kOptionOut);
  if (directory == nullptr || *directory != '/' || strlen(directory) >= sizeof options.directory) {
    return false;
  }
  strcpy(options.directory, directory);
  options.quiet = parser.Truth(kOptionQuiet);
  options.exact = parser.Truth(kOptionExact);
  options.noChannel = parser.Truth(kOptionNoChannel);
  options.intervalBytes = parser.Number(kOptionInterval);
  options.everySeconds = parser.Number(kOptionEvery);
  if (options.intervalBytes == 0) options.intervalBytes = 1;
  return true;
}

}  // namespace

OptionParser RegisterOptions(uint32_t howMany) {
  OptionParser parser = {};
  parser.parser = __QvGetOptionParser("qvheap");
  for (uint32_t i = 0; i < howMany; i++) {
    parser.ids[i] = RegisterOption(parser.parser, kOptionInfos[i]);
  }
  return parser;
}

const OptionInfo* FindOptionInfo(const char* element) {
  if (strncmp(element, "-no-", 4) == 0) element += 3;
  for (const OptionInfo& info : kOptionInfos) {
    if (strcmp(info.name, element) == 0) return &info;
  }
  return nullptr;
}

bool FormatHandover(const OptionParser& parser, const Options& options, char* text,
                    uint32_t sizeBytes) {
  const int length = snprintf(text, sizeBytes, kLauncherFormat, options.launchedPid,
                              options.stderrDevice, options.stderrInode);
  Writer writer = {text + length, text + sizeBytes - 1, true};
  for (uint32_t name = kOptionOut + 1; name < kCollectorOptions; name++)
    PutOption(writer, parser, name);
  writer.PutElement(kOptionInfos[kOptionOut].name);
  writer.PutElement(options.directory);
  *writer.out = 0;
  return writer.fits;
}

bool ReadHandover(const char* text, const OptionParser& parser, Options& options) {
  static char elementsText[kHandoverBytes];  // too much for a borrowed stack
  if (getcwd(options.directory, sizeof options.directory) == nullptr) strcpy(options.directory, "/");
  if (text == nullptr) return true;
  const size_t length = strlen(text);
  if (length >= sizeof elementsText) return false;
  int pid = 0;
  unsigned long device = 0, inode = 0;
  if (sscanf(text, kLauncherFormat, &pid, &device, &inode) != 3) return false;
  const char* const rest = strchr(text, ' ');
  if (rest == nullptr) return false;
  memcpy(elementsText, rest + 1, length - size_t(rest - text));
  char* elements[kMostElements];
  const uint32_t count = SplitElements(elementsText, elements);
  if (count == 0 || __QvParseOptions2(parser.parser, count, elements) == 0) return false;
  if (!TakeValues(parser, options)) return false;
  options.launchedPid = pid;
  options.stderrDevice = device;
  options.stderrInode = inode;
  return true;
}

}  // namespace qvheap
