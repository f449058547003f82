#include "rk_test_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace rk::test {

bool WriteFile(const std::string &path, const std::string &content, int mode) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    out << content;
    if (!out) return false;
  }
  return chmod(path.c_str(), static_cast<mode_t>(mode)) == 0;
}

std::string ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool FileExists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

int OpenFdCount() {
  int n = 0;
  if (DIR *d = opendir("/proc/self/fd")) {
    while (struct dirent *e = readdir(d))
      if (e->d_name[0] != '.') n++;
    closedir(d);
    n--;  // the descriptor of the listing itself
  }
  return n;
}

TempDir::TempDir() {
  char tmpl[] = "/tmp/rk-test.XXXXXX";
  if (mkdtemp(tmpl)) path_ = tmpl;
}

TempDir::~TempDir() {
  if (!path_.empty()) {
    std::string cmd = "rm -rf '" + path_ + "'";
    if (system(cmd.c_str()) != 0) {
    }
  }
}

}  // namespace rk::test
