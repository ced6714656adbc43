// Runs files, or all files below folders, through a fuzz target once: a fuzzer's findings as a test
// that needs no fuzzer. An empty corpus is a failure, since it would test nothing.
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#pragma weak LLVMFuzzerInitialize

namespace {

namespace fs = std::filesystem;

void Replay(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(stream), {});
  printf("%s: %zu bytes\n", path.c_str(), bytes.size());
  fflush(stdout);  // so that the last line names the input that crashes
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

int ReplayAll(const fs::path& path) {
  if (!fs::is_directory(path)) {
    Replay(path);
    return 1;
  }
  int count = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(path))
    count += ReplayAll(entry.path());
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  int count = 0;
  for (int i = 1; i < argc; i++) count += ReplayAll(argv[i]);
  printf("%d inputs\n", count);
  return count > 0 ? 0 : 1;
}
