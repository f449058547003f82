// The limited conversions at each bound and just over it,
// against their plain twins, with the line each refusal logs. A row is a Lua
// value: the functions out of Lua convert it, the others its lua_to_json, as
// JSON or as the attributes json_to_blob writes of it. What the bomb costs
// is measured in bench/bridge_bench.cc.
#include <string.h>

#include <string>
#include <vector>

#include <json-c/json.h>
#include <lua.hpp>

#include "common/deps.h"
#include "rk_test.h"

#include <routerkit/data_bridge.h>

namespace {

const char *const kNames[] = {"lua_to_json_limited", "lua_to_blob_limited", "json_to_lua_limited",
                              "blob_to_lua_limited"};

std::string text(json_object *j) {
  std::string s = j ? json_object_to_json_string_ext(j, JSON_C_TO_STRING_PLAIN) : "NULL";
  json_object_put(j);
  return s;
}

// Function `f` of kNames, or its plain twin, on the value on top of the
// stack: the result as text, "NULL" for NULL, nothing written or nil. What
// it pushes is popped.
std::string run(lua_State *L, int f, const RkConvertLimits *limits, bool limited) {
  json_object *j = f >= 2 ? lua_to_json(L, -1) : nullptr;
  blob_buf b{};
  blob_buf_init(&b, 0);
  if (f == 3) json_to_blob(&b, j);
  auto *attr = static_cast<blob_attr *>(blob_data(b.head));
  const uint32_t len = blob_len(b.head);
  std::string s = f ? "" : text(limited ? lua_to_json_limited(L, -1, limits) : lua_to_json(L, -1));
  if (f == 1) limited ? lua_to_blob_limited(L, -1, &b, limits) : lua_to_blob(L, -1, &b);
  if (f == 2) limited ? json_to_lua_limited(L, j, limits) : json_to_lua(L, j);
  if (f == 3) limited ? blob_to_lua_limited(L, attr, len, limits) : blob_to_lua(L, attr, len);
  if (f == 1) s = blob_len(b.head) ? rk::test::ToHex(blob_data(b.head), blob_len(b.head)) : "NULL";
  if (f >= 2) s = text(lua_to_json(L, -1)), lua_pop(L, 1);
  json_object_put(j);
  blob_buf_free(&b);
  return s;
}

TEST(Limits, AtEachBoundAndJustOver) {
  // Limits all 0 go as NULL. `plain`: the value for the plain twin, when not
  // `value`. A value with keys in brackets is for the Lua side alone.
  const struct {
    uint32_t depth, values, ratio, rule;
    const char *value, *refusal, *plain;
  } rows[] = {
      {3, 0, 0, 0, "{a = {{1}}}", nullptr, nullptr},  // 3 levels, and 4 values with the outermost
      {3, 0, 0, 0, "nest(4)", "deeper than 3 levels", nullptr},
      {0, 4, 0, 0, "{a = {{1}}}", nullptr, nullptr},
      {0, 4, 0, 0, "{a = {1, 2, 3}}", "more than 4 values", nullptr},
      {0, 4, 0, 0, "{a = 1, b = 2, c = 3, d = 4}", "more than 4 values", nullptr},
      // An array of 2 keys reaches 2 * 2 + 16, of 1 key 1 * 1 + 16.
      {0, 0, 0, 0, "{1, [20] = 1}", nullptr, nullptr},
      {0, 0, 0, 0, "{1, [21] = 1}", "sparse array, largest index 21, elements 2", nullptr},
      {0, 0, 1, 0, "{t = {[18] = 1}}", "sparse array, largest index 18, elements 1", nullptr},
      {0, 0, 1, RK_SPARSE_AS_OBJECT, "{t = {[18] = 1}}", nullptr, "{t = {['18'] = 1}}"},
      {0, 0, 1, 7, "{[1] = 1, [18] = 1}", nullptr, nullptr},  // an unknown rule refuses
      {0, 0, 1, 7, "{[1] = 1, [19] = 1}", "sparse array, largest index 19, elements 2", nullptr},
      // The defaults, and bounds lifted.
      {0, 0, 0, 0, "nest(64)", nullptr, nullptr},
      {0, 0, 0, 0, "nest(65)", "deeper than 64 levels", nullptr},
      {UINT32_MAX, 0, 0, 0, "nest(65)", nullptr, nullptr},
      {0, 0, 0, 0, "list(99998)", nullptr, nullptr},
      {0, 0, 0, 0, "list(99999)", "more than 100000 values", nullptr},
      {0, 0, 0, 0, "{[2147483647] = true}", "sparse array, largest index 2147483647, elements 1", nullptr},
      {0, 0, UINT32_MAX, 0, "{[2147483647] = true}", "more than 100000 values", nullptr},
      {0, 0, 0, RK_SPARSE_AS_OBJECT, "{[2147483647] = true}", nullptr, "{['2147483647'] = true}"},
  };
  rk::test::SyslogCapture log;
  lua_State *L = luaL_newstate();
  luaL_openlibs(L);
  luaL_dostring(L, "function nest(n) local v = 1 for i = 1, n do v = {a = v} end return v end "
                   "function list(n) local t = {} for i = 1, n do t[i] = 1 end return {a = t} end");
  for (const auto &r : rows) {
    const RkConvertLimits given{r.depth, r.values, r.ratio, r.rule};
    const bool zero = !(r.depth || r.values || r.ratio || r.rule);
    for (int f = 0; f < (strchr(r.value, '[') ? 2 : 4); ++f) {
      SCOPED_TRACE(std::string(kNames[f]) + " " + r.value);
      luaL_dostring(L, ("return " + std::string(r.plain ? r.plain : r.value)).c_str());
      const std::string plain = r.refusal ? "NULL" : run(L, f, nullptr, false);
      luaL_dostring(L, ("return " + std::string(r.value)).c_str());
      EXPECT_EQ(plain, run(L, f, zero ? nullptr : &given, true));
      EXPECT_EQ(2, lua_gettop(L));
      lua_settop(L, 0);
      const std::string line = std::string("W [") + kNames[f] + ":N]refused: " + (r.refusal ? r.refusal : "");
      EXPECT_EQ(r.refusal ? std::vector<std::string>{line} : std::vector<std::string>{}, log.TakeNormalized());
    }
  }
  lua_close(L);
}

}  // namespace
