// Lua values and json-c objects appended to a blob_buf as blobmsg
// attributes. Payloads are handed to blobmsg_add_field in wire order
// (big-endian), since it copies bytes and swaps nothing.
#include <routerkit/data_bridge.h>

#include <endian.h>
#include <stdlib.h>
#include <string.h>

#include <type_traits>

#include <json-c/json.h>

#include "bridge/bridge.h"
#include "bridge/lua_protect.h"
#include "bridge/lua_walk.h"
#include "common/deps.h"

namespace rk::bridge {
namespace {

void addInt32(blob_buf *buf, const char *name, int32_t value) noexcept {
  uint32_t wire = htobe32(static_cast<uint32_t>(value));
  blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &wire, sizeof wire);
}

void addInt64(blob_buf *buf, const char *name, int64_t value) noexcept {
  uint64_t wire = htobe64(static_cast<uint64_t>(value));
  blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &wire, sizeof wire);
}

void addDouble(blob_buf *buf, const char *name, double value) noexcept {
  uint64_t wire;
  memcpy(&wire, &value, sizeof wire);
  wire = htobe64(wire);
  blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &wire, sizeof wire);
}

void addBool(blob_buf *buf, const char *name, bool value) noexcept {
  uint8_t byte = value ? 1 : 0;
  blobmsg_add_field(buf, BLOBMSG_TYPE_BOOL, name, &byte, sizeof byte);
}

void addString(blob_buf *buf, const char *name, const char *text) noexcept {
  blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, text,
                    static_cast<unsigned int>(strlen(text) + 1));
}

struct BlobConversion {
  VisitedTableSet *set;
  blob_buf *buf;
};
static_assert(std::is_trivially_destructible_v<BlobConversion>,
              "a Lua error may jump over the frame that holds it");

// The Lua writers run under runProtected and are not noexcept (see
// docs/internals.md, "Lua: errors are jumps").
int lua_to_blob_value(lua_State *L, int index, VisitedTableSet **set, const char *name,
                      blob_buf *buf);

// Appends the table at the absolute `index`, unless met before or the stack
// has no room for its walk. Stack unchanged.
void tableToBlob(lua_State *L, int index, VisitedTableSet **set, const char *name,
                 blob_buf *buf) {
  if (visited_table_check(set, lua_topointer(L, index))) return;
  int32_t n = lua_table_array_length(L, index);
  if (n >= 0) {
    if (!lua_checkstack(L, kArrayWalkSlots)) return;
    void *array = blobmsg_open_nested(buf, name, true);
    if (!array) return;
    for (int32_t i = 0; i < n; ++i) {
      // Every element stands in an unnamed table of its own.
      void *wrapper = blobmsg_open_nested(buf, nullptr, false);
      if (!wrapper) break;  // the buffer is full
      lua_rawgeti(L, index, i + 1);
      lua_to_blob_value(L, -1, set, nullptr, buf);
      lua_settop(L, -2);
      blob_nest_end(buf, wrapper);
    }
    blob_nest_end(buf, array);
    return;
  }
  if (!lua_checkstack(L, kObjectWalkSlots)) return;
  // Without a name the members land at the level the writer stands on.
  void *table = nullptr;
  if (name) {
    table = blobmsg_open_nested(buf, name, false);
    if (!table) return;
  }
  lua_pushnil(L);
  while (lua_next(L, index)) {
    lua_pushvalue(L, -2);
    const char *key = lua_tolstring(L, -1, nullptr);
    if (key) lua_to_blob_value(L, -2, set, key, buf);
    lua_settop(L, -3);
  }
  if (table) blob_nest_end(buf, table);
}

