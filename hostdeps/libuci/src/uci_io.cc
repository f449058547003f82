// Files: locked reads, appends to change files and the atomic replacement a
// commit relies on (a new file beside the old one, renamed over it), so a
// failure at any point leaves the old configuration as it was.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "uci_impl.h"

namespace rk {
namespace uci_impl {
namespace {


bool write_all(int fd, const std::string &text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

int lock(int fd, int op) {
  int r;
  do {
    r = flock(fd, op);
  } while (r < 0 && errno == EINTR);
  return r;
}

}  // namespace

Fd::~Fd() {
  if (fd_ >= 0) close(fd_);
}

bool read_fd(int fd, std::string *out) {
  out->clear();
  if (lseek(fd, 0, SEEK_SET) < 0) return false;
  char buf[4096];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return true;
    out->append(buf, static_cast<size_t>(n));
  }
}

ReadResult read_locked(const char *path, int lockop, std::string *out) {
  Fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0) return (errno == ENOENT || errno == ENOTDIR) ? kReadMissing : kReadFailed;
  struct stat st;
  if (fstat(fd.get(), &st) < 0) return kReadFailed;
  if (!S_ISREG(st.st_mode)) return kReadMissing;
  if (lock(fd.get(), lockop) < 0) return kReadFailed;
  return read_fd(fd.get(), out) ? kReadOk : kReadFailed;
}

bool append_change_file(const char *dir, const char *name, const std::string &text) {
  if (mkdir(dir, UCI_DIRMODE) < 0 && errno != EEXIST) return false;
  std::string path = std::string(dir) + "/" + name;
  Fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, UCI_FILEMODE));
  if (fd.get() < 0 || lock(fd.get(), LOCK_EX) < 0) return false;
  return write_all(fd.get(), text);
}

bool replace_file(const char *tmpdir, const char *name, const char *path, const std::string &text,
                  unsigned mode) {
  std::string tmp = std::string(tmpdir) + "/." + name + ".uci-XXXXXX";
  Fd fd(mkostemp(&tmp[0], O_CLOEXEC));
  if (fd.get() < 0) return false;
  bool ok = write_all(fd.get(), text) && fchmod(fd.get(), mode & 07777) == 0 &&
            fsync(fd.get()) == 0 && close(fd.release()) == 0 && rename(tmp.c_str(), path) == 0;
  if (!ok) unlink(tmp.c_str());
  return ok;
}

}  // namespace uci_impl
}  // namespace rk
