// Logging: the leveled family goes to syslog behind a process-wide level; the
// file family appends timestamped messages to a text file that starts over
// once it has grown past 1 MiB.
//
// There is no start-up call. An empty log name is the one marker of "not set
// up yet": the first call that needs the process's identity takes the name
// from the executable, probes "/etc/<name>.debug", opens syslog and makes the
// path of the process's own file under /tmp/log.
#include <routerkit/log.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>

#include "common/raii.h"

// The size test and the lock work on any file system only with 64-bit file
// offsets and inode numbers, which a 32-bit target gets from
// _FILE_OFFSET_BITS=64 (set by the build).
static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8, "64-bit off_t and ino_t");

namespace rk::diag {
namespace {

constexpr uint32_t kInitialLevel = 4;
// Level set by the presence of "/etc/<name>.debug": everything passes, and
// syslog also copies each message to standard error.
constexpr uint32_t kDebugFileLevel = 6;
// log_debug's threshold; a level above it at set-up also copies to stderr.
constexpr uint32_t kDebugThreshold = 5;
constexpr size_t kNameSize = 64;  // 63 characters; the last byte is never written
constexpr size_t kWorkSize = 256;
constexpr const char *kLogDir = "/tmp/log";
constexpr mode_t kLogDirMode = 0755;
constexpr mode_t kLogFileMode = 0644;
// A file larger than this starts over with the next message. The test comes
// before the message is written, so the file may overshoot by one message.
constexpr off_t kMaxLogFileSize = 0x100000;
constexpr int kAppendFlags = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC;

// Process-wide state, deliberately without a lock (see log.h). The level is
// an atomic only so that the unsynchronised reads and writes are defined
// behaviour; relaxed access compiles to a plain load and store.
std::atomic<uint32_t> logLevel{kInitialLevel};
char logName[kNameSize];  // also the ident given to openlog
int syslogOptions = -1;   // what the set-up gave openlog; -1 before it
std::atomic<char *> logPath{nullptr};

inline bool levelAbove(uint32_t threshold) noexcept {
  return logLevel.load(std::memory_order_relaxed) > threshold;
}

inline bool isNamed() noexcept { return logName[0] != '\0'; }

// Keeps the stored copy when the path is unchanged, so that threads which
// arrive at the first message together do not free a path another one is
// still writing through.
void storePath(const char *path) noexcept {
  const char *old = logPath.load();
  if (old && strcmp(old, path) == 0) return;
  free(logPath.exchange(strdup(path)));
}

void setUp() noexcept {
  std::array<char, kWorkSize> work{};
  // Without /proc/self/exe the name stays empty and the steps below use the
  // empty text; the next call that finds the name empty tries again.
  get_executable_path(work.data(), work.size() - 1, logName, kNameSize - 1);

  snprintf(work.data(), work.size(), "/etc/%s.debug", logName);
  if (access(work.data(), F_OK) == 0) logLevel.store(kDebugFileLevel, std::memory_order_relaxed);

  // The options follow the level of this moment; later level changes do not
  // reopen syslog.
  syslogOptions = levelAbove(kDebugThreshold) ? LOG_PID | LOG_PERROR : LOG_PID;
  closelog();
  openlog(logName, syslogOptions, LOG_LOCAL0);

  // A failed mkdir shows up later, as the open failure of each file write.
  if (access(kLogDir, F_OK) != 0) mkdir(kLogDir, kLogDirMode);
  snprintf(work.data(), work.size(), "%s/%s.log", kLogDir, logName);
  storePath(work.data());
  // Without memory for the path the set-up is not done: the next call that
  // needs it tries again, rather than no file ever being written.
  if (!logPath.load()) logName[0] = '\0';
}

void ensureSetUp() noexcept {
  if (!isNamed()) setUp();
}

// Slow half of a leveled call, kept out of line so that a suppressed message
// costs only the level test in the caller.
__attribute__((noinline)) void emit(int priority, const char *fmt, va_list ap) noexcept {
  ensureSetUp();
  vsyslog(priority, fmt, ap);
}

void reportFailure(const char *whatFmt, const char *path, int err) noexcept {
  fprintf(stderr, whatFmt, path, strerror(err));
}

void writeStamp(int fd, pid_t pid, pid_t tid) noexcept {
  const time_t now = time(nullptr);
  struct tm tm {};
  localtime_r(&now, &tm);
  dprintf(fd, "[%04d-%02d-%02d %02d:%02d:%02d] ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
          tm.tm_hour, tm.tm_min, tm.tm_sec);
  if (tid == pid)
    dprintf(fd, "%d ", pid);
  else
    dprintf(fd, "%d(%d) ", pid, tid);
}

// The file is opened for each message and closed after it: no descriptor
// stays open between messages, and the flock orders the three writes of a
// message against writers in other threads and processes.
__attribute__((format(printf, 2, 0))) void appendMessage(const char *path, const char *fmt,
                                                         va_list ap) noexcept {
  const pid_t pid = getpid();
  const pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
  if (!path) {  // no log file path: the message is lost, like an open failure
    reportFailure("open %s fail, errno : %s\n", "(no log file)", ENOENT);
    return;
  }

  // lstat, not stat: for a symbolic link the size test sees the link itself.
  struct stat st {};
  int flags = kAppendFlags;
  if (lstat(path, &st) == 0 && st.st_size > kMaxLogFileSize) flags |= O_TRUNC;

  UniqueFd fd(open(path, flags, kLogFileMode));
  if (!fd.valid()) {
    reportFailure("open %s fail, errno : %s\n", path, errno);
    return;
  }
  // Where flock does not exist at all, writing unlocked beats losing the log.
  if (flock(fd.get(), LOCK_EX) != 0 && errno != ENOSYS) {
    reportFailure("flock %s fail, errno : %s\n", path, errno);
    flock(fd.get(), LOCK_UN);
    return;
  }
  writeStamp(fd.get(), pid, tid);
  vdprintf(fd.get(), fmt, ap);
  flock(fd.get(), LOCK_UN);
}

// The level as stored, for log_isLevelEnabled: no set-up.
bool levelEnabled(uint32_t level) noexcept {
  return logLevel.load(std::memory_order_relaxed) >= level;
}

void setLevel(uint32_t level) noexcept {
  ensureSetUp();
  logLevel.store(level, std::memory_order_relaxed);
}

// glibc's syslog keeps pointing at the ident it was given, musl's keeps a
// copy made by openlog: opened again with the set-up's options, the new name
// is the ident on both. Before the set-up (and for the empty name, which
// asks for one) openlog is left to the set-up.
void setName(const char *name) noexcept {
  strncpy(logName, name, kNameSize - 1);
  if (!isNamed() || syslogOptions < 0) return;
  closelog();
  openlog(logName, syslogOptions, LOG_LOCAL0);
}

__attribute__((format(printf, 1, 0))) void appendToOwnFile(const char *fmt, va_list ap) noexcept {
  ensureSetUp();
  appendMessage(logPath.load(), fmt, ap);
}

}  // namespace
}  // namespace rk::diag

