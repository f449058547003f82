// Lua values to json-c objects.
#include <routerkit/data_bridge.h>

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <type_traits>

#include <json-c/json.h>

#include "bridge/bridge.h"
#include "bridge/lua_protect.h"
#include "bridge/lua_walk.h"

namespace rk::bridge {
namespace {

// One conversion to JSON. The set comes first: the converters are handed
// &set and find the rest from it. `open` holds the containers being filled,
// outermost first; none of them is inside another yet, so after a Lua error
// each is released on its own.
struct JsonConversion {
  VisitedTableSet *set = nullptr;
  json_object **open = shallow;
  uint32_t depth = 0;
  uint32_t room = kShallow;
  json_object *result = nullptr;
  // Room for the usual nesting without an allocation of its own.
  static constexpr uint32_t kShallow = 32;
  json_object *shallow[kShallow];
};
static_assert(offsetof(JsonConversion, set) == 0, "the set must come first");
static_assert(std::is_trivially_destructible_v<JsonConversion>,
              "a Lua error may jump over the frame that holds it");

JsonConversion *conversionOf(VisitedTableSet **set) noexcept {
  return reinterpret_cast<JsonConversion *>(set);
}

bool pushOpen(JsonConversion *conv, json_object *container) noexcept {
  if (conv->depth == conv->room) {
    uint32_t room = conv->room * 2;
    auto *grown = static_cast<json_object **>(
        realloc(conv->open == conv->shallow ? nullptr : conv->open, room * sizeof(json_object *)));
    if (!grown) return false;
    if (conv->open == conv->shallow) memcpy(grown, conv->shallow, sizeof conv->shallow);
    conv->open = grown;
    conv->room = room;
  }
  conv->open[conv->depth++] = container;
  return true;
}

// From here on the converters run under runProtected and are not noexcept
// (see docs/internals.md, "Lua: errors are jumps").
json_object *lua_to_json_value(lua_State *L, int index, VisitedTableSet **set);

// The container at the absolute `index` as a JSON array or object: NULL when
// met before or when the Lua stack has no room for its walk. Stack unchanged.
json_object *tableToJson(lua_State *L, int index, VisitedTableSet **set) {
  if (visited_table_check(set, lua_topointer(L, index))) return nullptr;
  int32_t n = lua_table_array_length(L, index);
  json_object *container = n >= 0 ? json_object_new_array() : json_object_new_object();
  if (!container) return nullptr;
  JsonConversion *conv = conversionOf(set);
  if (!pushOpen(conv, container)) {
    json_object_put(container);
    return nullptr;
  }
  if (!lua_checkstack(L, n >= 0 ? kArrayWalkSlots : kObjectWalkSlots)) {
    conv->depth--;
    json_object_put(container);
    return nullptr;
  }
  if (n >= 0) {
    for (int32_t i = 0; i < n; ++i) {
      lua_rawgeti(L, index, i + 1);
      json_object *value = lua_to_json_value(L, -1, set);
      lua_settop(L, -2);
      if (json_object_array_put_idx(container, static_cast<size_t>(i), value) != 0) {
        json_object_put(value);  // out of memory: the array ends here
        break;
      }
    }
  } else {
    // String keys of one table differ from each other, so one is new to the
    // object unless a number key met before it has the same text; only then
    // does json-c need to look for it.
    bool numberMet = false;
    lua_pushnil(L);
    while (lua_next(L, index)) {
      const bool number = lua_type(L, -2) == LUA_TNUMBER;
      // Only a copy of the key may be turned into text: lua_next needs the
      // key itself unchanged.
      lua_pushvalue(L, -2);
      const char *key = lua_tolstring(L, -1, nullptr);
      if (key) {
        json_object *value = lua_to_json_value(L, -2, set);
        const unsigned add = number || numberMet ? 0 : JSON_C_OBJECT_ADD_KEY_IS_NEW;
        numberMet = numberMet || number;
        if (json_object_object_add_ex(container, key, value, add) != 0) json_object_put(value);
      }
      lua_settop(L, -3);
    }
  }
  conv->depth--;
  return container;
}

// The value at `index` as a json-c object, or NULL. Stack unchanged.
json_object *lua_to_json_value(lua_State *L, int index, VisitedTableSet **set) {
  if (index < 0) index += lua_gettop(L) + 1;
  switch (lua_type(L, index)) {
    case LUA_TBOOLEAN:
      return json_object_new_boolean(lua_toboolean(L, index));
    case LUA_TNUMBER: {
      lua_Number n = lua_tonumber(L, index);
      int32_t i;
      if (luaNumberInt32(L, index, n, &i)) return json_object_new_int64(i);
      return json_object_new_double(n);
    }
    case LUA_TSTRING:
      return json_object_new_string(lua_tostring(L, index));
    case LUA_TTABLE:
      return tableToJson(L, index, set);
    default:
      return nullptr;
  }
}

void toJsonBody(lua_State *L, void *ud) {
  auto *conv = static_cast<JsonConversion *>(ud);
  conv->result = lua_to_json_value(L, 1, &conv->set);
}

}  // namespace

json_object *luaToJson(lua_State *L, int index) noexcept {
  JsonConversion conv;
  conv.set = visited_table_create();
  if (!conv.set) return nullptr;
  if (runProtected(L, index, toJsonBody, &conv, 0) != 1) {
    // A Lua error left these half filled; they hold everything built so far.
    for (uint32_t i = 0; i < conv.depth; ++i) json_object_put(conv.open[i]);
    conv.result = nullptr;
  }
  if (conv.open != conv.shallow) free(conv.open);
  free(conv.set);
  return conv.result;
}

}  // namespace rk::bridge

extern "C" {

json_object *lua_to_json(lua_State *L, int index) {
  if (!L) return nullptr;
  index = rk::bridge::stackIndex(L, index);
  if (!index) return nullptr;
  return rk::bridge::luaToJson(L, index);
}

}  // extern "C"
