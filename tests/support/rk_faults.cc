// The hooks of rk_faults.h. Each definition forwards to the next one in the
// lookup order (dlsym RTLD_NEXT): the C library's, or a sanitizer's, which
// then still sees every block. The program exports them (ENABLE_EXPORTS), so
// shared libraries bind to them as well.
// Both spellings of open are defined here, so neither may stand for the other.
#undef _FILE_OFFSET_BITS
#include "rk_faults.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <malloc.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>

namespace rk::test {
namespace {

Hook armedHook;
bool armed = false, fired = false;
long failAt = 0, calls = 0;
std::atomic<long> liveBlocks{0};
// Callers seen, by return address: an open-addressing set.
constexpr size_t kSiteSlots = 1 << 14;
void *sites[kSiteSlots];
size_t siteCount = 0;

// True when this call is the one to fail.
bool failNow(Hook hook, void *caller) {
  if (!armed || hook != armedHook) return false;
  for (size_t i = reinterpret_cast<uintptr_t>(caller) % kSiteSlots; siteCount < kSiteSlots / 2;
       i = (i + 1) % kSiteSlots) {
    if (sites[i] == caller) break;
    if (!sites[i]) {
      sites[i] = caller;
      ++siteCount;
      break;
    }
  }
  if (++calls != failAt) return false;
  fired = true;
  return true;
}

}  // namespace

void Arm(Hook hook, long n) {
  armedHook = hook;
  failAt = n;
  calls = 0;
  fired = false;
  armed = true;
}

bool Disarm() {
  armed = false;
  return fired;
}

long ArmedCalls() { return calls; }
size_t ArmedSites() { return siteCount; }
long LiveBlocks() { return liveBlocks.load(); }

}  // namespace rk::test

#ifdef RK_FAULTS_STATIC
bool rk::test::HooksWork() { return false; }
#else
bool rk::test::HooksWork() { return true; }

