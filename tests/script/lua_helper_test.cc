// The script host with real script files: scripts calling registered
// objects, the daemon calling the script by dotted path, and the failures
// each side sees (raised texts, result codes, log lines).
#include <routerkit/lua_helper.h>

#include <string>
#include <vector>

#include <json-c/json.h>
#include <lua.hpp>

#include "rk_test.h"

namespace {

using rk::test::SyslogCapture;
using rk::test::TempDir;
using rk::test::WriteFile;

using Strings = std::vector<std::string>;
Strings requests;  // what the callbacks were handed, as JSON

// Records what a callback was handed; "get" answers {"ok": true}, "f" {"f": 1}.
int record(json_object *request) {
  requests.push_back(request ? json_object_to_json_string(request) : "NULL");
  return 0;
}
int get_cb(json_object *request, json_object *response) {
  json_object_object_add(response, "ok", json_object_new_boolean(1));
  return record(request);
}
int none_cb(json_object *request, json_object *) { return record(request); }
int f_cb(json_object *, json_object *response) { return json_object_object_add(response, "f", json_object_new_int(1)); }

const LuaHelperFunction kObj[] = {{"get", get_cb}, {"none", none_cb}, {nullptr, nullptr}};
const LuaHelperFunction kAlt[] = {{"get", get_cb}, {"f", f_cb}, {nullptr, nullptr}};
const LuaHelperFunction kEmpty[] = {{nullptr, nullptr}};

// The script: `probe` evaluates a snippet and leaves what came of it in the
// global `result`; the rest are targets for luaHelperCall.
const char kScript[] = R"(
local function show(v)
  if type(v) ~= 'table' then return tostring(v) end
  local keys = {}
  for k in pairs(v) do keys[#keys + 1] = k end
  table.sort(keys, function(a, b) return tostring(a) < tostring(b) end)
  for i, k in ipairs(keys) do keys[i] = tostring(k) .. '=' .. show(v[k]) end
  return '{' .. table.concat(keys, ',') .. '}'
end
function probe(arg)
  local ok, v = pcall(loadstring('return ' .. arg.snippet))
  result = ok and show(v) or 'error: ' .. tostring(v)
end
calls = {}
local function mark(name) return function(x) calls[#calls + 1] = name .. ' ' .. show(x) end end
f = mark('f')
a = {b = {c = mark('c')}}
_G[string.rep('x', 63)] = {g = mark('g63')}
_G[string.rep('y', 63)] = mark('y63')
boom = function() error('boom') end
u = io.stdout
trap = setmetatable({}, {__index = function() error('trap') end})
loop = {f = mark('loop')}
loop.a = loop
)";

class LuaHelperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RK_REQUIRE_NAMESPACE();
    ASSERT_TRUE(WriteFile(dir_ / "h.lua", kScript));
    h_ = CreateLuaHelper((dir_ / "h.lua").c_str());
    ASSERT_NE(nullptr, h_);
    ASSERT_EQ(0, luaHelperRegister(h_, "obj", kObj));
    ASSERT_EQ(0, luaHelperRegister(h_, "alt", kAlt));
    ASSERT_EQ(0, luaHelperRegister(h_, "empty", kEmpty));
    requests.clear();
  }
  void TearDown() override { luaHelperDestroy(h_); }

  std::string global(const char *name) {
    lua_getglobal(h_->state, name);
    std::string s = lua_isstring(h_->state, -1) ? lua_tostring(h_->state, -1) : "?";
    lua_settop(h_->state, 0);
    return s;
  }
  std::string probe(const std::string &snippet) {
    json_object *arg = json_object_new_object();
    json_object_object_add(arg, "snippet", json_object_new_string(snippet.c_str()));
    EXPECT_EQ(0, luaHelperCall(h_, "probe", arg));
    json_object_put(arg);
    return global("result");
  }

  TempDir dir_;
  LuaHelper *h_ = nullptr;
};

TEST_F(LuaHelperTest, ScriptsCallObjects) {
  const char *noName = "error: incorrect argument type to avg[0]";
  // request: what the callback was handed, nullptr when none ran.
  const struct { const char *snippet, *result, *request; } rows[] = {
      {"obj:get()", "{ok=true}", "NULL"}, {"obj:get(nil)", "{ok=true}", "NULL"}, {"obj:get(1, 2)", "{ok=true}", "1"},
      {"obj:get({a = {1, 2}})", "{ok=true}", "{ \"a\": [ 1, 2 ] }"}, {"obj:none()", "{}", "NULL"},
      {"coroutine.wrap(function() return obj:get(3) end)()", "{ok=true}", "3"},
      {"obj:nope()", noName, nullptr}, {"empty.get", noName, nullptr}, {"obj.get(io.stdout)", noName, nullptr},
      {"obj.get()", "error: incorrect argument to avg", nullptr},
      {"obj.get(1)", "error: incorrect argument to avg[0]", nullptr},
      {"(function() local f = obj.get return f(obj) end)()", noName, nullptr},
      {"select(2, pcall(obj.get, obj))", "incorrect argument type to avg[0]", nullptr},  // called with no name
      {"(function() local f = alt.get return f(alt) end)()", "{f=1}", nullptr},
  };
  for (const auto &r : rows) {
    requests.clear();
    EXPECT_EQ(r.result, probe(r.snippet)) << r.snippet;
    EXPECT_EQ(r.request ? Strings{r.request} : Strings{}, requests) << r.snippet;
  }
  // A second registration under a name replaces the object.
  ASSERT_EQ(0, luaHelperRegister(h_, "obj", kAlt));
  EXPECT_EQ("{f=1}", probe("obj:f()"));
  EXPECT_EQ(noName, probe("obj:none()"));
  EXPECT_EQ(-1, luaHelperRegister(h_, "obj", nullptr));
  EXPECT_EQ(-1, luaHelperRegister(h_, nullptr, kAlt));
  EXPECT_EQ(-1, luaHelperRegister(nullptr, "obj", kAlt));
}

