// The protected run: one C function per Lua state, kept in the registry,
// that hands its frame to the job it is given.
#include <type_traits>

#include "bridge/lua_protect.h"

namespace rk::bridge {
namespace {

// The protected entry, its argument and the job, on the caller's stack.
constexpr int kRunSlots = 3;

// The protected entry: its upvalue-free frame holds the arguments, then a
// light userdata with the job.
struct ProtectedJob {
  void (*body)(lua_State *, void *);
  void *ud;
  int nresults;
};
static_assert(std::is_trivially_destructible_v<ProtectedJob>,
              "a Lua error may jump over the frame that holds it");

// Not noexcept, as no lua_CFunction is: see docs/internals.md.
int protectedEntry(lua_State *L) {
  auto *job = static_cast<ProtectedJob *>(lua_touserdata(L, -1));
  lua_settop(L, -2);
  job->body(L, job->ud);
  return job->nresults;
}

// The registry key of the protected entry: made once per Lua state, inside
// a protected call of its own, so that no allocation happens unprotected.
char entryKey;

int installEntry(lua_State *L) {
  lua_pushlightuserdata(L, &entryKey);
  lua_pushcfunction(L, protectedEntry);
  lua_rawset(L, LUA_REGISTRYINDEX);
  return 0;
}

// Pushes the protected entry: true, or false with nothing pushed.
bool pushEntry(lua_State *L) noexcept {
  lua_pushlightuserdata(L, &entryKey);
  lua_rawget(L, LUA_REGISTRYINDEX);
  if (lua_tocfunction(L, -1) == protectedEntry) return true;
  lua_settop(L, -2);
  if (lua_cpcall(L, installEntry, nullptr) != 0) {
    lua_settop(L, -2);
    return false;
  }
  lua_pushlightuserdata(L, &entryKey);
  lua_rawget(L, LUA_REGISTRYINDEX);
  return true;
}

}  // namespace

int runProtected(lua_State *L, int index, void (*body)(lua_State *, void *), void *ud,
                 int nresults) noexcept {
  if (!lua_checkstack(L, kRunSlots)) return -1;
  if (!pushEntry(L)) return 0;  // no memory for the entry: as a Lua error
  int nargs = 1;
  if (index != 0) {
    lua_pushvalue(L, index);
    nargs++;
  }
  ProtectedJob job{body, ud, nresults};
  lua_pushlightuserdata(L, &job);
  if (lua_pcall(L, nargs, nresults, 0) != 0) {
    lua_settop(L, -2);
    return 0;
  }
  return 1;
}

}  // namespace rk::bridge