// One leveled function: suppressed below its threshold before anything else
// (the format is not even looked at), otherwise sent at its fixed priority.
#define RK_DEFINE_LEVELED(name, threshold, priority)        \
  int name(const char *fmt, ...) {                          \
    if (!rk::diag::levelAbove(threshold) || !fmt) return 0; \
    va_list ap;                                             \
    va_start(ap, fmt);                                      \
    rk::diag::emit(priority, fmt, ap);                      \
    va_end(ap);                                             \
    return 0;                                               \
  }

extern "C" {

RK_DEFINE_LEVELED(log_debug, rk::diag::kDebugThreshold, LOG_DEBUG)
RK_DEFINE_LEVELED(log_trace, 4, LOG_NOTICE)  // more urgent than log_info, on purpose
RK_DEFINE_LEVELED(log_info, 3, LOG_INFO)
RK_DEFINE_LEVELED(log_warn, 2, LOG_WARNING)
RK_DEFINE_LEVELED(log_error, 1, LOG_ERR)
RK_DEFINE_LEVELED(log_fatal, 0, LOG_EMERG)  // logs only; the process goes on

int log_isLevelEnabled(uint32_t level) { return rk::diag::levelEnabled(level) ? 1 : 0; }

int log_setLevel(uint32_t level) {
  rk::diag::setLevel(level);
  return 0;
}

int log_setName(const char *name) {
  if (!name) return -1;
  rk::diag::setName(name);
  return 0;
}

void logfile_vprintf(const char *path, const char *fmt, va_list ap) {
  rk::diag::appendMessage(path, fmt, ap);
}

void logfile_printf(const char *path, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  rk::diag::appendMessage(path, fmt, ap);
  va_end(ap);
}

void log_printf_to_flash(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  rk::diag::appendToOwnFile(fmt, ap);
  va_end(ap);
}

}  // extern "C"

#undef RK_DEFINE_LEVELED
