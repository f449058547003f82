// Lua values to json-c objects.
#include <routerkit/data_bridge.h>

#include <stdlib.h>

#include <type_traits>

#include <json-c/json.h>

#include "bridge/bridge.h"
#include "bridge/lua_protect.h"
#include "bridge/lua_walk.h"
#include "bridge/work_stack.h"

namespace rk::bridge {
namespace {

// A table being converted. Its container is inside no other yet, so after a
// Lua error each open one is released on its own.
struct JsonFrame {
  json_object *node;
  const char *key;  // of the member being converted, an object's
  int index;        // of the table, absolute
  int32_t n;        // an array's length, or -1 for an object
  int32_t i;        // an array's next element
  uint32_t height;  // levels of containers in the tallest child so far
  bool numberMet;   // an object: a number key was added
  bool number;      // an object: `key` is a number's text
};

struct JsonConversion {
  VisitedTableSet *set = nullptr;
  WorkStack<JsonFrame> stack;
  Bounds *bounds = nullptr;  // none for the plain conversion
  bool failed = false;       // no memory (work stack, set or json-c), or the bounds refused
  json_object *result = nullptr;
};
static_assert(std::is_trivially_destructible_v<JsonConversion>,
              "a Lua error may jump over the frame that holds it");

// Releases a subtree built at the level above the stack's top.
void releaseChild(JsonConversion *conv, json_object *value, uint32_t height) noexcept {
  if (height <= kPutLevels) {
    json_object_put(value);
    return;
  }
  uint32_t count;
  JsonFrame *spare = conv->stack.spareFrom(conv->stack.depth(), &count);
  releaseTree(value, spare, count);
}

// From here on the converters run under runProtected and are not noexcept
// (see docs/internals.md, "Lua: errors are jumps").

// The value at `index`, of `type`, not a table, as a json-c object or NULL.
json_object *scalarOf(lua_State *L, int index, int type) {
  switch (type) {
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
    default:
      return nullptr;
  }
}

// The same; a value with a JSON form that json-c had no memory for fails
// the conversion.
json_object *scalarToJson(lua_State *L, int index, int type, JsonConversion *conv) {
  json_object *value = scalarOf(L, index, type);
  if (!value && (type == LUA_TBOOLEAN || type == LUA_TNUMBER || type == LUA_TSTRING)) conv->failed = true;
  return value;
}

// Opens the table at the absolute `index` on the work stack, with the Lua
// stack made ready for its walk; false when its value is NULL: met before,
// no room on the Lua stack, or no memory or a refusal of the bounds
// (conv->failed then).
bool openTable(lua_State *L, int index, JsonConversion *conv) {
  if (visited_table_check(&conv->set, lua_topointer(L, index))) {
    conv->failed = !conv->set;
    return false;
  }
  uint32_t keys;
  int32_t n = lua_table_array_length(L, index, &keys);
  if (conv->bounds && !conv->bounds->table(conv->stack.depth() + 1, &n, keys)) {
    conv->failed = true;
    return false;
  }
  json_object *container = n >= 0 ? json_object_new_array() : json_object_new_object();
  if (!container) {
    conv->failed = true;
    return false;
  }
  JsonFrame *frame = conv->stack.push();
  if (!frame) {
    json_object_put(container);
    conv->failed = true;
    return false;
  }
  *frame = JsonFrame{container, nullptr, index, n, 0, 0, false, false};
  if (!lua_checkstack(L, n >= 0 ? kArrayWalkSlots : kObjectWalkSlots)) {
    conv->stack.pop();
    json_object_put(container);
    return false;
  }
  if (n < 0) lua_pushnil(L);
  return true;
}

// Adds `value`, `height` levels tall, to `object` under `key`. String keys
// of one table differ from each other, so one is new to the object unless
// a number key met before it has the same text (`mayReplace`); only then
// does json-c need to look for it, and only then may it replace a member,
// which it releases by its own recursion unless taken out first: the
// object's members are at most `tallest` levels tall.
void addMember(JsonConversion *conv, json_object *object, const char *key, json_object *value,
               uint32_t height, bool mayReplace, uint32_t tallest) noexcept {
  json_object *replaced = nullptr;
  if (mayReplace && tallest > kPutLevels && json_object_object_get_ex(object, key, &replaced))
    json_object_get(replaced);
  if (json_object_object_add_ex(object, key, value, mayReplace ? 0 : JSON_C_OBJECT_ADD_KEY_IS_NEW) != 0) {
    json_object_put(replaced);
    releaseChild(conv, value, height);
    conv->failed = true;
  } else if (replaced) {
    releaseChild(conv, replaced, tallest);
  }
}

// Stores the table just converted, `height` levels tall, in the table on
// top of the work stack and drops what its walk pushed for it.
void addTable(lua_State *L, JsonConversion *conv, json_object *value, uint32_t height) {
  JsonFrame &f = conv->stack.top();
  if (height > f.height) f.height = height;
  if (f.n >= 0) {
    lua_settop(L, -2);
    if (json_object_array_put_idx(f.node, static_cast<size_t>(f.i), value) != 0) {
      releaseChild(conv, value, height);
      conv->failed = true;
      return;
    }
    f.i++;
    return;
  }
  const bool mayReplace = f.number || f.numberMet;
  f.numberMet = mayReplace;
  addMember(conv, f.node, f.key, value, height, mayReplace, f.height);
  lua_settop(L, -3);
}

// Converts the elements of the array on top of the work stack from its next
// one on, until one is a table: true when that was opened on the stack,
// false at the end or when memory ran out (conv->failed).
bool walkArray(lua_State *L, JsonConversion *conv) {
  const JsonFrame &f = conv->stack.top();
  json_object *array = f.node;
  const int table = f.index;
  const int32_t n = f.n;
  for (int32_t i = f.i; i < n; ++i) {
    lua_rawgeti(L, table, i + 1);
    const int type = lua_type(L, -1);
    json_object *value = nullptr;
    if (type == LUA_TTABLE) {
      conv->stack.top().i = i;
      if (openTable(L, lua_gettop(L), conv)) return true;
      if (conv->failed) return false;
    } else if (!(value = scalarToJson(L, -1, type, conv)) && conv->failed) {
      return false;
    }
    lua_settop(L, -2);
    if (json_object_array_put_idx(array, static_cast<size_t>(i), value) != 0) {
      json_object_put(value);
      conv->failed = true;
      return false;
    }
  }
  return false;
}

// The same for the members of the object on top of the work stack.
bool walkObject(lua_State *L, JsonConversion *conv) {
  const JsonFrame &f = conv->stack.top();
  json_object *object = f.node;
  const int table = f.index;
  const uint32_t tallest = f.height;
  bool numberMet = f.numberMet;
  while (lua_next(L, table)) {
    if (conv->bounds && !conv->bounds->count(1)) {
      conv->failed = true;
      return false;
    }
    const bool number = lua_type(L, -2) == LUA_TNUMBER;
    // Only a copy of the key may be turned into text: lua_next needs the
    // key itself unchanged.
    lua_pushvalue(L, -2);
    const char *key = lua_tolstring(L, -1, nullptr);
    if (key) {
      const int type = lua_type(L, -2);
      json_object *value = nullptr;
      if (type == LUA_TTABLE) {
        JsonFrame &top = conv->stack.top();
        top.key = key;
        top.number = number;
        top.numberMet = numberMet;
        if (openTable(L, lua_gettop(L) - 1, conv)) return true;
        if (conv->failed) return false;
      } else if (!(value = scalarToJson(L, -2, type, conv)) && conv->failed) {
        return false;
      }
      const bool mayReplace = number || numberMet;
      numberMet = mayReplace;
      addMember(conv, object, key, value, 0, mayReplace, tallest);
      if (conv->failed) return false;
    }
    lua_settop(L, -3);
  }
  return false;
}

// The value at `index` as a json-c object, or NULL. The tables in it are
// walked with the work stack, in the order of the recursion this replaces,
// and with the same Lua stack on each level. Stack unchanged.
json_object *lua_to_json_value(lua_State *L, int index, JsonConversion *conv) {
  if (index < 0) index += lua_gettop(L) + 1;
  const int type = lua_type(L, index);
  if (type != LUA_TTABLE) return scalarOf(L, index, type);
  if (!openTable(L, index, conv)) return nullptr;
  for (;;) {
    if (conv->stack.top().n >= 0 ? walkArray(L, conv) : walkObject(L, conv)) continue;
    if (conv->failed) return nullptr;
    const JsonFrame &f = conv->stack.top();
    json_object *done = f.node;
    const uint32_t height = f.height + 1;
    conv->stack.pop();
    if (conv->stack.empty()) return done;
    addTable(L, conv, done, height);
    if (conv->failed) return nullptr;
  }
}

void toJsonBody(lua_State *L, void *ud) {
  auto *conv = static_cast<JsonConversion *>(ud);
  conv->result = lua_to_json_value(L, 1, conv);
}

}  // namespace

json_object *luaToJson(lua_State *L, int index, Bounds *bounds) noexcept {
  JsonConversion conv;
  conv.set = visited_table_create();
  if (!conv.set) return nullptr;
  conv.bounds = bounds;
  if (runProtected(L, index, toJsonBody, &conv, 0) != 1 || conv.failed) {
    // A Lua error, memory running out or a refusal left these half filled;
    // they hold everything built so far. Each is released with the frames
    // from its own level up, which held its tree while it was built.
    for (uint32_t i = conv.stack.depth(); i-- > 0;) {
      uint32_t count;
      JsonFrame *spare = conv.stack.spareFrom(i, &count);
      releaseTree(spare->node, spare, count);
    }
    conv.result = nullptr;
  }
  conv.stack.release();
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

json_object *lua_to_json_limited(lua_State *L, int index, const RkConvertLimits *limits) {
  if (!L) return nullptr;
  index = rk::bridge::stackIndex(L, index);
  if (!index) return nullptr;
  rk::bridge::Bounds bounds(limits, __func__);
  return rk::bridge::luaToJson(L, index, &bounds);
}

}  // extern "C"
