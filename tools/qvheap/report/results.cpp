// Reading a results file. Design: tools/qvheap/report/results.h.
//
// libxml2's parser calls back for each element, and no tree is built: a file of 100,000 sites takes the
// memory of its figures alone. What an element is, its whole path says, so the same name elsewhere, or
// inside an element that we do not know, is something else. Document types, and with them entities, are
// refused: no file of ours has one.
#include "tools/qvheap/report/results.h"

#include <errno.h>
#include <fcntl.h>
#include <libxml/parser.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <unordered_map>

#include "tools/qvheap/report/numbers.h"
#include "tools/qvheap/report/text_cleaner.h"

namespace qvheap {
namespace {

constexpr size_t kPieceBytes = 1 << 18;
constexpr size_t kDeepest = 32;  // elements within each other; the form has six

const std::unordered_map<std::string, int64_t SiteFigures::*> kSiteFigures = {
    {"samples", &SiteFigures::samples},
    {"allocations", &SiteFigures::allocations},
    {"releases", &SiteFigures::releases},
    {"bytesAllocated", &SiteFigures::bytesAllocated},
    {"bytesReleased", &SiteFigures::bytesReleased},
    {"liveBlocks", &SiteFigures::liveBlocks},
    {"liveBytes", &SiteFigures::liveBytes},
    {"peakBytes", &SiteFigures::peakBytes},
    {"liveAtPeakBytes", &SiteFigures::liveAtPeakBytes},
};

const std::unordered_map<std::string, int64_t Results::*> kHeapFigures = {
    {"started", &Results::startedMilliseconds},   {"elapsed", &Results::elapsedMilliseconds},
    {"paused", &Results::pausedMilliseconds},     {"intervalBytes", &Results::intervalBytes},
    {"collectorBytes", &Results::collectorBytes},
};

const std::unordered_map<std::string, std::string Results::*> kHeapTexts = {
    {"program", &Results::program},
    {"mode", &Results::mode},
};

class Attributes {
 public:
  explicit Attributes(const xmlChar** pairs) : pairs_(pairs) {}
  // Null if there is none of that name.
  const char* Find(const char* name) const {
    for (const xmlChar** at = pairs_; at != nullptr && *at != nullptr; at += 2) {
      if (strcmp(reinterpret_cast<const char*>(at[0]), name) == 0) {
        return reinterpret_cast<const char*>(at[1]);
      }
    }
    return nullptr;
  }

 private:
  const xmlChar** pairs_;
};

// Builds the results from the parser's calls. The first thing that is wrong stops the parser (an
// exception cannot pass through it) and is kept in `wrong`.
class Builder {
 public:
  explicit Builder(Results& results) : results_(results) {}

  std::string wrong;
  xmlParserCtxtPtr parser = nullptr;

  void Start(const char* name, const Attributes& attributes) {
    if (!wrong.empty()) return;
    text_.clear();
    marks_.push_back(path_.size());
    (path_ += '/') += name;
    if (marks_.size() > kDeepest) return Refuse("its elements are nested too deeply");
    if (marks_.size() == 1) return StartHeap(name, attributes);
    if (!CheckVersion()) return;
    const auto start = kStarts.find(path_);
    if (start != kStarts.end()) (this->*start->second)(attributes);
  }

  void Text(const char* text, size_t bytes) { text_.append(text, bytes); }

  void End(const char* name) {
    if (!wrong.empty() || marks_.empty()) return;
    path_.resize(marks_.back());
    marks_.pop_back();
    if (marks_.empty()) CheckVersion();
    const auto end = kEnds.find(path_);
    if (end != kEnds.end()) (this->*end->second)(name);
    text_.clear();
  }

  void Refuse(const std::string& message) {
    if (wrong.empty()) wrong = message;
    xmlStopParser(parser);
  }

  bool Complete() {
    if (sawHeap_ && account_ != nullptr) return true;
    wrong = "is incomplete: it has no figures of the process";
    return false;
  }

 private:
  using OnStart = void (Builder::*)(const Attributes&);
  using OnEnd = void (Builder::*)(const std::string& name);
  static const std::unordered_map<std::string, OnStart> kStarts;  // by the element's path
  static const std::unordered_map<std::string, OnEnd> kEnds;      // by its parent's path

  std::string Line() const {
    return parser->input == nullptr ? "" : " (line " + std::to_string(parser->input->line) + ")";
  }

  int64_t Number(const std::string& name, const std::string& text) {
    int64_t value = 0;
    if (!ParseDecimal(text, value)) {
      Refuse("is damaged: '" + name + "' is no number: '" + text.substr(0, 40) + "'" + Line());
    }
    return value;
  }

