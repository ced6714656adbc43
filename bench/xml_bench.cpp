// XML elements beside a hand-written fprintf of the same element and libxml2's text writer.
//
//   xml_element/length      text without characters to escape
//   xml_escaped_element     40 characters, four of them escaped; fprintf gets them escaped already
//   xml_decimal_element     a number
// All streams lead to /dev/null, so what is measured is the making of the bytes and their buffering.
#include <stdio.h>

#include <string>

#include "bench/support/bench.h"
#include "include/qvrt.h"

#ifdef QVBENCH_HAVE_LIBXML2
#include <libxml/xmlwriter.h>
#endif

namespace {

constexpr char kNowhere[] = "/dev/null";
constexpr char kName[] = "function";
constexpr char kRaw[] = "std::vector<int, std::allocator<int>>::at";
constexpr char kEscaped[] = "std::vector&lt;int, std::allocator&lt;int&gt;&gt;::at";

struct Ours {
  QV_XML_FILE* file = __QvXMLCreateFile(kNowhere, 1);  // one level deep
  ~Ours() { __QvXMLCloseFile(&file); }
  void Put(const char* raw, const char*) { __QvXMLWriteStringElement(file, kName, raw); }
  void Put(long value) { __QvXMLWriteDecimalElement(file, kName, value); }
};

struct Fprintf {
  FILE* stream = fopen(kNowhere, "w");
  ~Fprintf() { fclose(stream); }
  void Put(const char*, const char* escaped) {
    fprintf(stream, "\n\t<%s>%s</%s>", kName, escaped, kName);
  }
  void Put(long value) { fprintf(stream, "\n\t<%s>%ld</%s>", kName, value, kName); }
};

#ifdef QVBENCH_HAVE_LIBXML2
const xmlChar* Xml(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

struct Libxml2 {
  xmlTextWriterPtr writer = xmlNewTextWriterFilename(kNowhere, 0);
  Libxml2() {
    xmlTextWriterSetIndent(writer, 1);
    xmlTextWriterStartElement(writer, Xml("log"));
  }
  ~Libxml2() { xmlFreeTextWriter(writer); }
  void Put(const char* raw, const char*) { xmlTextWriterWriteElement(writer, Xml(kName), Xml(raw)); }
  void Put(long value) { xmlTextWriterWriteFormatElement(writer, Xml(kName), "%ld", value); }
};
#endif

template <class Writer>
void PlainElement(benchmark::State& state) {
  Writer writer;
  const std::string text(size_t(state.range(0)), 'x');
  for (auto _ : state) writer.Put(text.c_str(), text.c_str());
}

template <class Writer>
void EscapedElement(benchmark::State& state) {
  Writer writer;
  for (auto _ : state) writer.Put(kRaw, kEscaped);
}

template <class Writer>
void DecimalElement(benchmark::State& state) {
  Writer writer;
  long value = 12345678;
  for (auto _ : state) writer.Put(value++);
}

template <class Writer>
void AddAll(const char* who) {
  for (const int64_t length : {8, 40, 400}) {
    qvbench::Add("xml_element", who, PlainElement<Writer>)->Arg(length);
  }
  qvbench::Add("xml_escaped_element", who, EscapedElement<Writer>);
  qvbench::Add("xml_decimal_element", who, DecimalElement<Writer>);
}

}  // namespace

void qvbench::Setup() {
  StartHost();
  AddAll<Ours>("qvrt");
  AddAll<Fprintf>("fprintf");
#ifdef QVBENCH_HAVE_LIBXML2
  AddAll<Libxml2>("libxml2");
#endif
  for (const char* group : {"xml_element", "xml_escaped_element", "xml_decimal_element"}) {
    Aim(group, "fprintf", 1.1);
  }
}
