// The way back: blobmsg attributes to json-c objects, json-c objects to Lua
// values, and a run of attributes to one Lua table through JSON.
//
// Attributes may come from outside, so every read stays inside the bytes
// the attribute (and, for a child, its parent) claims.
#include <routerkit/data_bridge.h>

#include <endian.h>
#include <string.h>

#include <json-c/json.h>

#include "bridge/bridge.h"
#include "common/deps.h"

namespace rk::bridge {
namespace {

constexpr uint32_t kExtended = 0x80000000u;

uint32_t load_be32(const uint8_t *p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return be32toh(v);
}

uint64_t load_be64(const uint8_t *p) {
  uint64_t v;
  memcpy(&v, p, sizeof v);
  return be64toh(v);
}

uint32_t raw_len(const uint8_t *attr) { return load_be32(attr) & 0x00ffffffu; }
uint32_t padded_len(const uint8_t *attr) { return (raw_len(attr) + 3) & ~3u; }

// The name of a child read as a table member: the text at offset 6, which
// must end inside the attribute; NULL when it does not.
const char *member_name(const uint8_t *attr) {
  uint32_t len = raw_len(attr);
  if (len <= 6) return nullptr;
  const char *name = reinterpret_cast<const char *>(attr) + 6;
  return memchr(name, '\0', len - 6) ? name : nullptr;
}

json_object *attr_to_json(const uint8_t *attr, int depth);

// Calls `add(child)` for each child of the run of `rem` bytes at `p`, while
// the next child lies inside what remains.
template <typename Add>
void walk_children(const uint8_t *p, size_t rem, Add add) {
  while (rem > 3) {
    uint32_t pad = padded_len(p);
    if (pad <= 3 || pad > rem) break;
    add(p);
    rem -= pad;
    p += pad;
  }
}

void add_members(json_object *object, const uint8_t *p, size_t rem, int depth) {
  walk_children(p, rem, [&](const uint8_t *child) {
    const char *key = member_name(child);
    if (!key) return;
    json_object *value = attr_to_json(child, depth);
    if (json_object_object_add(object, key, value) != 0) json_object_put(value);
  });
}

json_object *attr_to_json(const uint8_t *attr, int depth) {
  uint32_t id_len = load_be32(attr);
  size_t len = id_len & 0x00ffffffu;
  size_t header = 4;
  if (id_len & kExtended) {
    if (len < 6) return nullptr;
    header += (((size_t)attr[4] << 8 | attr[5]) + 6) & ~size_t{3};
  }
  if (len < header) return nullptr;
  const uint8_t *data = attr + header;
  size_t size = len - header;
  switch ((id_len >> 24) & 0x7f) {
    case BLOBMSG_TYPE_ARRAY: {
      if (depth > RK_BLOB_MAX_DEPTH) return nullptr;
      json_object *array = json_object_new_array();
      if (!array) return nullptr;
      walk_children(data, size, [&](const uint8_t *child) {
        json_object *value = attr_to_json(child, depth + 1);
        if (json_object_array_add(array, value) != 0) json_object_put(value);
      });
      return array;
    }
    case BLOBMSG_TYPE_TABLE: {
      if (depth > RK_BLOB_MAX_DEPTH) return nullptr;
      json_object *object = json_object_new_object();
      if (object) add_members(object, data, size, depth + 1);
      return object;
    }
    case BLOBMSG_TYPE_STRING:
      return json_object_new_string_len(reinterpret_cast<const char *>(data),
                                        static_cast<int>(strnlen(reinterpret_cast<const char *>(data), size)));
    case BLOBMSG_TYPE_INT64:
      return size >= 8 ? json_object_new_int64(static_cast<int64_t>(load_be64(data))) : nullptr;
    case BLOBMSG_TYPE_INT32:
      return size >= 4 ? json_object_new_int(static_cast<int32_t>(load_be32(data))) : nullptr;
    case BLOBMSG_TYPE_INT16:
      return size >= 2 ? json_object_new_int(data[0] << 8 | data[1]) : nullptr;
    case BLOBMSG_TYPE_BOOL:
      return size >= 1 ? json_object_new_boolean(data[0] != 0) : nullptr;
    case BLOBMSG_TYPE_DOUBLE: {
      if (size < 8) return nullptr;
      uint64_t bits = load_be64(data);
      double d;
      memcpy(&d, &bits, sizeof d);
      return json_object_new_double(d);
    }
    default:
      return nullptr;
  }
}

// Pushes `obj` as a Lua value. Each level holds its table and one value on
// the stack; a level the stack has no room for becomes nil (the parent kept
// a slot for it).
void push_json(lua_State *L, json_object *obj) {
  switch (json_object_get_type(obj)) {
    case json_type_boolean:
      lua_pushboolean(L, json_object_get_boolean(obj));
      break;
    case json_type_double:
      lua_pushnumber(L, json_object_get_double(obj));
      break;
    case json_type_int: {
      int64_t v = json_object_get_int64(obj);
      if (v >= INT32_MIN && v <= INT32_MAX)
        lua_pushinteger(L, static_cast<lua_Integer>(v));
      else
        lua_pushnumber(L, static_cast<lua_Number>(v));
      break;
    }
    case json_type_string:
      lua_pushstring(L, json_object_get_string(obj));
      break;
    case json_type_array: {
      if (!lua_checkstack(L, 2)) {
        lua_pushnil(L);
        break;
      }
      const array_list *elements = json_object_get_array(obj);
      const size_t n = elements->length;
      lua_createtable(L, n < 1024 ? static_cast<int>(n) : 0, 0);
      for (size_t i = 0; i < n; ++i) {
        push_json(L, static_cast<json_object *>(elements->array[i]));
        lua_rawseti(L, -2, static_cast<int>(i + 1));
      }
      break;
    }
    case json_type_object: {
      if (!lua_checkstack(L, 2)) {
        lua_pushnil(L);
        break;
      }
      const int members = json_object_object_length(obj);
      lua_createtable(L, 0, members < 1024 ? members : 0);
      json_object_object_foreach(obj, key, value) {
        push_json(L, value);
        lua_setfield(L, -2, key);
      }
      break;
    }
    default:  // null
      lua_pushnil(L);
      break;
  }
}

void push_json_body(lua_State *L, void *ud) { push_json(L, static_cast<json_object *>(ud)); }

}  // namespace
}  // namespace rk::bridge

using namespace rk::bridge;

extern "C" json_object *blob_to_json(blob_attr *attr) {
  if (!attr) return nullptr;
  return attr_to_json(reinterpret_cast<const uint8_t *>(attr), 1);
}

extern "C" void json_to_lua(lua_State *L, json_object *obj) {
  if (!L) return;
  // A Lua error (out of memory) inside still leaves one value: nil.
  if (run_protected(L, 0, push_json_body, obj, 1) == 0) lua_pushnil(L);
}

extern "C" int blob_to_lua(lua_State *L, blob_attr *attr, uint32_t len) {
  if (!L) return -1;
  json_object *object = attr && len ? json_object_new_object() : nullptr;
  if (object) add_members(object, reinterpret_cast<const uint8_t *>(attr), len, 1);
  json_to_lua(L, object);
  json_object_put(object);
  return 0;
}
