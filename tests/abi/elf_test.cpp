// The built library as a file: what it needs, what it exports, and what it must not contain.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>

#include "tests/abi/elf_file.h"

namespace {

using qvtest::ElfFile;
using qvtest::ElfSymbol;
using Names = std::set<std::string>;

const ElfFile& Library() {
  static const ElfFile library(QVRT_LIBRARY);
  return library;
}

Names Symbols(bool defined) {
  Names names;
  for (const ElfSymbol& symbol : Library().DynamicSymbols()) {
    if (symbol.defined == defined) names.insert(symbol.name);
  }
  return names;
}

Names ListedExports() {
  std::ifstream list(QVRT_EXPORTS);
  Names names;
  for (std::string line; std::getline(list, line);) {
    if (!line.empty() && line[0] != '#') names.insert(line);
  }
  return names;
}

std::vector<Elf64_Phdr> SegmentsOf(uint32_t type) {
  std::vector<Elf64_Phdr> found;
  for (const Elf64_Phdr& segment : Library().Segments()) {
    if (segment.p_type == type) found.push_back(segment);
  }
  return found;
}

uint64_t Flags(int64_t tag) {
  const std::vector<uint64_t> values = Library().Dynamic(tag);
  return values.empty() ? 0 : values[0];
}

TEST(BuiltLibrary, NeedsLibcAloneAndIsNamedAsItsUsersAskForIt) {
  EXPECT_EQ(Library().DynamicStrings(DT_NEEDED), std::vector<std::string>{"libc.so.6"});
  EXPECT_EQ(Library().DynamicStrings(DT_SONAME), std::vector<std::string>{"libqvrt12.so"});
  EXPECT_TRUE(Library().Dynamic(DT_RPATH).empty() && Library().Dynamic(DT_RUNPATH).empty());
}

TEST(BuiltLibrary, ExportsWhatTheListNamesAndNothingElse) { EXPECT_EQ(Symbols(true), ListedExports()); }

// It may be loaded late and runs on borrowed stacks: no thread-local block, no code to patch, no stack
// that can be executed, nothing bound after it is loaded.
TEST(BuiltLibrary, LoadsReadOnlyCodeAndBindsAtOnce) {
  EXPECT_TRUE(SegmentsOf(PT_TLS).empty());
  EXPECT_TRUE(Library().Dynamic(DT_TEXTREL).empty());
  EXPECT_EQ(Flags(DT_FLAGS) & DF_TEXTREL, 0u);
  EXPECT_EQ(Flags(DT_FLAGS) & DF_SYMBOLIC, 0u) << "executables may hold copies of exported variables";
  EXPECT_TRUE((Flags(DT_FLAGS) & DF_BIND_NOW) != 0 || (Flags(DT_FLAGS_1) & DF_1_NOW) != 0);
  EXPECT_EQ(SegmentsOf(PT_GNU_RELRO).size(), 1u);
  ASSERT_EQ(SegmentsOf(PT_GNU_STACK).size(), 1u);
  EXPECT_EQ(SegmentsOf(PT_GNU_STACK)[0].p_flags & PF_X, 0u);
}

// The command handler's destructor is to run at exit; the other one is the compiler's own start-up
// files'.
const Names kOfTheExportedInstance = {"__cxa_atexit", "__cxa_finalize"};

// Memory comes from the tool's hook, threads from the engine, and no C++ run-time is there to help.
TEST(BuiltLibrary, ImportsNoAllocatorNoThreadsAndNoLanguageRuntime) {
  const std::regex forbidden(
      "malloc|calloc|realloc|reallocarray|free|memalign|aligned_alloc|posix_memalign|strdup|strndup|"
      "pthread_create|thrd_create|_Zn.*|_Zd.*|_ZS.*|_ZNS.*|_ZNKS.*|__cxa_.*|__gxx_.*|_Unwind_.*|"
      "__tls_get_addr");
  for (const std::string& name : Symbols(false)) {
    if (kOfTheExportedInstance.count(name) != 0) continue;
    EXPECT_FALSE(std::regex_match(name, forbidden)) << name;
  }
}

// Beside the start-up files' own entry: the exported instance, which registers its destructor.
TEST(BuiltLibrary, RunsNoOtherConstructorWhenItIsLoaded) {
  EXPECT_LE(Library().Records<uint64_t>(SHT_INIT_ARRAY).size(), 2u);
  EXPECT_LE(Library().Records<uint64_t>(SHT_FINI_ARRAY).size(), 1u);
}

// Else the programs of this folder that read variables would not test what they are for.
TEST(VariablesProgram, HoldsTheVariablesItself) {
  const std::vector<std::string> copied = ElfFile(QVRT_VARIABLES_PROGRAM).CopiedSymbols();
  for (const char* name : {"__qvRtStarted", "__qvNumberOfProcessors", "__qvGetNativeThreadIdProc",
                           "QVLOG_MSG_ABNORMAL_TERMINATE", "QVLOG_MSG_FAIL_READ_FILE_VERBOSE"}) {
    EXPECT_EQ(std::count(copied.begin(), copied.end(), name), 1) << name;
  }
}

}  // namespace
