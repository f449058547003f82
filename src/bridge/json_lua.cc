// json-c objects to Lua values.
#include <routerkit/data_bridge.h>

#include <json-c/json.h>

#include "bridge/bridge.h"
#include "bridge/lua_protect.h"

namespace rk::bridge {
namespace {

// Stack slots one level of a container needs: its table and one value.
constexpr int kLevelSlots = 2;
// Elements or members a new table is sized for at most before it fills.
constexpr size_t kMaxPresize = 1024;

// Pushes `obj` as a Lua value. A level the stack has no room for becomes nil
// (the parent kept a slot for it). Runs under runProtected, so not noexcept
// (see docs/internals.md, "Lua: errors are jumps").
void pushJson(lua_State *L, json_object *obj) {
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
      if (!lua_checkstack(L, kLevelSlots)) {
        lua_pushnil(L);
        break;
      }
      const array_list *elements = json_object_get_array(obj);
      const size_t n = elements->length;
      lua_createtable(L, n < kMaxPresize ? static_cast<int>(n) : 0, 0);
      for (size_t i = 0; i < n; ++i) {
        pushJson(L, static_cast<json_object *>(elements->array[i]));
        lua_rawseti(L, -2, static_cast<int>(i + 1));
      }
      break;
    }
    case json_type_object: {
      if (!lua_checkstack(L, kLevelSlots)) {
        lua_pushnil(L);
        break;
      }
      const int members = json_object_object_length(obj);
      lua_createtable(L, 0, members < static_cast<int>(kMaxPresize) ? members : 0);
      json_object_object_foreach(obj, key, value) {
        pushJson(L, value);
        lua_setfield(L, -2, key);
      }
      break;
    }
    default:  // null
      lua_pushnil(L);
      break;
  }
}

void pushJsonBody(lua_State *L, void *ud) { pushJson(L, static_cast<json_object *>(ud)); }

}  // namespace

void jsonToLua(lua_State *L, json_object *obj) noexcept {
  // A Lua error (out of memory) inside still leaves one value: nil.
  if (runProtected(L, 0, pushJsonBody, obj, 1) == 0) lua_pushnil(L);
}

}  // namespace rk::bridge

extern "C" {

void json_to_lua(lua_State *L, json_object *obj) {
  if (!L) return;
  rk::bridge::jsonToLua(L, obj);
}

}  // extern "C"
