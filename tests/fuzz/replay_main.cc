// Replays fuzz inputs without libFuzzer: every file of the directories (or
// the files) given, in name order, through the fuzzer's entry point, each as
// an exact-size heap copy. A crash or a failed check ends the run.
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    if (fs::is_regular_file(argv[i])) files.push_back(argv[i]);
    if (!fs::is_directory(argv[i])) continue;
    for (const auto &e : fs::recursive_directory_iterator(argv[i]))
      if (e.is_regular_file() && e.path().filename().string()[0] != '.') files.push_back(e.path());
  }
  std::sort(files.begin(), files.end());
  if (files.empty()) {
    fprintf(stderr, "usage: %s CORPUS_DIR_OR_FILE... (no inputs found)\n", argv[0]);
    return 2;
  }
  for (const auto &f : files) {
    std::ifstream in(f, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::unique_ptr<uint8_t[]> copy(new uint8_t[std::max<size_t>(bytes.size(), 1)]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    LLVMFuzzerTestOneInput(copy.get(), bytes.size());
  }
  printf("replayed %zu inputs\n", files.size());
  return 0;
}
