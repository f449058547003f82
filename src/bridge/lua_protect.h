// The protected run: what the library does on a Lua state of its own accord
// runs through it, so that a Lua error ends as a result code, never as a jump
// through the daemon.
#pragma once

#include <lua.hpp>

namespace rk::bridge {

// Runs body(L, ud) as a protected Lua call. With `index` (absolute) not 0, a
// copy of the value there is at index 1 of body's frame; body leaves
// `nresults` values, which reach the caller's stack. 1 when body ran to the
// end; 0 when a Lua error ended it or the protected entry could not be made
// (the error is dropped, nothing pushed, the stack's room still there); -1
// when the caller's stack had no room (nothing pushed).
int runProtected(lua_State *L, int index, void (*body)(lua_State *, void *), void *ud,
                 int nresults) noexcept;

}  // namespace rk::bridge
