// The script host: one Lua state per helper, native function tables as
// global userdata objects, and calls into the script by dotted name.
//
// What the library does itself on the state (registering, looking a path up,
// converting the argument) runs under runProtected, so that an error raised
// there ends as a result code, never as a jump through the daemon.
#include <routerkit/lua_helper.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <type_traits>

#include <json-c/json.h>

#include <routerkit/data_bridge.h>

#include "bridge/lua_protect.h"
#include "diag/logmsg.h"
#include "script/host.h"

namespace rk::script {
namespace {

// The metatable's name, "<global>Meta", is cut to fit.
constexpr size_t kMetaNameSize = 256;
// A segment of a dotted path, with its NUL; a longer one is cut and ends the path.
constexpr size_t kSegmentSize = 64;

constexpr char kNoName[] = "incorrect argument type to avg[0]";

// Everything here down to openLibs runs on a Lua frame: none of it is
// noexcept (see docs/internals.md, "Lua: errors are jumps").
[[noreturn]] void raise(lua_State *L, const char *text) {
  lua_pushstring(L, text);
  lua_error(L);
  abort();  // lua_error does not return
}

int luaHelperGc(lua_State *L);

// An object of ours has our collector in its metatable; anything else (a
// file handle, another library's object) is not read as rows.
bool isHelperObject(lua_State *L) {
  if (lua_type(L, 1) != LUA_TUSERDATA || !lua_getmetatable(L, 1)) return false;
  lua_pushliteral(L, "__gc");
  lua_rawget(L, -2);
  bool ours = lua_tocfunction(L, -1) == luaHelperGc;
  lua_pop(L, 2);
  return ours;
}

LuaHelperFunction *luaHelperCheckSelf(lua_State *L) {
  if (lua_gettop(L) < 1) raise(L, "incorrect argument to avg");
  if (!lua_isuserdata(L, 1)) raise(L, "incorrect argument to avg[0]");
  auto *rows = static_cast<LuaHelperFunction *>(lua_touserdata(L, 1));
  if (!rows || !isHelperObject(L)) raise(L, kNoName);
  return rows;
}

LuaHelperFunction *luaHelperFindFunction(lua_State *L, const char *name) {
  if (!name) return nullptr;
  for (LuaHelperFunction *row = luaHelperCheckSelf(L); row->name; ++row)
    if (strcmp(row->name, name) == 0) return row;
  return nullptr;
}

int luaHelperGc(lua_State *L) {
  for (LuaHelperFunction *row = luaHelperCheckSelf(L); row->name; ++row) {
    free(const_cast<char *>(row->name));
    row->name = nullptr;
  }
  return 0;
}

int luaHelperInvoke(lua_State *L) {
  lua_Debug ar;
  memset(&ar, 0, sizeof ar);
  if (!lua_getstack(L, 0, &ar) || !lua_getinfo(L, "n", &ar) || !ar.name) raise(L, kNoName);
  LuaHelperFunction *row = luaHelperFindFunction(L, ar.name);
  if (!row) raise(L, kNoName);
  // Both conversions keep their own Lua errors inside, so nothing below can
  // jump over the releases.
  json_object *request = lua_gettop(L) > 1 ? lua_to_json(L, 2) : nullptr;
  json_object *response = json_object_new_object();
  if (!response) {  // the callback is promised an object to fill
    json_object_put(request);
    raise(L, "not enough memory");
  }
  row->callback(request, response);
  json_to_lua(L, response);
  json_object_put(request);
  json_object_put(response);
  return 1;
}

int luaHelperIndex(lua_State *L) {
  if (lua_gettop(L) < 2) return 0;
  if (!luaHelperFindFunction(L, lua_tolstring(L, 2, nullptr))) raise(L, kNoName);
  lua_pushcclosure(L, luaHelperInvoke, 0);
  return 1;
}

struct Registration {
  const char *name;
  const LuaHelperFunction *functions;
  const char *failed;  // the row whose name could not be copied
};
static_assert(std::is_trivially_destructible_v<Registration>,
              "a Lua error may jump over the frame that holds it");

void registerBody(lua_State *L, void *ud) {
  auto *job = static_cast<Registration *>(ud);
  size_t count = 0;
  while (job->functions[count].name) count++;
  size_t size = (count + 1) * sizeof(LuaHelperFunction);
  auto *rows = static_cast<LuaHelperFunction *>(lua_newuserdata(L, size));
  // Zeroed before the metatable is attached: from then on a walk over the
  // rows always ends.
  memset(rows, 0, size);
  char meta[kMetaNameSize];
  snprintf(meta, sizeof meta, "%sMeta", job->name);
  luaL_newmetatable(L, meta);
  lua_pushcclosure(L, luaHelperGc, 0);
  lua_setfield(L, -2, "__gc");
  lua_pushcclosure(L, luaHelperIndex, 0);
  lua_setfield(L, -2, "__index");
  lua_setmetatable(L, -2);
  for (size_t i = 0; i < count; ++i) {
    rows[i].name = strdup(job->functions[i].name);
    if (!rows[i].name) {
      job->failed = job->functions[i].name;
      break;
    }
    rows[i].callback = job->functions[i].callback;
  }
  lua_setfield(L, LUA_GLOBALSINDEX, job->name);
}

struct Call {
  const char *path;
  json_object *arg;
  bool called;
};
static_assert(std::is_trivially_destructible_v<Call>,
              "a Lua error may jump over the frame that holds it");

// Pushes field `key` of the value on top, or of the globals when the stack
// is empty; false when the stack has no room for it.
bool lookUp(lua_State *L, const char *key) {
  if (!lua_checkstack(L, 1)) return false;
  lua_getfield(L, lua_gettop(L) > 0 ? -1 : LUA_GLOBALSINDEX, key);
  return true;
}

// A copy of the caller's top value, if the stack held one, is this frame's
// first value: the first segment is read from it then, as from the top of
// the caller's stack.
void callBody(lua_State *L, void *ud) {
  auto *job = static_cast<Call *>(ud);
  char segment[kSegmentSize];
  size_t len = 0;
  for (const char *p = job->path; *p; ++p) {
    if (*p == '.') {
      segment[len] = '\0';
      if (!lookUp(L, segment) || lua_type(L, -1) != LUA_TTABLE) return;
      len = 0;
    } else if (len == sizeof segment - 1) {
      break;  // the segment is full: it is the last one, the rest is ignored
    } else {
      segment[len++] = *p;
    }
  }
  segment[len] = '\0';
  if (!lookUp(L, segment) || lua_type(L, -1) != LUA_TFUNCTION || !lua_checkstack(L, 1)) return;
  if (job->arg)
    json_to_lua(L, job->arg);
  else
    lua_pushnil(L);
  job->called = true;
  lua_pcall(L, 1, 0, 0);  // a script error stays with the script
}

int openLibs(lua_State *L) {
  luaL_openlibs(L);
  return 0;
}

// The script's file loaded and its main chunk run, inside one protected
// call: luaL_loadfile raises unprotected when memory runs out.
struct Script {
  const char *path;
  int loaded;  // luaL_loadfile's status, or -1 before it returned
};
static_assert(std::is_trivially_destructible_v<Script>,
              "a Lua error may jump over the frame that holds it");

int runScript(lua_State *L) {
  auto *job = static_cast<Script *>(lua_touserdata(L, 1));
  job->loaded = luaL_loadfile(L, job->path);
  if (job->loaded != 0) return 0;
  lua_call(L, 0, 0);
  return 0;
}

// luaopen_io, out of memory halfway through making io.stdin or io.stdout,
// leaves that object with the closing function of an ordinary file: closing
// the state would close the daemon's own stream. A state whose libraries
// could not all be opened has no file of its own to close.
int keepStreams(lua_State *L) {
  luaL_getmetatable(L, "FILE*");
  if (lua_istable(L, -1)) {
    lua_pushnil(L);
    lua_setfield(L, -2, "__gc");
  }
  return 0;
}

}  // namespace

LuaHelper *createHelper(const char *path) noexcept {
  auto *helper = static_cast<LuaHelper *>(calloc(1, sizeof(LuaHelper)));
  if (!helper) return nullptr;
  helper->state = luaL_newstate();
  if (!helper->state) {
    destroyHelper(helper);
    return nullptr;
  }
  if (lua_cpcall(helper->state, openLibs, nullptr) != 0) {
    lua_cpcall(helper->state, keepStreams, nullptr);
    destroyHelper(helper);
    return nullptr;
  }
  Script job{path, -1};
  const int status = lua_cpcall(helper->state, runScript, &job);
  if (status == 0 && job.loaded == 0) return helper;
  // A load that raised (out of memory) failed as one that returned an error.
  if (job.loaded != 0)
    RK_LOG_AS(error, "CreateLuaHelper", "error load %s", path);
  else
    RK_LOG_AS(error, "CreateLuaHelper", "error call %s", path);
  destroyHelper(helper);
  return nullptr;
}

void destroyHelper(LuaHelper *helper) noexcept {
  if (!helper) return;
  if (helper->state) lua_close(helper->state);
  free(helper);
}

int registerTable(lua_State *L, const char *name, const LuaHelperFunction *functions) noexcept {
  Registration job{name, functions, nullptr};
  if (bridge::runProtected(L, 0, registerBody, &job, 0) != 1) return -1;
  if (job.failed) RK_LOG_AS(error, "luaHelperRegister", "error strdup(%s)", job.failed);
  return 0;
}

int callPath(lua_State *L, const char *path, json_object *arg) noexcept {
  Call job{path, arg, false};
  bridge::runProtected(L, lua_gettop(L), callBody, &job, 0);
  lua_settop(L, 0);
  if (job.called) return 0;
  RK_LOG_AS(error, "luaHelperCall", "Lua handler provides no %s() callback.", path);
  return -1;
}

}  // namespace rk::script

extern "C" {

LuaHelper *CreateLuaHelper(const char *path) { return rk::script::createHelper(path); }

void luaHelperDestroy(LuaHelper *helper) { rk::script::destroyHelper(helper); }

int luaHelperRegister(LuaHelper *helper, const char *name, const LuaHelperFunction *functions) {
  if (!helper || !helper->state || !name || !functions) return -1;
  return rk::script::registerTable(helper->state, name, functions);
}

int luaHelperCall(LuaHelper *helper, const char *path, json_object *arg) {
  if (!helper || !helper->state || !path) return -1;
  return rk::script::callPath(helper->state, path, arg);
}

}  // extern "C"
