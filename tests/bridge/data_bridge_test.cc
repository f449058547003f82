// The data bridges: Lua values out to JSON and blobmsg, JSON out to blobmsg,
// and blobmsg and JSON back into Lua. Each row is a Lua expression or a JSON
// text, and what the daemon on the other side sees.
#include <string>
#include <vector>

#include <json-c/json.h>
#include <lua.hpp>

#include "common/deps.h"
#include "rk_test.h"

#include <routerkit/data_bridge.h>

namespace {

using rk::test::Hex;
using rk::test::ToHex;

struct Lua {
  lua_State *L = luaL_newstate();
  Lua() { luaL_openlibs(L); }
  ~Lua() { lua_close(L); }
  // Pushes the value of a Lua expression.
  void eval(const std::string &expr) {
    std::string chunk = "local t = {} return " + expr;
    ASSERT_EQ(0, luaL_loadstring(L, chunk.c_str())) << lua_tostring(L, -1);
    ASSERT_EQ(0, lua_pcall(L, 0, 1, 0)) << lua_tostring(L, -1);
  }
  // The top value as text, table keys sorted; pops it.
  std::string dump() {
    luaL_dostring(L,
                  "local function d(v) if type(v) ~= 'table' then return tostring(v) end "
                  "local k = {} for key in pairs(v) do k[#k + 1] = key end "
                  "table.sort(k, function(a, b) return tostring(a) < tostring(b) end) "
                  "for i, key in ipairs(k) do k[i] = tostring(key) .. '=' .. d(v[key]) end "
                  "return '{' .. table.concat(k, ',') .. '}' end return d");
    lua_insert(L, -2);
    lua_call(L, 1, 1);
    std::string s = lua_tostring(L, -1);
    lua_pop(L, 1);
    return s;
  }
};

std::string json_text(json_object *obj) {
  std::string s = obj ? json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN) : "NULL";
  json_object_put(obj);
  return s;
}

// Attributes as text: [..] an array, {..} a table, "name:" before a named
// one; 7 an INT32, 7L an INT64, 0.5d a DOUBLE, "s" a STRING, true a BOOL.
std::string show(blob_attr *first, size_t len) {
  std::string out;
  blob_attr *a;
  size_t rem = len;
  __blob_for_each_attr(a, first, rem) {
    if (!out.empty()) out += ",";
    if (*blobmsg_name(a)) out += std::string(blobmsg_name(a)) + ":";
    void *d = blobmsg_data(a);
    char num[32];
    switch (blobmsg_type(a)) {
      case BLOBMSG_TYPE_ARRAY: out += "[" + show((blob_attr *)d, blobmsg_data_len(a)) + "]"; break;
      case BLOBMSG_TYPE_TABLE: out += "{" + show((blob_attr *)d, blobmsg_data_len(a)) + "}"; break;
      case BLOBMSG_TYPE_STRING: out += "\"" + std::string((char *)d) + "\""; break;
      case BLOBMSG_TYPE_INT64: out += std::to_string((int64_t)blobmsg_get_u64(a)) + "L"; break;
      case BLOBMSG_TYPE_INT32: out += std::to_string((int32_t)blobmsg_get_u32(a)); break;
      case BLOBMSG_TYPE_BOOL: out += blobmsg_get_bool(a) ? "true" : "false"; break;
      case BLOBMSG_TYPE_DOUBLE: snprintf(num, sizeof num, "%gd", blobmsg_get_double(a)); out += num; break;
    }
  }
  return out;
}

struct Buf {
  blob_buf b{};
  Buf() { blob_buf_init(&b, 0); }
  ~Buf() { blob_buf_free(&b); }
  std::string text() const { return show((blob_attr *)blob_data(b.head), blob_len(b.head)); }
  std::string hex() const { return ToHex(blob_data(b.head), blob_len(b.head)); }
};

// json: what lua_to_json gives; blob: what lua_to_blob writes, and where
// given its exact bytes (big-endian on every host).
struct Row { const char *in, *json, *blob, *hex = nullptr; };