  int64_t Number(const Attributes& attributes, const char* name, int64_t absent = 0) {
    const char* const text = attributes.Find(name);
    return text == nullptr ? absent : Number(name, text);
  }

  uint64_t Address(const std::string& name, const std::string& text) {
    uint64_t value = 0;
    if (!ParseAddress(text, value)) {
      Refuse("is damaged: '" + name + "' is no address: '" + text.substr(0, 40) + "'" + Line());
    }
    return value;
  }

  uint64_t Address(const Attributes& attributes, const char* name) {
    const char* const text = attributes.Find(name);
    return Address(name, text == nullptr ? "" : text);
  }

  void StartHeap(const std::string& name, const Attributes& attributes) {
    if (name != "heap") {
      return Refuse("is no results file of qvheap: it begins with <" + name.substr(0, 40) + ">");
    }
    const char* const version = attributes.Find("version");
    results_.version = version == nullptr ? "" : version;
    results_.pid = Number(attributes, "pid");
    results_.number = Number(attributes, "number");
    const char* const kind = attributes.Find("kind");
    results_.kind = kind == nullptr ? "end" : kind;
    sawHeap_ = true;
  }

  // Asked when the first tag is known to be whole: of a cut one the parser tells what is there.
  bool CheckVersion() {
    if (results_.version.compare(0, 2, "2.") == 0) return true;
    Refuse("has version '" + results_.version.substr(0, 40) +
           "' of the form, and this qvheap reads versions 2.x" +
           (results_.version.compare(0, 2, "1.") == 0 ? " (it is an older qvheap's)" : ""));
    return false;
  }

  void StartProcess(const Attributes&) { account_ = &results_.process; }
  void StartThread(const Attributes& attributes) {
    ThreadAccount thread;
    thread.id = Number(attributes, "id");
    const char* const state = attributes.Find("state");
    thread.state = state == nullptr ? "" : state;
    AddThread(thread);
  }
  void StartOlderThreads(const Attributes& attributes) {
    ThreadAccount threads;
    threads.count = Number(attributes, "count");
    AddThread(threads);
  }
  void AddThread(const ThreadAccount& thread) {
    results_.threads.push_back(thread);
    threadAccount_ = &results_.threads.back().account;
  }

  void StartSize(const Attributes& attributes) {
    size_ = {Number(attributes, "from"), Number(attributes, "to"), 0};
  }

  void StartModule(const Attributes& attributes) {
    Module module;
    module.start = Address(attributes, "start");
    module.end = Address(attributes, "end");
    module.bias = Address(attributes, "bias");
    module.from = uint64_t(Number(attributes, "from"));
    if (attributes.Find("to") != nullptr) module.to = uint64_t(Number(attributes, "to"));
    module.bytes = Number(attributes, "bytes", -1);
    module.modified = Number(attributes, "modified", -1);
    const char* const buildId = attributes.Find("buildId");
    module.buildId = buildId == nullptr ? "" : buildId;
    results_.modules.push_back(module);
  }

  void StartRegion(const Attributes& attributes) {
    results_.regions.push_back({Address(attributes, "start"), Address(attributes, "end")});
  }

  void StartPoint(const Attributes& attributes) {
    results_.timeline.push_back({Number(attributes, "time"), Number(attributes, "bytesAllocated"),
                                 Number(attributes, "liveBytes"), Number(attributes, "liveBlocks")});
  }

  void StartSites(const Attributes& attributes) {
    results_.foldedSites = Number(attributes, "folded");
    results_.missedAllocations = Number(attributes, "missed");
  }
  void StartSite(const Attributes& attributes) {
    results_.sites.emplace_back();
    results_.sites.back().id = uint64_t(Number(attributes, "id"));
    results_.sites.back().epoch = uint64_t(Number(attributes, "epoch"));
  }
  void StartLifetimes(const Attributes& attributes) {
    SiteFigures& figures = results_.sites.back().figures;
    figures.within1ms = Number(attributes, "within1ms");
    figures.within1s = Number(attributes, "within1s");
    figures.longer = Number(attributes, "longer");
    figures.never = Number(attributes, "never");
  }
  void StartSiteThreads(const Attributes& attributes) {
    results_.sites.back().threadCount = Number(attributes, "count");
  }
  void StartSiteThread(const Attributes& attributes) {
    results_.sites.back().threads.push_back(
        {Number(attributes, "id"), Number(attributes, "allocations"), Number(attributes, "bytes")});
  }
  void StartCategory(const Attributes& attributes) {
    const char* const name = attributes.Find("name");
    results_.memory.emplace_back(name == nullptr ? "" : name, Number(attributes, "bytes"));
  }

