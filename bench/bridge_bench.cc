// The data bridges against the references a daemon could use instead, on
// the same three documents in one run:
//   - a Lua table to JSON text: lua_to_json + json_object_to_json_string
//     against lua-cjson's cjson.encode;
//   - JSON text to a Lua table: json_tokener_parse + json_to_lua against
//     cjson.decode;
//   - json_to_blob and blob_to_json against json-c's own serialise and parse
//     of the same document, and, when built against the real libubox, against
//     its blobmsg_add_object and blobmsg_format_json + json_tokener_parse;
//   - lua_to_json_limited and lua_to_blob_limited refusing the sparse array
//     {[2147483647] = true} against cjson.encode refusing it, with the heap
//     bytes each asks for.
#include <routerkit/data_bridge.h>
#include <routerkit/log.h>

#include <stdlib.h>

#include <string>

#include <benchmark/benchmark.h>
#include <json-c/json.h>
#include <lua.hpp>

#include "common/deps.h"
#ifdef RK_HAVE_BLOBMSG_JSON
extern "C" {
#include <libubox/blobmsg_json.h>
}
#endif

// Heap bytes asked for by anything in the process: this program's malloc
// family stands in for the C library's (not under a sanitizer, which brings
// its own).
static size_t heapBytes = 0;
#ifndef __SANITIZE_ADDRESS__
extern "C" {
void *__libc_malloc(size_t n);
void *__libc_calloc(size_t n, size_t size);
void *__libc_realloc(void *p, size_t n);
void *malloc(size_t n) noexcept { return heapBytes += n, __libc_malloc(n); }
void *calloc(size_t n, size_t size) noexcept { return heapBytes += n * size, __libc_calloc(n, size); }
void *realloc(void *p, size_t n) noexcept { return heapBytes += n, __libc_realloc(p, n); }
}
#endif

namespace {

std::string flat_doc() {
  return R"({"name": "wan", "proto": "dhcp", "enabled": true, "mtu": 1500, "metric": 0.5,
             "ifname": "eth1", "peerdns": false, "hostname": "router"})";
}

std::string numbers_doc() {
  std::string s = "[";
  for (int i = 0; i < 1000; ++i) s += (i ? "," : "") + std::to_string(i * 37 % 100000);
  return s + "]";
}

// About 200 keys: 10 sections of a configuration, each with scalars, a list
// and a nested table.
std::string config_doc() {
  std::string s = "{";
  for (int i = 0; i < 10; ++i) {
    std::string n = std::to_string(i);
    s += (i ? "," : "") + std::string("\"section") + n + "\": {";
    for (int k = 0; k < 12; ++k)
      s += "\"option" + std::to_string(k) + "\": \"value " + n + "." + std::to_string(k) + "\",";
    s += "\"port\": " + std::to_string(8000 + i) + ", \"ratio\": 0.25, \"enabled\": true,";
    s += "\"list\": [\"a\", \"b\", \"c\"], \"limits\": {\"up\": 100, \"down\": 1000}}";
  }
  return s + "}";
}

const std::string &doc(int which) {
  static const std::string docs[] = {flat_doc(), numbers_doc(), config_doc()};
  return docs[which];
}

// A Lua state with cjson loaded, the document's table at 1, cjson.encode at 2
// and cjson.decode at 3.
struct LuaDoc {
  lua_State *L = luaL_newstate();
  explicit LuaDoc(int which) {
    luaL_openlibs(L);
    json_object *obj = json_tokener_parse(doc(which).c_str());
    json_to_lua(L, obj);
    json_object_put(obj);
    if (luaL_dostring(L, "local c = require 'cjson' return c.encode, c.decode") != 0) abort();
  }
  ~LuaDoc() { lua_close(L); }
};

void label(benchmark::State &state) {
  static const char *names[] = {"flat", "numbers1000", "config200"};
  state.SetLabel(names[state.range(0)]);
}

void BM_LuaToJsonText(benchmark::State &state) {
  LuaDoc d(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    json_object *obj = lua_to_json(d.L, 1);
    benchmark::DoNotOptimize(json_object_to_json_string(obj));
    json_object_put(obj);
  }
  label(state);
}

void BM_CjsonEncode(benchmark::State &state) {
  LuaDoc d(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    lua_pushvalue(d.L, 2);
    lua_pushvalue(d.L, 1);
    lua_call(d.L, 1, 1);
    benchmark::DoNotOptimize(lua_tostring(d.L, -1));
    lua_settop(d.L, 3);
  }
  label(state);
}

void BM_JsonTextToLua(benchmark::State &state) {
  LuaDoc d(static_cast<int>(state.range(0)));
  const std::string &text = doc(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    json_object *obj = json_tokener_parse(text.c_str());
    json_to_lua(d.L, obj);
    json_object_put(obj);
    lua_settop(d.L, 3);
  }
  label(state);
}

void BM_CjsonDecode(benchmark::State &state) {
  LuaDoc d(static_cast<int>(state.range(0)));
  const std::string &text = doc(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    lua_pushvalue(d.L, 3);
    lua_pushlstring(d.L, text.data(), text.size());
    lua_call(d.L, 1, 1);
    lua_settop(d.L, 3);
  }
  label(state);
}

void BM_JsonToBlob(benchmark::State &state) {
  json_object *obj = json_tokener_parse(doc(static_cast<int>(state.range(0))).c_str());
  blob_buf buf{};
  for (auto _ : state) {
    blob_buf_init(&buf, 0);
    json_to_blob(&buf, obj);
    benchmark::DoNotOptimize(buf.head);
  }
  blob_buf_free(&buf);
  json_object_put(obj);
  label(state);
}