TEST_F(LuaHelperTest, DaemonCallsScriptByPath) {
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  const std::string x63(63, 'x'), y63(63, 'y');
  std::string deep = "loop";
  for (int i = 0; i < 9000; ++i) deep += ".a";
  deep += ".f";
  struct Row {
    std::string path;
    int result;
    const char *called;  // what the script recorded, or nullptr
  } rows[] = {
      {"f", 0, "f {a=1}"}, {"a.b.c", 0, "c {a=1}"}, {x63 + ".g", 0, "g63 {a=1}"}, {"boom", 0, nullptr},
      {y63 + "y.never.read", 0, "y63 {a=1}"}, {"a.b", -1, nullptr}, {"a.x.c", -1, nullptr}, {"", -1, nullptr},
      {".f", -1, nullptr}, {"u.f", -1, nullptr}, {"trap.x", -1, nullptr},
      {deep, -1, nullptr},  // more segments than the stack has room for
  };
  json_object *arg = json_tokener_parse("{\"a\": 1}");
  for (const Row &r : rows) {
    SCOPED_TRACE(r.path.substr(0, 80));
    lua_State *L = h_->state;
    luaL_dostring(L, "calls = {}");
    EXPECT_EQ(r.result, luaHelperCall(h_, r.path.c_str(), arg));
    EXPECT_EQ(0, lua_gettop(L));
    luaL_dostring(L, "first = calls[1]");
    EXPECT_EQ(r.called ? r.called : "?", global("first"));
    std::string failed = "E [luaHelperCall:N]Lua handler provides no " + r.path + "() callback.";
    const Strings logged = log.TakeNormalized();
    if (rk::test::kSyslogCuts && !logged.empty()) failed.resize(std::min(failed.size(), logged[0].size()));
    EXPECT_EQ(r.result == 0 ? Strings{} : Strings{failed}, logged);
  }
  json_object_put(arg);
  EXPECT_EQ(-1, luaHelperCall(h_, nullptr, nullptr));
  EXPECT_EQ(-1, luaHelperCall(nullptr, "f", nullptr));
}

TEST(LuaHelperCreate, LoadAndRunFailures) {
  RK_REQUIRE_NAMESPACE();
  SyslogCapture log;
  TempDir dir;
  WriteFile(dir / "syntax.lua", "function (");
  WriteFile(dir / "raises.lua", "error('at start')");
  const std::pair<std::string, const char *> rows[] = {
      {dir / "missing.lua", "load"}, {dir / "syntax.lua", "load"}, {dir / "raises.lua", "call"}};
  for (auto &r : rows) {
    EXPECT_EQ(nullptr, CreateLuaHelper(r.first.c_str()));
    EXPECT_EQ(Strings{"E [CreateLuaHelper:N]error " + std::string(r.second) + " " + r.first}, log.TakeNormalized());
  }
  luaHelperDestroy(nullptr);
  // A script that forbids new globals: the registration's Lua error is caught.
  WriteFile(dir / "strict.lua", "setmetatable(_G, {__newindex = function(_, k) error('strict ' .. k) end})");
  LuaHelper *h = CreateLuaHelper((dir / "strict.lua").c_str());
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(-1, luaHelperRegister(h, "obj", kObj));
  EXPECT_EQ(0, lua_gettop(h->state));
  luaHelperDestroy(h);
}

// Many calls with arguments and responses: the stack stays empty and the
// state does not grow (leaks are LeakSanitizer's to see).
TEST_F(LuaHelperTest, ManyCallsStayBalanced) {
  ASSERT_EQ(0, luaL_dostring(h_->state, "function echo(x) last = tostring(obj:get(x).ok) end"));
  json_object *arg = json_tokener_parse("{\"n\": [1, 2.5, \"s\", {\"k\": true}]}");
  int kb = 0;
  for (int i = 0; i < 10000; ++i) {
    ASSERT_EQ(0, luaHelperCall(h_, "echo", arg));
    if (i == 1000) kb = lua_gc(h_->state, LUA_GCCOUNT, 0);
  }
  lua_gc(h_->state, LUA_GCCOLLECT, 0);
  EXPECT_LE(lua_gc(h_->state, LUA_GCCOUNT, 0), kb + 16);
  EXPECT_EQ("true", global("last"));
  EXPECT_EQ(10000u, requests.size());
  json_object_put(arg);
}

}  // namespace