  void EndInHeap(const std::string& name) {
    const auto figure = kHeapFigures.find(name);
    if (figure != kHeapFigures.end()) results_.*figure->second = Number(name, text_);
    const auto text = kHeapTexts.find(name);
    if (text != kHeapTexts.end()) results_.*text->second = text_;
  }
  void EndInArguments(const std::string& name) {
    if (name == "argument") results_.arguments.push_back(text_);
  }
  void EndInProcess(const std::string& name) { EndInAccount(*account_, name); }
  void EndInThread(const std::string& name) { EndInAccount(*threadAccount_, name); }
  void EndInAccount(Account& account, const std::string& name) {
    if (name != "sizes" && !text_.empty() && !IsBlank()) account.figures[name] = Number(name, text_);
  }
  void EndInSizes(const std::string& name) { EndSize(*account_, name); }
  void EndInThreadSizes(const std::string& name) { EndSize(*threadAccount_, name); }
  void EndSize(Account& account, const std::string& name) {
    if (name != "size") return;
    size_.count = Number(name, text_);
    account.sizes.push_back(size_);
  }
  void EndInModules(const std::string& name) {
    if (name == "module") results_.modules.back().path = text_;
  }
  void EndInSite(const std::string& name) {
    Site& site = results_.sites.back();
    if (name == "stack") return EndStack(site);
    const auto figure = kSiteFigures.find(name);
    if (figure != kSiteFigures.end()) site.figures.*figure->second = Number(name, text_);
  }

  void EndStack(Site& site) {
    const auto isBlank = [](char byte) {
      return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n';
    };
    for (const char* at = text_.c_str(); *at != 0;) {
      const char* const start = at;
      while (*at != 0 && !isBlank(*at)) at++;
      if (at != start) site.stack.push_back(Address("stack", std::string(start, at)));
      if (!wrong.empty()) return;
      while (isBlank(*at)) at++;
    }
  }

  bool IsBlank() const { return text_.find_first_not_of(" \t\r\n") == std::string::npos; }

  Results& results_;
  std::string path_;           // of the innermost open element, each name after a '/'
  std::vector<size_t> marks_;  // where the path ended before each open element
  std::string text_;           // of the innermost element, since its last tag
  bool sawHeap_ = false;
  Account* account_ = nullptr;
  Account* threadAccount_ = nullptr;
  SizeClass size_;
};

const std::unordered_map<std::string, Builder::OnStart> Builder::kStarts = {
    {"/heap/process", &Builder::StartProcess},
    {"/heap/process/sizes/size", &Builder::StartSize},
    {"/heap/thread", &Builder::StartThread},
    {"/heap/thread/sizes/size", &Builder::StartSize},
    {"/heap/olderThreads", &Builder::StartOlderThreads},
    {"/heap/olderThreads/sizes/size", &Builder::StartSize},
    {"/heap/modules/module", &Builder::StartModule},
    {"/heap/regions/region", &Builder::StartRegion},
    {"/heap/timeline/point", &Builder::StartPoint},
    {"/heap/sites", &Builder::StartSites},
    {"/heap/sites/site", &Builder::StartSite},
    {"/heap/sites/site/lifetimes", &Builder::StartLifetimes},
    {"/heap/sites/site/threads", &Builder::StartSiteThreads},
    {"/heap/sites/site/threads/thread", &Builder::StartSiteThread},
    {"/heap/memory/category", &Builder::StartCategory},
};

const std::unordered_map<std::string, Builder::OnEnd> Builder::kEnds = {
    {"/heap", &Builder::EndInHeap},
    {"/heap/arguments", &Builder::EndInArguments},
    {"/heap/process", &Builder::EndInProcess},
    {"/heap/process/sizes", &Builder::EndInSizes},
    {"/heap/thread", &Builder::EndInThread},
    {"/heap/thread/sizes", &Builder::EndInThreadSizes},
    {"/heap/olderThreads", &Builder::EndInThread},
    {"/heap/olderThreads/sizes", &Builder::EndInThreadSizes},
    {"/heap/modules", &Builder::EndInModules},
    {"/heap/sites/site", &Builder::EndInSite},
};

// ---- The parser ------------------------------------------------------------------------------------

void OnStartElement(void* builder, const xmlChar* name, const xmlChar** attributes) {
  static_cast<Builder*>(builder)->Start(reinterpret_cast<const char*>(name), Attributes(attributes));
}
void OnEndElement(void* builder, const xmlChar* name) {
  static_cast<Builder*>(builder)->End(reinterpret_cast<const char*>(name));
}
void OnText(void* builder, const xmlChar* text, int bytes) {
  static_cast<Builder*>(builder)->Text(reinterpret_cast<const char*>(text), size_t(bytes));
}
void OnDocumentType(void* builder, const xmlChar*, const xmlChar*, const xmlChar*) {
  static_cast<Builder*>(builder)->Refuse("is no results file of qvheap: it has a document type");
}
void OnMessage(void*, const char*, ...) {}  // kept by the parser as its last error

class Parser {
 public:
  explicit Parser(Builder& builder) {
    xmlSAXHandler handler = {};
    handler.startElement = OnStartElement;
    handler.endElement = OnEndElement;
    handler.characters = OnText;
    handler.cdataBlock = OnText;
    handler.internalSubset = OnDocumentType;
    handler.error = OnMessage;
    handler.fatalError = OnMessage;
    handler.warning = OnMessage;
    parser_.reset(xmlCreatePushParserCtxt(&handler, &builder, nullptr, 0, nullptr));
    if (parser_ == nullptr) throw BadInput("cannot make an XML parser: out of memory");
    xmlCtxtUseOptions(parser_.get(), XML_PARSE_NONET);
    builder.parser = parser_.get();
  }

