// Small file helpers for tests: whole-file read and write, a temporary
// directory that removes itself, and a count of open descriptors.
#pragma once

#include <string>

namespace rk::test {

bool WriteFile(const std::string &path, const std::string &content, int mode = 0644);
std::string ReadFile(const std::string &path);
bool FileExists(const std::string &path);
// Number of entries in /proc/self/fd: compare before and after a call to
// see that it leaves no descriptor behind.
int OpenFdCount();

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace rk::test
