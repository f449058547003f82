// Lua values to json-c objects, and the pieces every conversion out of Lua
// shares: the array test, the set of tables met, the protected run.
#include <routerkit/data_bridge.h>

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "bridge/bridge.h"

namespace rk::bridge {
namespace {

constexpr uint64_t kSetStep = 10;

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

JsonConversion *conversion_of(VisitedTableSet **set) {
  return reinterpret_cast<JsonConversion *>(set);
}

bool push_open(JsonConversion *conv, json_object *container) {
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

// The container at `index` as a JSON array or object: NULL when met before or
// when the Lua stack has no room for its walk.
json_object *table_to_json(lua_State *L, int index, VisitedTableSet **set) {
  if (visited_table_check(set, lua_topointer(L, index))) return nullptr;
  int32_t n = lua_table_array_length(L, index);
  json_object *container = n >= 0 ? json_object_new_array() : json_object_new_object();
  if (!container) return nullptr;
  JsonConversion *conv = conversion_of(set);
  if (!push_open(conv, container)) {
    json_object_put(container);
    return nullptr;
  }
  if (!lua_checkstack(L, n >= 0 ? 1 : 3)) {
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
    bool number_met = false;
    lua_pushnil(L);
    while (lua_next(L, index)) {
      const bool number = lua_type(L, -2) == LUA_TNUMBER;
      // Only a copy of the key may be turned into text: lua_next needs the
      // key itself unchanged.
      lua_pushvalue(L, -2);
      const char *key = lua_tolstring(L, -1, nullptr);
      if (key) {
        json_object *value = lua_to_json_value(L, -2, set);
        const unsigned add = number || number_met ? 0 : JSON_C_OBJECT_ADD_KEY_IS_NEW;
        number_met = number_met || number;
        if (json_object_object_add_ex(container, key, value, add) != 0) json_object_put(value);
      }
      lua_settop(L, -3);
    }
  }
  conv->depth--;
  return container;
}

void to_json_body(lua_State *L, void *ud) {
  auto *conv = static_cast<JsonConversion *>(ud);
  conv->result = lua_to_json_value(L, 1, &conv->set);
}

// The protected entry: its upvalue-free frame holds the arguments, then a
// light userdata with the job.
struct ProtectedJob {
  void (*body)(lua_State *, void *);
  void *ud;
  int nresults;
};

int protected_entry(lua_State *L) {
  auto *job = static_cast<ProtectedJob *>(lua_touserdata(L, -1));
  lua_settop(L, -2);
  job->body(L, job->ud);
  return job->nresults;
}

// The registry key of the protected entry: made once per Lua state, inside
// a protected call of its own, so that no allocation happens unprotected.
char entry_key;

int install_entry(lua_State *L) {
  lua_pushlightuserdata(L, &entry_key);
  lua_pushcfunction(L, protected_entry);
  lua_rawset(L, LUA_REGISTRYINDEX);
  return 0;
}

bool push_entry(lua_State *L) {
  lua_pushlightuserdata(L, &entry_key);
  lua_rawget(L, LUA_REGISTRYINDEX);
  if (lua_tocfunction(L, -1) == protected_entry) return true;
  lua_settop(L, -2);
  if (lua_cpcall(L, install_entry, nullptr) != 0) {
    lua_settop(L, -2);
    return false;
  }
  lua_pushlightuserdata(L, &entry_key);
  lua_rawget(L, LUA_REGISTRYINDEX);
  return true;
}

}  // namespace

VisitedTableSet *visited_table_create() noexcept {
  auto *set = static_cast<VisitedTableSet *>(
      calloc(1, sizeof(VisitedTableSet) + kSetStep * sizeof(const void *)));
  if (set) set->capacity = kSetStep;
  return set;
}

int visited_table_check(VisitedTableSet **set, const void *table) noexcept {
  VisitedTableSet *s = *set;
  if (!s) return 1;
  if (s->count >= s->capacity) {
    uint64_t capacity = s->capacity + kSetStep;
    auto *grown = static_cast<VisitedTableSet *>(
        realloc(s, sizeof(VisitedTableSet) + capacity * sizeof(const void *)));
    if (!grown) {
      free(s);
      *set = nullptr;
      return 1;
    }
    grown->capacity = capacity;
    *set = s = grown;
  }
  for (uint64_t i = 0; i < s->count; ++i)
    if (s->entries[i] == table) return 1;
  s->entries[s->count++] = table;
  return 0;
}

int32_t lua_table_array_length(lua_State *L, int index) {
  if (!lua_checkstack(L, 2)) return -1;
  int32_t largest = 0;
  lua_pushnil(L);
  while (lua_next(L, index)) {
    if (lua_type(L, -2) != LUA_TNUMBER) {
      lua_settop(L, -3);
      return -1;
    }
    lua_Number key = lua_tonumber(L, -2);
    int32_t k = key >= 2147483647.0    ? INT32_MAX
                : key <= -2147483648.0 ? INT32_MIN
                                       : static_cast<int32_t>(key);
    if (static_cast<lua_Number>(k) != key || k <= 0) {
      lua_settop(L, -3);
      return -1;
    }
    if (k > largest) largest = k;
    lua_settop(L, -2);
  }
  return largest;
}

bool lua_number_int32(lua_State *L, int index, lua_Number n, int32_t *out) {
  auto i = static_cast<int32_t>(lua_tointeger(L, index));
  *out = i;
  return n == static_cast<lua_Number>(i);
}

json_object *lua_to_json_value(lua_State *L, int index, VisitedTableSet **set) {
  if (index < 0) index += lua_gettop(L) + 1;
  switch (lua_type(L, index)) {
    case LUA_TBOOLEAN:
      return json_object_new_boolean(lua_toboolean(L, index));
    case LUA_TNUMBER: {
      lua_Number n = lua_tonumber(L, index);
      int32_t i;
      if (lua_number_int32(L, index, n, &i)) return json_object_new_int64(i);
      return json_object_new_double(n);
    }
    case LUA_TSTRING:
      return json_object_new_string(lua_tostring(L, index));
    case LUA_TTABLE:
      return table_to_json(L, index, set);
    default:
      return nullptr;
  }
}

int run_protected(lua_State *L, int index, void (*body)(lua_State *, void *), void *ud,
                  int nresults) noexcept {
  if (!lua_checkstack(L, 3) || !push_entry(L)) return -1;
  int nargs = 1;
  if (index != 0) {
    lua_pushvalue(L, index);
    nargs++;
  }
  ProtectedJob job{body, ud, nresults};
  lua_pushlightuserdata(L, &job);
  if (lua_pcall(L, nargs, nresults, 0) != 0) {
    lua_settop(L, -2);
    return 0;
  }
  return 1;
}

}  // namespace rk::bridge

using namespace rk::bridge;

extern "C" json_object *lua_to_json(lua_State *L, int index) {
  if (!L) return nullptr;
  int top = lua_gettop(L);
  if (index < 0) index += top + 1;
  if (index <= 0 || index > top) return nullptr;
  JsonConversion conv;
  conv.set = visited_table_create();
  if (!conv.set) return nullptr;
  if (run_protected(L, index, to_json_body, &conv, 0) != 1) {
    // A Lua error left these half filled; they hold everything built so far.
    for (uint32_t i = 0; i < conv.depth; ++i) json_object_put(conv.open[i]);
    conv.result = nullptr;
  }
  if (conv.open != conv.shallow) free(conv.open);
  free(conv.set);
  return conv.result;
}