  bool Take(const std::string& piece) {
    return xmlParseChunk(parser_.get(), piece.data(), int(piece.size()), 0) == 0;
  }
  bool Finish() { return xmlParseChunk(parser_.get(), nullptr, 0, 1) == 0; }

  std::string WhatIsWrong() const {
    const xmlError* const error = xmlCtxtGetLastError(parser_.get());
    if (error == nullptr || error->message == nullptr) return "it cannot be parsed";
    std::string message = error->message;
    message = CleanText(message.substr(0, message.find('\n')));
    return message + " (line " + std::to_string(error->line) + ")";
  }

  int Line() const { return parser_->input == nullptr ? 0 : parser_->input->line; }

 private:
  struct Free {
    void operator()(xmlParserCtxtPtr parser) const { xmlFreeParserCtxt(parser); }
  };
  std::unique_ptr<xmlParserCtxt, Free> parser_;
};

class File {
 public:
  explicit File(const std::string& path) : path_(path) {
    // Not blocking: a FIFO that nobody writes would hold us up for ever.
    descriptor_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor_ == -1) Fail(strerror(errno));
    struct stat status;
    if (fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode)) return;
    close(descriptor_);
    Fail("is no ordinary file");
  }
  ~File() { close(descriptor_); }

  // "" at the end.
  std::string Read() {
    std::string piece(kPieceBytes, '\0');
    ssize_t got;
    do got = read(descriptor_, piece.data(), piece.size());
    while (got == -1 && errno == EINTR);
    if (got == -1) Fail(strerror(errno));
    piece.resize(size_t(got));
    return piece;
  }

 private:
  [[noreturn]] void Fail(const std::string& what) const { throw BadInput(path_ + ": " + what); }

  const std::string path_;
  int descriptor_;
};

}  // namespace

void SiteFigures::Add(const SiteFigures& other) {
  for (const auto figure :
       {&SiteFigures::samples, &SiteFigures::allocations, &SiteFigures::releases,
        &SiteFigures::bytesAllocated, &SiteFigures::bytesReleased, &SiteFigures::liveBlocks,
        &SiteFigures::liveBytes, &SiteFigures::peakBytes, &SiteFigures::liveAtPeakBytes,
        &SiteFigures::within1ms, &SiteFigures::within1s, &SiteFigures::longer, &SiteFigures::never}) {
    this->*figure = Sum(this->*figure, other.*figure);
  }
}

int64_t Account::Figure(const char* name) const {
  const auto figure = figures.find(name);
  return figure == figures.end() ? 0 : figure->second;
}

std::string Results::CommandLine() const {
  std::string line;
  for (const std::string& argument : arguments) line += (line.empty() ? "" : " ") + argument;
  if (line.empty()) line = program;
  for (char& byte : line) {
    if (static_cast<unsigned char>(byte) < ' ') byte = ' ';
  }
  return line;
}

Results ReadResults(const std::string& path) {
  Results results;
  results.file = path;
  File file(path);
  Builder builder(results);
  Parser parser(builder);
  TextCleaner cleaner;
  const auto refuse = [&](const std::string& what) { throw BadInput(path + ": " + what); };
  bool some = false;
  for (std::string piece; !(piece = file.Read()).empty(); some = true) {
    const bool fine = parser.Take(cleaner.Clean(piece));
    if (!builder.wrong.empty()) refuse(builder.wrong);
    if (!fine) refuse("is damaged or no results file of qvheap: " + parser.WhatIsWrong());
  }
  if (!some) refuse("is empty");
  const bool fine = parser.Take(cleaner.Finish()) && parser.Finish();
  if (!builder.wrong.empty()) refuse(builder.wrong);
  if (!fine)
    refuse("is cut off: it ends in line " + std::to_string(parser.Line()) + ", before it is complete");
  if (!builder.Complete()) refuse(builder.wrong);
  return results;
}

}  // namespace qvheap
