// What logging costs a daemon:
//  - a leveled call below the level (the common case in production), and
//  - one logfile_printf message, against its floor: the same three writes
//    through a descriptor that is already open. The difference is the open,
//    lstat, flock and close done for every message.
// Files go to a private temp dir, never to /tmp/log.
#include <routerkit/log.h>

#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <benchmark/benchmark.h>

namespace {

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/rk-bench-XXXXXX";
    if (mkdtemp(tmpl)) path_ = tmpl;
  }
  ~TempDir() {
    if (!path_.empty())
      nftw(path_.c_str(), [](const char *p, const struct stat *, int, FTW *) { return remove(p); },
           8, FTW_DEPTH | FTW_PHYS);
  }
  std::string file(const char *name) const { return path_ + "/" + name; }
  bool ok() const { return !path_.empty(); }

 private:
  std::string path_;
};

// log_debug at the initial level 4: dropped before anything is set up.
void BM_LeveledCallBelowLevel(benchmark::State &state) {
  int value = 42;
  for (auto _ : state) {
    benchmark::DoNotOptimize(log_debug("value %d", value));
  }
}
BENCHMARK(BM_LeveledCallBelowLevel);

void BM_LogfilePrintf(benchmark::State &state) {
  TempDir dir;
  if (!dir.ok()) return state.SkipWithError("mkdtemp failed");
  const std::string path = dir.file("bench.log");
  int64_t n = 0;
  for (auto _ : state) {
    logfile_printf(path.c_str(), "message %lld from the benchmark\n", static_cast<long long>(n++));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogfilePrintf);

// The floor: timestamp, process id and message written with the same three
// calls, but to a descriptor opened once.
__attribute__((format(printf, 2, 3))) void three_writes(int fd, const char *fmt, ...) {
  const time_t now = time(nullptr);
  struct tm tm {};
  localtime_r(&now, &tm);
  dprintf(fd, "[%04d-%02d-%02d %02d:%02d:%02d] ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
          tm.tm_hour, tm.tm_min, tm.tm_sec);
  dprintf(fd, "%d ", getpid());
  va_list ap;
  va_start(ap, fmt);
  vdprintf(fd, fmt, ap);
  va_end(ap);
}

void BM_ThreeWritesOpenDescriptor(benchmark::State &state) {
  TempDir dir;
  if (!dir.ok()) return state.SkipWithError("mkdtemp failed");
  const std::string path = dir.file("floor.log");
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return state.SkipWithError("open failed");
  int64_t n = 0;
  for (auto _ : state) {
    three_writes(fd, "message %lld from the benchmark\n", static_cast<long long>(n++));
  }
  close(fd);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ThreeWritesOpenDescriptor);

}  // namespace
