// json-c objects to Lua values.
#include <routerkit/data_bridge.h>

#include <type_traits>

#include <json-c/json.h>

#include "bridge/bridge.h"
#include "bridge/lua_protect.h"
#include "bridge/work_stack.h"

namespace rk::bridge {
namespace {

// Stack slots one level of a container needs: its table and one value.
constexpr int kLevelSlots = 2;
// Elements or members a new table is sized for at most before it fills.
constexpr size_t kMaxPresize = 1024;

// A container whose table is on the Lua stack, being filled.
struct LuaFrame {
  const array_list *elements;  // an array's, NULL for an object
  lh_entry *next;              // an object's next member
  const char *key;             // an object's member in hand
  size_t i;                    // an array's next element
};

struct LuaConversion {
  json_object *obj = nullptr;
  WorkStack<LuaFrame> stack;
  Bounds *bounds = nullptr;  // none for the plain conversion
  bool failed = false;       // the work stack could not grow, or the bounds refused
};
static_assert(std::is_trivially_destructible_v<LuaConversion>,
              "a Lua error may jump over the frame that holds it");

// From here on the converters run under runProtected, so they are not
// noexcept (see docs/internals.md, "Lua: errors are jumps").

// Pushes `obj`, of `type`, which is no container.
void pushScalar(lua_State *L, json_object *obj, json_type type) {
  switch (type) {
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
    default:  // null
      lua_pushnil(L);
      break;
  }
}

// Pushes the table of the container `obj` and opens it on the work stack;
// false when it pushed nil instead (the parent kept a slot for it) because
// the Lua stack has no room for another level, or pushed nothing because
// the work stack could not grow or the bounds refused it (conv->failed).
bool openContainer(lua_State *L, json_object *obj, json_type type, LuaConversion *conv) {
  if (conv->bounds) {
    const uint64_t n = type == json_type_array ? json_object_array_length(obj)
                                               : static_cast<uint64_t>(json_object_object_length(obj));
    if (!conv->bounds->open(conv->stack.depth() + 1) || !conv->bounds->count(n)) {
      conv->failed = true;
      return false;
    }
  }
  if (!lua_checkstack(L, kLevelSlots)) {
    lua_pushnil(L);
    return false;
  }
  LuaFrame *frame = conv->stack.push();
  if (!frame) {
    conv->failed = true;
    return false;
  }
  if (type == json_type_array) {
    const array_list *elements = json_object_get_array(obj);
    const size_t n = elements->length;
    *frame = LuaFrame{elements, nullptr, nullptr, 0};
    lua_createtable(L, n < kMaxPresize ? static_cast<int>(n) : 0, 0);
  } else {
    const int members = json_object_object_length(obj);
    *frame = LuaFrame{nullptr, lh_table_head(json_object_get_object(obj)), nullptr, 0};
    lua_createtable(L, 0, members < static_cast<int>(kMaxPresize) ? members : 0);
  }
  return true;
}

// Pushes the elements of the array on top of the work stack from its next
// one on, each stored in its table, until one is a container: true when
// that was opened on the stack, false at the end or when the work stack
// could not grow (conv->failed).
bool walkArray(lua_State *L, LuaConversion *conv) {
  const LuaFrame &f = conv->stack.top();
  const array_list *elements = f.elements;
  for (size_t i = f.i; i < elements->length; ++i) {
    auto *child = static_cast<json_object *>(elements->array[i]);
    const json_type type = json_object_get_type(child);
    if (!isContainer(type)) {
      pushScalar(L, child, type);
    } else {
      conv->stack.top().i = i + 1;
      if (openContainer(L, child, type, conv)) return true;
      if (conv->failed) return false;
    }
    lua_rawseti(L, -2, static_cast<int>(i + 1));
  }
  return false;
}

// The same for the members of the object on top of the work stack.
bool walkObject(lua_State *L, LuaConversion *conv) {
  for (lh_entry *entry = conv->stack.top().next; entry; entry = lh_entry_next(entry)) {
    const auto *key = static_cast<const char *>(lh_entry_k(entry));
    auto *child = static_cast<json_object *>(lh_entry_v(entry));
    const json_type type = json_object_get_type(child);
    if (!isContainer(type)) {
      pushScalar(L, child, type);
    } else {
      LuaFrame &top = conv->stack.top();
      top.next = lh_entry_next(entry);
      top.key = key;
      if (openContainer(L, child, type, conv)) return true;
      if (conv->failed) return false;
    }
    lua_setfield(L, -2, key);
  }
  return false;
}

// Pushes `obj` as a Lua value. Containers are walked with the work stack, in
// the order of the recursion this replaces, with the same Lua stack on each
// level; a level the Lua stack has no room for becomes nil.
void pushJson(lua_State *L, LuaConversion *conv) {
  const json_type type = json_object_get_type(conv->obj);
  if (!isContainer(type)) {
    pushScalar(L, conv->obj, type);
    return;
  }
  if (!openContainer(L, conv->obj, type, conv)) {
    if (conv->failed) lua_pushnil(L);  // the one value the caller takes back
    return;
  }
  for (;;) {
    if (conv->stack.top().elements ? walkArray(L, conv) : walkObject(L, conv)) continue;
    if (conv->failed) return;
    conv->stack.pop();
    if (conv->stack.empty()) return;
    // The container just filled goes into its parent's table.
    const LuaFrame &f = conv->stack.top();
    if (f.elements)
      lua_rawseti(L, -2, static_cast<int>(f.i));
    else
      lua_setfield(L, -2, f.key);
  }
}

void pushJsonBody(lua_State *L, void *ud) { pushJson(L, static_cast<LuaConversion *>(ud)); }

}  // namespace

void jsonToLua(lua_State *L, json_object *obj, Bounds *bounds) noexcept {
  // Not brace-initialised: that would clear the inline frames.
  LuaConversion conv;
  conv.obj = obj;
  conv.bounds = bounds;
  // A Lua error (out of memory) inside, or a work stack that could not grow,
  // still leaves one value: nil.
  const int ran = runProtected(L, 0, pushJsonBody, &conv, 1);
  if (ran == 1 && conv.failed) lua_settop(L, -2);
  if (ran == 0 || (ran == 1 && conv.failed)) lua_pushnil(L);
  conv.stack.release();
}

}  // namespace rk::bridge

extern "C" {

void json_to_lua(lua_State *L, json_object *obj) {
  if (!L) return;
  rk::bridge::jsonToLua(L, obj);
}

void json_to_lua_limited(lua_State *L, json_object *obj, const RkConvertLimits *limits) {
  if (!L) return;
  rk::bridge::Bounds bounds(limits, __func__);
  rk::bridge::jsonToLua(L, obj, &bounds);
}

}  // extern "C"
