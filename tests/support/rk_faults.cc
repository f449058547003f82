// The hooks of rk_faults.h. Each definition forwards to the next one in the
// lookup order (dlsym RTLD_NEXT): the C library's, or a sanitizer's, which
// then still sees every block. The program exports them (ENABLE_EXPORTS), so
// shared libraries bind to them as well.
#undef _FILE_OFFSET_BITS  // open64 is defined under its own name
#include "rk_faults.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <stdarg.h>
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

// True when this call is the one to fail.
[[maybe_unused]] bool FailNow(Hook hook) {  // unused in a static program
  if (!armed || hook != armedHook || ++calls != failAt) return false;
  return fired = true;
}

}  // namespace

void Arm(Hook hook, long n) { armedHook = hook, failAt = n, calls = 0, fired = false, armed = true; }
bool Disarm() { return armed = false, fired; }
long LiveBlocks() { return liveBlocks.load(); }

}  // namespace rk::test

namespace {

using rk::test::FailNow;
using rk::test::Hook;

// dlsym may allocate while the allocators are looked up: from here.
alignas(16) char arena[4096];
size_t arenaUsed = 0;
bool resolving = false;
void *(*nextMalloc)(size_t);
void *(*nextCalloc)(size_t, size_t);
void *(*nextRealloc)(void *, size_t);
void (*nextFree)(void *);

__attribute__((constructor)) void resolve() {
  if (nextFree || resolving) return;
  resolving = true;
  nextMalloc = reinterpret_cast<void *(*)(size_t)>(dlsym(RTLD_NEXT, "malloc"));
  nextCalloc = reinterpret_cast<void *(*)(size_t, size_t)>(dlsym(RTLD_NEXT, "calloc"));
  nextRealloc = reinterpret_cast<void *(*)(void *, size_t)>(dlsym(RTLD_NEXT, "realloc"));
  nextFree = reinterpret_cast<void (*)(void *)>(dlsym(RTLD_NEXT, "free"));
  resolving = false;
}

// A new block of `n` (zeroed when `zero`), or NULL when it is the one to fail.
void *allocate(size_t n, bool zero = false) {
  if (resolving) {
    const size_t at = arenaUsed;
    return (arenaUsed += (n + 15) & ~size_t{15}) <= sizeof arena ? arena + at : nullptr;
  }
  resolve();
  if (FailNow(Hook::kAlloc)) return errno = ENOMEM, nullptr;
  void *p = zero ? nextCalloc(n, 1) : nextMalloc(n);
  if (p) ++rk::test::liveBlocks;
  return p;
}

}  // namespace

extern "C" {

void *malloc(size_t n) { return allocate(n); }
void *calloc(size_t n, size_t size) { return n && size > SIZE_MAX / n ? nullptr : allocate(n * size, true); }
void free(void *p) {
  if (p && (p < arena || p >= arena + sizeof arena)) --rk::test::liveBlocks, nextFree(p);
}
void *realloc(void *old, size_t n) {
  if (!old) return allocate(n);
  if (n == 0) return free(old), nullptr;
  if (FailNow(Hook::kAlloc)) return errno = ENOMEM, nullptr;
  return nextRealloc(old, n);
}
void *reallocarray(void *old, size_t n, size_t size) {
  return size && n > SIZE_MAX / size ? (errno = ENOMEM, nullptr) : realloc(old, n * size);
}
char *strdup(const char *s) {
  const size_t n = strlen(s) + 1;
  void *p = allocate(n);
  return p ? static_cast<char *>(memcpy(p, s, n)) : nullptr;
}

}  // extern "C"

void *operator new(size_t n) {
  if (void *p = allocate(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void *operator new[](size_t n) { return operator new(n); }
void *operator new(size_t n, const std::nothrow_t &) noexcept { return allocate(n ? n : 1); }
void *operator new[](size_t n, const std::nothrow_t &) noexcept { return allocate(n ? n : 1); }
void operator delete(void *p) noexcept { free(p); }
void operator delete[](void *p) noexcept { free(p); }
void operator delete(void *p, size_t) noexcept { free(p); }
void operator delete[](void *p, size_t) noexcept { free(p); }

// A system call that fails with `err` when its turn comes: -1 for the
// result, whatever its type.
#define RK_SYSCALL(type, name, err, params, args)                                 \
  extern "C" type name params {                                                    \
    static auto *real = reinterpret_cast<type(*) params>(dlsym(RTLD_NEXT, #name)); \
    if (FailNow(Hook::kSyscall)) return errno = err, static_cast<type>(-1);        \
    return real args;                                                              \
  }

RK_SYSCALL(int, socket, EMFILE, (int d, int t, int p), (d, t, p))
RK_SYSCALL(int, setsockopt, ENOBUFS, (int fd, int l, int o, const void *v, socklen_t n), (fd, l, o, v, n))
RK_SYSCALL(ssize_t, sendto, ENOBUFS, (int fd, const void *b, size_t n, int f, const sockaddr *a, socklen_t l), (fd, b, n, f, a, l))
RK_SYSCALL(int, sendmmsg, ENOBUFS, (int fd, mmsghdr *m, unsigned n, int f), (fd, m, n, f))
RK_SYSCALL(ssize_t, recvfrom, ENOMEM, (int fd, void *b, size_t n, int f, sockaddr *a, socklen_t *l), (fd, b, n, f, a, l))
RK_SYSCALL(int, recvmmsg, ENOMEM, (int fd, mmsghdr *m, unsigned n, int f, timespec *t), (fd, m, n, f, t))
RK_SYSCALL(int, flock, ENOLCK, (int fd, int op), (fd, op))
RK_SYSCALL(ssize_t, write, ENOSPC, (int fd, const void *b, size_t n), (fd, b, n))
RK_SYSCALL(pid_t, fork, EAGAIN, (), ())
RK_SYSCALL(int, getifaddrs, ENOMEM, (ifaddrs * *list), (list))
RK_SYSCALL(int, clock_gettime, EINVAL, (clockid_t c, timespec *t), (c, t))
RK_SYSCALL(ssize_t, getrandom, EAGAIN, (void *b, size_t n, unsigned f), (b, n, f))

// The mode is there only when open(2) reads it.
extern "C" int open64(const char *path, int flags, ...) {
  static auto *real = reinterpret_cast<int (*)(const char *, int, ...)>(dlsym(RTLD_NEXT, "open64"));
  if (FailNow(Hook::kSyscall)) return errno = EMFILE, -1;
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = __OPEN_NEEDS_MODE(flags) ? static_cast<mode_t>(va_arg(ap, int)) : 0;
  va_end(ap);
  return real(path, flags, mode);
}
// The library's vfork child only execs or exits, which a forked one does
// as well; a wrapper cannot return into a vfork child.
extern "C" pid_t vfork() { return fork(); }