namespace {

using rk::test::Hook;
using rk::test::failNow;

// dlsym may allocate while the allocators are looked up: from here.
alignas(16) char arena[4096];
size_t arenaUsed = 0;
bool resolving = false;

void *(*nextMalloc)(size_t);
void *(*nextCalloc)(size_t, size_t);
void *(*nextRealloc)(void *, size_t);
void (*nextFree)(void *);
int (*nextPosixMemalign)(void **, size_t, size_t);

template <typename F>
void next(F *out, const char *name) {
  *out = reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

__attribute__((constructor)) void resolve() {
  if (nextFree || resolving) return;
  resolving = true;
  next(&nextMalloc, "malloc");
  next(&nextCalloc, "calloc");
  next(&nextRealloc, "realloc");
  next(&nextPosixMemalign, "posix_memalign");
  next(&nextFree, "free");
  resolving = false;
}

bool inArena(const void *p) { return p >= arena && p < arena + sizeof arena; }

void *fromArena(size_t n) {
  n = (n + 15) & ~size_t{15};
  if (arenaUsed + n > sizeof arena) return nullptr;
  arenaUsed += n;
  return arena + arenaUsed - n;
}

void *allocate(void *caller, size_t n) {
  if (resolving) return fromArena(n);
  resolve();
  if (failNow(Hook::kAlloc, caller)) {
    errno = ENOMEM;
    return nullptr;
  }
  void *p = nextMalloc(n);
  if (p) ++rk::test::liveBlocks;
  return p;
}

void *reallocate(void *caller, void *old, size_t n) {
  resolve();
  if (!old) return allocate(caller, n);
  if (n != 0 && failNow(Hook::kAlloc, caller)) {
    errno = ENOMEM;
    return nullptr;
  }
  void *p = nextRealloc(old, n);
  if (n == 0 && !p) --rk::test::liveBlocks;  // glibc's realloc(p, 0) frees
  return p;
}

#define RK_CALLER __builtin_return_address(0)

}  // namespace

extern "C" {

void *malloc(size_t n) { return allocate(RK_CALLER, n); }

void *calloc(size_t n, size_t size) {
  if (resolving) return fromArena(n * size);
  resolve();
  if (failNow(Hook::kAlloc, RK_CALLER)) {
    errno = ENOMEM;
    return nullptr;
  }
  void *p = nextCalloc(n, size);
  if (p) ++rk::test::liveBlocks;
  return p;
}

void *realloc(void *old, size_t n) { return reallocate(RK_CALLER, old, n); }

void *reallocarray(void *old, size_t n, size_t size) {
  if (size != 0 && n > SIZE_MAX / size) {
    errno = ENOMEM;
    return nullptr;
  }
  return reallocate(RK_CALLER, old, n * size);
}

void free(void *p) {
  if (!p || inArena(p)) return;
  --rk::test::liveBlocks;
  nextFree(p);
}

int posix_memalign(void **out, size_t align, size_t n) {
  resolve();
  if (failNow(Hook::kAlloc, RK_CALLER)) return ENOMEM;
  const int r = nextPosixMemalign(out, align, n);
  if (r == 0) ++rk::test::liveBlocks;
  return r;
}

void *aligned_alloc(size_t align, size_t n) {
  void *p = nullptr;
  return posix_memalign(&p, align < sizeof(void *) ? sizeof(void *) : align, n) == 0 ? p : nullptr;
}

void *memalign(size_t align, size_t n) { return aligned_alloc(align, n); }

char *strdup(const char *s) {
  const size_t n = strlen(s) + 1;
  auto *p = static_cast<char *>(allocate(RK_CALLER, n));
  return p ? static_cast<char *>(memcpy(p, s, n)) : nullptr;
}

char *strndup(const char *s, size_t max) {
  const size_t n = strnlen(s, max);
  auto *p = static_cast<char *>(allocate(RK_CALLER, n + 1));
  if (!p) return nullptr;
  memcpy(p, s, n);
  p[n] = '\0';
  return p;
}

}  // extern "C"

void *operator new(size_t n) {
  void *p = allocate(RK_CALLER, n ? n : 1);
  if (!p) throw std::bad_alloc();
  return p;
}
void *operator new[](size_t n) {
  void *p = allocate(RK_CALLER, n ? n : 1);
  if (!p) throw std::bad_alloc();
  return p;
}
void *operator new(size_t n, const std::nothrow_t &) noexcept { return allocate(RK_CALLER, n ? n : 1); }
void *operator new[](size_t n, const std::nothrow_t &) noexcept { return allocate(RK_CALLER, n ? n : 1); }
void operator delete(void *p) noexcept { free(p); }
void operator delete[](void *p) noexcept { free(p); }
void operator delete(void *p, size_t) noexcept { free(p); }
void operator delete[](void *p, size_t) noexcept { free(p); }

// A system call that fails with `err` when its turn comes: -1 for the
// result, whatever its type.
#define RK_SYSCALL(type, name, err, params, args)                                   \
  extern "C" type name params {                                                      \
    static auto *real = reinterpret_cast<type(*) params>(dlsym(RTLD_NEXT, #name));   \
    if (failNow(Hook::kSyscall, RK_CALLER)) {                                        \
      errno = err;                                                                   \
      return static_cast<type>(-1);                                                  \
    }                                                                                \
    return real args;                                                                \
  }

RK_SYSCALL(int, socket, EMFILE, (int d, int t, int p), (d, t, p))
RK_SYSCALL(int, setsockopt, ENOBUFS, (int fd, int l, int o, const void *v, socklen_t n), (fd, l, o, v, n))
RK_SYSCALL(int, bind, EADDRINUSE, (int fd, const sockaddr *a, socklen_t n), (fd, a, n))
RK_SYSCALL(ssize_t, sendto, ENOBUFS, (int fd, const void *b, size_t n, int f, const sockaddr *a, socklen_t l),
           (fd, b, n, f, a, l))
RK_SYSCALL(int, sendmmsg, ENOBUFS, (int fd, mmsghdr *m, unsigned n, int f), (fd, m, n, f))
RK_SYSCALL(ssize_t, recvfrom, ENOMEM, (int fd, void *b, size_t n, int f, sockaddr *a, socklen_t *l),
           (fd, b, n, f, a, l))
RK_SYSCALL(int, recvmmsg, ENOMEM, (int fd, mmsghdr *m, unsigned n, int f, timespec *t), (fd, m, n, f, t))
RK_SYSCALL(int, flock, ENOLCK, (int fd, int op), (fd, op))
RK_SYSCALL(ssize_t, write, ENOSPC, (int fd, const void *b, size_t n), (fd, b, n))
RK_SYSCALL(pid_t, fork, EAGAIN, (), ())
RK_SYSCALL(int, pipe, EMFILE, (int fds[2]), (fds))
RK_SYSCALL(int, pipe2, EMFILE, (int fds[2], int flags), (fds, flags))
RK_SYSCALL(int, getifaddrs, ENOMEM, (ifaddrs * *list), (list))
RK_SYSCALL(int, clock_gettime, EINVAL, (clockid_t c, timespec *t), (c, t))
RK_SYSCALL(ssize_t, getrandom, EAGAIN, (void *b, size_t n, unsigned f), (b, n, f))
// The mode is there only with O_CREAT or O_TMPFILE, as open(2) reads it.
#define RK_MODE                                   \
  mode_t mode = 0;                                \
  if (__OPEN_NEEDS_MODE(flags)) {                 \
    va_list ap;                                   \
    va_start(ap, flags);                          \
    mode = static_cast<mode_t>(va_arg(ap, int));  \
    va_end(ap);                                   \
  }
static int openAt(void *caller, int dir, const char *path, int flags, mode_t mode) {
  static auto *real = reinterpret_cast<int (*)(int, const char *, int, ...)>(dlsym(RTLD_NEXT, "openat"));
  if (failNow(Hook::kSyscall, caller)) {
    errno = EMFILE;
    return -1;
  }
  return real(dir, path, flags, mode);
}
extern "C" int open(const char *path, int flags, ...) {
  RK_MODE;
  return openAt(RK_CALLER, AT_FDCWD, path, flags, mode);
}
extern "C" int open64(const char *path, int flags, ...) {
  RK_MODE;
  return openAt(RK_CALLER, AT_FDCWD, path, flags, mode);
}
extern "C" int openat(int dir, const char *path, int flags, ...) {
  RK_MODE;
  return openAt(RK_CALLER, dir, path, flags, mode);
}
extern "C" int openat64(int dir, const char *path, int flags, ...) {
  RK_MODE;
  return openAt(RK_CALLER, dir, path, flags, mode);
}
// The library's vfork child only execs or exits, which a forked one does
// as well; a wrapper cannot return into a vfork child.
extern "C" pid_t vfork() { return fork(); }

#endif  // RK_FAULTS_STATIC
