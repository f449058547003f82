// The script host against its floors, in one run:
//   - a native method called from Lua, obj:get(t) with a small table, whose
//     argument and response go through JSON, against a plain C function
//     called from Lua that reads the same table with lua_next and returns a
//     table of its own;
//   - luaHelperCall("handle", arg) with a small JSON object, against a plain
//     lua_pcall of the same Lua function with the same table built directly
//     on the stack.
#include <routerkit/lua_helper.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include <benchmark/benchmark.h>
#include <json-c/json.h>
#include <lua.hpp>

namespace {

constexpr int kPerLoop = 1000;

const char kScript[] = R"(
arg = {name = 'wan', up = true, mtu = 1500}
function handle(x) end
function methods(n) for i = 1, n do obj:get(arg) end end
function plain(n) for i = 1, n do cget(arg) end end
)";

int get_cb(json_object *, json_object *response) {
  json_object_object_add(response, "ok", json_object_new_boolean(1));
  return 0;
}

// The floor of a native call: the table walked with lua_next, one table back.
int cget(lua_State *L) {
  int fields = 0;
  lua_pushnil(L);
  while (lua_next(L, 1)) {
    fields++;
    lua_pop(L, 1);
  }
  lua_createtable(L, 0, 1);
  lua_pushboolean(L, fields > 0);
  lua_setfield(L, -2, "ok");
  return 1;
}

struct Host {
  LuaHelper *h = nullptr;
  Host() {
    char path[] = "/tmp/rk-script-bench-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0 || write(fd, kScript, sizeof kScript - 1) < 0) abort();
    close(fd);
    h = CreateLuaHelper(path);
    unlink(path);
    static const LuaHelperFunction rows[] = {{"get", get_cb}, {nullptr, nullptr}};
    if (!h || luaHelperRegister(h, "obj", rows) != 0) abort();
    lua_register(h->state, "cget", cget);
  }
  ~Host() { luaHelperDestroy(h); }
  void loop(benchmark::State &state, const char *fn) {
    for (auto _ : state) {
      lua_getglobal(h->state, fn);
      lua_pushinteger(h->state, kPerLoop);
      lua_call(h->state, 1, 0);
    }
    state.SetItemsProcessed(state.iterations() * kPerLoop);
  }
};

void BM_NativeMethodFromLua(benchmark::State &state) { Host().loop(state, "methods"); }
void BM_FloorCFunctionFromLua(benchmark::State &state) { Host().loop(state, "plain"); }

void BM_LuaHelperCall(benchmark::State &state) {
  Host host;
  json_object *arg = json_tokener_parse(R"({"name": "wan", "up": true, "mtu": 1500})");
  for (auto _ : state) luaHelperCall(host.h, "handle", arg);
  json_object_put(arg);
  state.SetItemsProcessed(state.iterations());
}

void BM_FloorPcall(benchmark::State &state) {
  Host host;
  lua_State *L = host.h->state;
  for (auto _ : state) {
    lua_getglobal(L, "handle");
    lua_createtable(L, 0, 3);
    lua_pushstring(L, "wan");
    lua_setfield(L, -2, "name");
    lua_pushboolean(L, 1);
    lua_setfield(L, -2, "up");
    lua_pushinteger(L, 1500);
    lua_setfield(L, -2, "mtu");
    lua_pcall(L, 1, 0, 0);
  }
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_NativeMethodFromLua);
BENCHMARK(BM_FloorCFunctionFromLua);
BENCHMARK(BM_LuaHelperCall);
BENCHMARK(BM_FloorPcall);