// Appends the value at `index` under `name` (NULL: none); always 0. Stack
// unchanged.
int lua_to_blob_value(lua_State *L, int index, VisitedTableSet **set, const char *name,
                      blob_buf *buf) {
  if (index < 0) index += lua_gettop(L) + 1;
  switch (lua_type(L, index)) {
    case LUA_TBOOLEAN:
      addBool(buf, name, lua_toboolean(L, index));
      break;
    case LUA_TNUMBER: {
      lua_Number n = lua_tonumber(L, index);
      int32_t i;
      if (luaNumberInt32(L, index, n, &i))
        addInt32(buf, name, i);
      else
        addDouble(buf, name, n);
      break;
    }
    case LUA_TSTRING:
      addString(buf, name, lua_tostring(L, index));
      break;
    case LUA_TTABLE:
      tableToBlob(L, index, set, name, buf);
      break;
    default:
      break;
  }
  return 0;
}

void toBlobBody(lua_State *L, void *ud) {
  auto *conv = static_cast<BlobConversion *>(ud);
  lua_to_blob_value(L, 1, &conv->set, nullptr, conv->buf);
}

void json_to_blob_value(blob_buf *buf, const char *name, json_object *obj) noexcept;

void eachMember(blob_buf *buf, json_object *obj) noexcept {
  json_object_object_foreach(obj, key, value) json_to_blob_value(buf, key, value);
}

void json_to_blob_value(blob_buf *buf, const char *name, json_object *obj) noexcept {
  switch (json_object_get_type(obj)) {
    case json_type_boolean:
      addBool(buf, name, json_object_get_boolean(obj));
      break;
    case json_type_double:
      addDouble(buf, name, json_object_get_double(obj));
      break;
    case json_type_int: {
      int64_t v = json_object_get_int64(obj);
      if (v >= INT32_MIN && v <= INT32_MAX)
        addInt32(buf, name, static_cast<int32_t>(v));
      else
        addInt64(buf, name, v);
      break;
    }
    case json_type_string:
      addString(buf, name, json_object_get_string(obj));
      break;
    case json_type_object: {
      void *table = blobmsg_open_nested(buf, name, false);
      if (!table) break;
      eachMember(buf, obj);
      blob_nest_end(buf, table);
      break;
    }
    case json_type_array: {
      void *array = blobmsg_open_nested(buf, name, true);
      if (!array) break;
      const array_list *elements = json_object_get_array(obj);
      for (size_t i = 0; i < elements->length; ++i)
        json_to_blob_value(buf, nullptr, static_cast<json_object *>(elements->array[i]));
      blob_nest_end(buf, array);
      break;
    }
    default:  // null
      break;
  }
}

}  // namespace

void luaToBlob(lua_State *L, int index, blob_buf *buf) noexcept {
  BlobConversion conv{visited_table_create(), buf};
  if (!conv.set) return;
  // After a Lua error the buffer goes back to where it stood: the level the
  // writer started on, with its length as it was. The head is kept as an
  // offset, since the buffer may move while it grows.
  size_t headAt = reinterpret_cast<char *>(buf->head) - static_cast<char *>(buf->buf);
  uint32_t headWord;
  memcpy(&headWord, buf->head, sizeof headWord);
  if (runProtected(L, index, toBlobBody, &conv, 0) == 0) {
    buf->head = reinterpret_cast<blob_attr *>(static_cast<char *>(buf->buf) + headAt);
    memcpy(buf->head, &headWord, sizeof headWord);
  }
  free(conv.set);
}

void jsonToBlob(blob_buf *buf, json_object *obj) noexcept {
  if (json_object_get_type(obj) == json_type_object)
    eachMember(buf, obj);
  else
    json_to_blob_value(buf, nullptr, obj);
}

}  // namespace rk::bridge

extern "C" {

int lua_to_blob(lua_State *L, int index, blob_buf *buf) {
  if (!L || !buf || !buf->head) return 0;
  index = rk::bridge::stackIndex(L, index);
  if (index) rk::bridge::luaToBlob(L, index, buf);
  return 0;
}

void json_to_blob(blob_buf *buf, json_object *obj) {
  if (!buf || !obj) return;
  rk::bridge::jsonToBlob(buf, obj);
}

}  // extern "C"
