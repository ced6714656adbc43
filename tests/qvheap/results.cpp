// A results file as tests look at it. Contract: tests/qvheap/results.h. The collector writes each
// element on a line of its own, which is all that this reader relies on.
#include "tests/qvheap/results.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "tests/qvheap/shell.h"

namespace qvtest {
namespace {

std::string Between(const std::string& text, const std::string& start, const std::string& end) {
  const size_t from = text.find(start);
  return from == std::string::npos ? "" : text.substr(from, text.find(end, from) - from);
}

std::string Attribute(const std::string& element, const std::string& name) {
  const std::string from = Between(element, " " + name + "='", "' ");
  const std::string value = from.substr(from.find('\'') + 1);
  return value.substr(0, value.find('\''));
}

uint64_t Number(const std::string& text, int base = 10) {
  return text.empty() ? 0 : std::stoull(text, nullptr, base);
}

// The elements that hold nothing but a number.
Figures ReadFigures(const std::string& text) {
  Figures figures;
  const std::regex element("<([A-Za-z]+)>(-?[0-9]+)</");
  for (std::sregex_iterator at(text.begin(), text.end(), element), end; at != end; ++at) {
    figures.insert({(*at)[1], uint64_t(std::stoll((*at)[2]))});
  }
  return figures;
}

// Each element of the name, up to where it is closed.
std::vector<std::string> Elements(const std::string& text, const std::string& name) {
  std::vector<std::string> elements;
  const std::string start = "<" + name + " ", end = "</" + name + ">";
  for (size_t from = text.find(start); from != std::string::npos; from = text.find(start, from)) {
    const size_t to = text.find(end, from);
    elements.push_back(text.substr(from, to - from));
    from = to;
  }
  return elements;
}

ResultsSite ReadSite(const std::string& element) {
  ResultsSite site;
  site.epoch = Number(Attribute(element, "epoch"));
  site.figures = ReadFigures(element);
  std::istringstream stack(Between(element, "<stack>", "</").substr(7));
  for (std::string frame; stack >> frame;) site.stack.push_back(Number(frame, 16));
  const std::string lifetimes = Elements(element, "lifetimes").at(0);
  for (const char* name : {"within1ms", "within1s", "longer", "never"}) {
    site.figures[name] = Number(Attribute(lifetimes, name));
  }
  const std::string threads = Elements(element, "threads").at(0);
  site.threadCount = Number(Attribute(threads, "count"));
  for (const std::string& thread : Elements(threads, "thread")) {
    Figures& figures = site.threads[int(Number(Attribute(thread, "id")))];
    figures["allocations"] = Number(Attribute(thread, "allocations"));
    figures["bytes"] = Number(Attribute(thread, "bytes"));
  }
  return site;
}

ResultsModule ReadModule(const std::string& element) {
  ResultsModule module;
  module.start = Number(Attribute(element, "start"), 16);
  module.end = Number(Attribute(element, "end"), 16);
  module.from = Number(Attribute(element, "from"));
  module.isThere = element.find(" to='") == std::string::npos;
  module.to = module.isThere ? module.from : Number(Attribute(element, "to"));
  module.path = element.substr(element.find('>') + 1);
  module.buildId = Attribute(element, "buildId");
  return module;
}

}  // namespace

uint64_t Results::SumOverSites(const std::string& figure) const {
  uint64_t sum = 0;
  for (const ResultsSite& site : sites) sum += site.figures.at(figure);
  return sum;
}

Results ReadResults(const std::string& text) {
  Results results;
  results.text = text;
  EXPECT_EQ(WhatIsOpen(text), "") << text;
  results.process = ReadFigures(Between(text, "<process>", "</process>"));
  for (const std::string& site : Elements(text, "site")) results.sites.push_back(ReadSite(site));
  for (const std::string& module : Elements(text, "module"))
    results.modules.push_back(ReadModule(module));
  for (const std::string& point : Elements(text, "point")) {
    Figures& figures = results.timeline.emplace_back();
    for (const char* name : {"time", "bytesAllocated", "liveBytes", "liveBlocks"}) {
      figures[name] = Number(Attribute(point, name));
    }
  }
  for (const std::string& category : Elements(text, "category")) {
    results.memory[Attribute(category, "name")] = Number(Attribute(category, "bytes"));
  }
  const std::string sites = Elements(text, "sites").at(0);
  results.folded = Number(Attribute(sites, "folded"));
  results.missed = Number(Attribute(sites, "missed"));
  return results;
}

}  // namespace qvtest