TEST(Bridge, LuaValuesOut) {
  const Row rows[] = {
      {"{}", "[]", "[]"}, {"{1, 2, 3}", "[1,2,3]", "[{1},{2},{3}]"}, {"{[true] = 1}", "{}", ""},
      {"{[3] = true}", "[null,null,true]", "[{},{},{true}]"}, {"{[0.1 + 0.2] = 'x'}", "{\"0.3\":\"x\"}", "0.3:\"x\""},
      {"{[2147483648] = 1}", "{\"2147483648\":1}", "2147483648:1"}, {"{[-1] = 1}", "{\"-1\":1}", "-1:1"},
      {"{1, 2, x = 3}", "{\"1\":1,\"2\":2,\"x\":3}", "1:1,2:2,x:3"}, {"{x = {}}", "{\"x\":[]}", "x:[]"},
      {"{t, t}", "[[],null]", "[{[]},{}]"}, {"{[5] = 1, [2] = 2}", "[null,2,null,null,1]", "[{},{2},{},{},{1}]"},
      {"{{a = 1}, {{1}}}", "[{\"a\":1},[[1]]]", "[{a:1},{[{[{1}]}]}]"},
      {"{{1}, {2}, {3}, {4}, {5}, {6}, {7}, {8}, {9}, {10}, {11}}", "[[1],[2],[3],[4],[5],[6],[7],[8],[9],[10],[11]]",
       "[{[{1}]},{[{2}]},{[{3}]},{[{4}]},{[{5}]},{[{6}]},{[{7}]},{[{8}]},{[{9}]},{[{10}]},{[{11}]}]"},
      {"(function() t.self = t return t end)()", "{\"self\":null}", ""},
      {"{print, coroutine.create(function() end), io.stdout}", "[null,null,null]", "[{},{},{}]"},
      {"nil", "NULL", ""}, {"print", "NULL", ""}, {"true", "true", "true"}, {"'a\\0b'", "\"a\"", "\"a\""},
      {"3.0", "3", "3"}, {"-0.0", "0", "0"}, {"2147483647", "2147483647", "2147483647"},
      {"-2147483648", "-2147483648", "-2147483648"}, {"2147483648", "2147483648.0", "2.14748e+09d"},
      {"0.5", "0.5", "0.5d", "88000010 00000000 3fe00000 00000000"}, {"0/0", "NaN", nullptr},
      {"-2", "-2", "-2", "8500000c 00000000 fffffffe"}, {"1/0", "Infinity", "infd"},
      {"{10}", "[10]", "[{10}]", "8100001c 00000000 82000014 00000000 8500000c 00000000 0000000a"},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.in);
    Lua lua;
    lua_pushinteger(lua.L, 99);  // something below, which must stay
    lua.eval(r.in);
    if (r.json) { EXPECT_EQ(r.json, json_text(lua_to_json(lua.L, -1))); }
    Buf buf;
    EXPECT_EQ(0, lua_to_blob(lua.L, 2, &buf.b));
    if (r.blob) { EXPECT_EQ(r.blob, buf.text()); }
    if (r.hex) { EXPECT_EQ(ToHex(Hex(r.hex)), buf.hex()); }
    EXPECT_EQ(2, lua_gettop(lua.L));
  }
  Lua lua;
  lua.eval("{}");
  lua.eval("1");
  Buf none;
  for (int index : {0, 3, -3}) {
    EXPECT_EQ("NULL", json_text(lua_to_json(lua.L, index)));
    EXPECT_EQ(0, lua_to_blob(lua.L, index, &none.b));
  }
  EXPECT_EQ("", none.text());
  EXPECT_EQ("1", json_text(lua_to_json(lua.L, -1)));
  EXPECT_EQ(2, lua_gettop(lua.L));
}

