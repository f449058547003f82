// Owners for the C resources the library takes: every path out of a
// function releases what it acquired.
#pragma once

#include <dirent.h>
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace rk {

// One pattern for every owner: XxxDeleter, and XxxPtr the unique_ptr with it.
struct FileDeleter {
  void operator()(FILE *f) const noexcept { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileDeleter>;

struct DirDeleter {
  void operator()(DIR *d) const noexcept { closedir(d); }
};
using DirPtr = std::unique_ptr<DIR, DirDeleter>;

// A descriptor that closes itself. Move-only; -1 means none.
class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd &&o) noexcept : fd_(o.release()) {}
  UniqueFd &operator=(UniqueFd &&o) noexcept {
    if (this != &o) reset(o.release());
    return *this;
  }
  UniqueFd(const UniqueFd &) = delete;
  UniqueFd &operator=(const UniqueFd &) = delete;
  ~UniqueFd() { reset(); }

  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ != -1; }
  int release() noexcept { return std::exchange(fd_, -1); }
  void reset(int fd = -1) noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Holds a pthread mutex for one scope.
class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t *m) noexcept : m_(m) { pthread_mutex_lock(m_); }
  ~MutexLock() { pthread_mutex_unlock(m_); }
  MutexLock(const MutexLock &) = delete;
  MutexLock &operator=(const MutexLock &) = delete;

 private:
  pthread_mutex_t *m_;
};

}  // namespace rk
