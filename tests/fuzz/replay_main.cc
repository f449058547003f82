// Replays fuzz inputs without libFuzzer: every file of the directories (or
// the files) given, in name order, through the fuzzer's entry point, each as
// an exact-size heap copy. A crash or a failed check ends the run.
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

void collect(const std::string &path, std::vector<std::string> *files) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return;
  if (!S_ISDIR(st.st_mode)) {
    files->push_back(path);
    return;
  }
  DIR *dir = opendir(path.c_str());
  if (!dir) return;
  while (dirent *e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    collect(path + "/" + e->d_name, files);
  }
  closedir(dir);
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) collect(argv[i], &files);
  std::sort(files.begin(), files.end());
  if (files.empty()) {
    fprintf(stderr, "usage: %s CORPUS_DIR_OR_FILE... (no inputs found)\n", argv[0]);
    return 2;
  }
  for (const auto &f : files) {
    std::ifstream in(f, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size() ? bytes.size() : 1]);
    if (!bytes.empty()) memcpy(copy.get(), bytes.data(), bytes.size());
    LLVMFuzzerTestOneInput(copy.get(), bytes.size());
  }
  printf("replayed %zu inputs\n", files.size());
  return 0;
}
