// Failure injection for the program that links rk_faults: it defines the
// allocation functions (malloc and its family, strdup, operator new) and the
// system calls whose failure the library reports or survives, so that the
// calls of the library, of libc and of the libraries under it (libubox,
// libuci, Lua, json-c) go through them. Between Arm and Disarm they are
// counted, and the n-th fails: an allocation with NULL (std::bad_alloc for
// operator new), a system call with -1 and an errno of its own.
#pragma once

namespace rk::test {

enum class Hook { kAlloc, kSyscall };

// Counts the calls of `hook` from now on; the `n`-th fails (none for 0).
void Arm(Hook hook, long n);
// Stops counting; true when the armed failure happened.
bool Disarm();
// Blocks allocated and not yet freed, counted all the time.
long LiveBlocks();

}  // namespace rk::test