// Attributes as they may arrive from outside, each read within its bytes.
TEST(Bridge, BlobToJsonAndLua) {
  const std::pair<const char *, const char *> rows[] = {
      {"06000006 ffff", "65535"}, {"05000008 ffffffff", "-1"}, {"07000005 02", "true"}, {"01000004", "[]"},
      {"01000010 00000004 05000008 00000005", "[null,5]"}, {"0200000c 80000008 00016100", "{\"a\":null}"},
      {"0200000c 85000008 00056100", "{\"a\":null}"},  // name longer than its header
      {"0200000c 85000008 00026162", "{}"},            // name without its end
      {"01000008 05000010", "[]"},                     // a child longer than its parent
      {"01000008 05000000", "[]"},                     // a child without a length
      {"05000006 0001", "NULL"},                       // too short a payload
      {"03000006 6162", "\"ab\""},                     // a string without its NUL
      {"09000004", "NULL"}, {"00000000", "NULL"},
  };
  for (auto &r : rows) {
    std::vector<uint8_t> bytes = Hex(r.first);
    EXPECT_EQ(r.second, json_text(blob_to_json((blob_attr *)bytes.data()))) << r.first;
  }
  EXPECT_EQ("NULL", json_text(blob_to_json(nullptr)));

  // A run of attributes to one Lua table, as the writers leave them.
  Lua lua;
  lua.eval("{a = 1, b = {2}, c = {x = {true}}, d = {}}");
  Buf buf;
  lua_to_blob(lua.L, 1, &buf.b);
  auto *run = (blob_attr *)blob_data(buf.b.head);
  const std::pair<uint32_t, const char *> runs[] = {
      {uint32_t(blob_len(buf.b.head)), "{a=1,b={1={=2}},c={x={1={=true}}},d={}}"},
      {0, "nil"}, {1, "{}"}, {3, "{}"}, {4, "{}"},
  };
  for (auto &r : runs) {
    EXPECT_EQ(0, blob_to_lua(lua.L, run, r.first));
    EXPECT_EQ(r.second, lua.dump()) << r.first;
  }
  EXPECT_EQ(-1, blob_to_lua(nullptr, run, 4));
  EXPECT_EQ(0, blob_to_lua(lua.L, nullptr, 4));
  EXPECT_EQ("nil", lua.dump());
  EXPECT_EQ(1, lua_gettop(lua.L));
}

// A JSON text, the attributes json_to_blob writes of it (and where given
// their bytes) and the value json_to_lua pushes; "null" is the NULL object.
TEST(Bridge, JsonIn) {
  const struct { const char *in, *blob, *lua, *hex = nullptr; } rows[] = {
      {"[1, null, {\"x\": 3}]", "[1,{x:3}]", "{1=1,3={x=3}}"},
      {"{\"a\": null, \"b\": [true, \"s\"], \"c\": {}, \"d\": [{\"e\": 1.0}]}", "b:[true,\"s\"],c:{},d:[{e:1d}]",
       "{b={1=true,2=s},c={},d={1={e=1}}}"},
      {"2147483647", "2147483647", "2147483647"}, {"-2147483648", "-2147483648", "-2147483648"},
      {"-2147483649", "-2147483649L", "-2147483649"}, {"0.25", "0.25d", "0.25"}, {"\"s\"", "\"s\"", "s"},
      {"2147483648", "2147483648L", "2147483648", "84000010 00000000 00000000 80000000"},
      {"{\"s\": \"ab\"}", "s:\"ab\"", "{s=ab}", "8300000b 00017300 61620000"}, {"false", "false", "false"},
      {"null", "", "nil"},
  };
  Lua lua;
  for (auto &r : rows) {
    json_object *obj = json_tokener_parse(r.in);
    Buf buf;
    json_to_blob(nullptr, obj);  // no buffer: nothing to write to
    json_to_blob(&buf.b, obj);
    EXPECT_EQ(r.blob, buf.text()) << r.in;
    if (r.hex) { EXPECT_EQ(ToHex(Hex(r.hex)), buf.hex()) << r.in; }
    json_to_lua(lua.L, obj);
    EXPECT_EQ(obj != nullptr, json_object_put(obj)) << "the caller's reference stays";
    EXPECT_EQ(r.lua, lua.dump()) << r.in;
  }
  EXPECT_EQ(0, lua_gettop(lua.L));
}

}  // namespace