void BM_JsoncSerialise(benchmark::State &state) {
  json_object *obj = json_tokener_parse(doc(static_cast<int>(state.range(0))).c_str());
  for (auto _ : state) {
    benchmark::DoNotOptimize(json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN));
    // json-c caches the text in the object; drop it so every round serialises.
    json_object_set_serializer(obj, nullptr, nullptr, nullptr);
  }
  json_object_put(obj);
  label(state);
}

void BM_BlobToJson(benchmark::State &state) {
  json_object *obj = json_tokener_parse(doc(static_cast<int>(state.range(0))).c_str());
  blob_buf buf{};
  blob_buf_init(&buf, 0);
  // As a table attribute, so that an object comes back as one object.
  void *table = blobmsg_open_table(&buf, "doc");
  json_to_blob(&buf, obj);
  blobmsg_close_table(&buf, table);
  auto *attr = static_cast<blob_attr *>(blob_data(buf.head));
  for (auto _ : state) json_object_put(blob_to_json(attr));
  blob_buf_free(&buf);
  json_object_put(obj);
  label(state);
}

void BM_JsoncParse(benchmark::State &state) {
  const std::string &text = doc(static_cast<int>(state.range(0)));
  for (auto _ : state) json_object_put(json_tokener_parse(text.c_str()));
  label(state);
}

#ifdef RK_HAVE_BLOBMSG_JSON
void BM_UboxAddObject(benchmark::State &state) {
  json_object *obj = json_tokener_parse(doc(static_cast<int>(state.range(0))).c_str());
  blob_buf buf{};
  for (auto _ : state) {
    blob_buf_init(&buf, 0);
    if (json_object_get_type(obj) == json_type_object)
      blobmsg_add_object(&buf, obj);
    else
      blobmsg_add_json_element(&buf, "", obj);
  }
  blob_buf_free(&buf);
  json_object_put(obj);
  label(state);
}

void BM_UboxFormatAndParse(benchmark::State &state) {
  json_object *obj = json_tokener_parse(doc(static_cast<int>(state.range(0))).c_str());
  blob_buf buf{};
  blob_buf_init(&buf, 0);
  void *table = blobmsg_open_table(&buf, "doc");
  json_to_blob(&buf, obj);
  blobmsg_close_table(&buf, table);
  auto *attr = static_cast<blob_attr *>(blob_data(buf.head));
  for (auto _ : state) {
    char *text = blobmsg_format_json(attr, true);
    json_object_put(json_tokener_parse(text));
    free(text);
  }
  blob_buf_free(&buf);
  json_object_put(obj);
  label(state);
}
BENCHMARK(BM_UboxAddObject)->DenseRange(0, 2);
BENCHMARK(BM_UboxFormatAndParse)->DenseRange(0, 2);
#endif

// The bomb at 1 and cjson.encode at 2. The refusal's log line is held back
// by the level: it costs what any line costs.
struct Bomb {
  lua_State *L = luaL_newstate();
  Bomb() {
    luaL_openlibs(L);
    if (luaL_dostring(L, "return {[2147483647] = true}, require('cjson').encode") != 0) abort();
    log_setLevel(1);
  }
  ~Bomb() {
    lua_close(L);
    log_setLevel(4);
  }
};

void perIteration(benchmark::State &state, size_t bytes) {
  state.counters["heap_bytes"] = benchmark::Counter(static_cast<double>(bytes), benchmark::Counter::kAvgIterations);
}

void BM_SparseBombLimited(benchmark::State &state) {
  Bomb b;
  blob_buf buf{};
  blob_buf_init(&buf, 0);
  const size_t before = heapBytes;
  for (auto _ : state) {
    if (state.range(0))
      lua_to_blob_limited(b.L, 1, &buf, nullptr);
    else
      benchmark::DoNotOptimize(lua_to_json_limited(b.L, 1, nullptr));
  }
  perIteration(state, heapBytes - before);
  blob_buf_free(&buf);
  state.SetLabel(state.range(0) ? "lua_to_blob_limited" : "lua_to_json_limited");
}

void BM_SparseBombCjson(benchmark::State &state) {
  Bomb b;
  const size_t before = heapBytes;
  for (auto _ : state) {
    lua_pushvalue(b.L, 2);
    lua_pushvalue(b.L, 1);
    if (lua_pcall(b.L, 1, 1, 0) == 0) abort();  // "excessively sparse array"
    lua_settop(b.L, 2);
  }
  perIteration(state, heapBytes - before);
}

}  // namespace

BENCHMARK(BM_SparseBombLimited)->DenseRange(0, 1);
BENCHMARK(BM_SparseBombCjson);
BENCHMARK(BM_LuaToJsonText)->DenseRange(0, 2);
BENCHMARK(BM_CjsonEncode)->DenseRange(0, 2);
BENCHMARK(BM_JsonTextToLua)->DenseRange(0, 2);
BENCHMARK(BM_CjsonDecode)->DenseRange(0, 2);
BENCHMARK(BM_JsonToBlob)->DenseRange(0, 2);
BENCHMARK(BM_JsoncSerialise)->DenseRange(0, 2);
BENCHMARK(BM_BlobToJson)->DenseRange(0, 2);
BENCHMARK(BM_JsoncParse)->DenseRange(0, 2);
