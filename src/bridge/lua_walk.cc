// The array test, the number rule and the set of tables met, shared by the
// conversions out of Lua.
#include <stdlib.h>

#include "bridge/lua_walk.h"

namespace rk::bridge {
namespace {

constexpr uint64_t kSetStep = 10;

// A table key and its value, while lua_next walks.
constexpr int kKeyValueSlots = 2;

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

int stackIndex(lua_State *L, int index) noexcept {
  int top = lua_gettop(L);
  if (index < 0) index += top + 1;
  return index > 0 && index <= top ? index : 0;
}

// Not noexcept: a conversion's body calls it under runProtected (see
// docs/internals.md, "Lua: errors are jumps").
int32_t lua_table_array_length(lua_State *L, int index, uint32_t *keys) {
  if (!lua_checkstack(L, kKeyValueSlots)) return -1;
  int32_t largest = 0;
  uint32_t count = 0;
  lua_pushnil(L);
  while (lua_next(L, index)) {
    if (lua_type(L, -2) != LUA_TNUMBER) {
      lua_settop(L, -3);
      return -1;
    }
    lua_Number key = lua_tonumber(L, -2);
    int32_t k = key >= static_cast<lua_Number>(INT32_MAX)   ? INT32_MAX
                : key <= static_cast<lua_Number>(INT32_MIN) ? INT32_MIN
                                                            : static_cast<int32_t>(key);
    if (static_cast<lua_Number>(k) != key || k <= 0) {
      lua_settop(L, -3);
      return -1;
    }
    if (k > largest) largest = k;
    count++;
    lua_settop(L, -2);
  }
  if (keys) *keys = count;
  return largest;
}

bool luaNumberInt32(lua_State *L, int index, lua_Number n, int32_t *out) noexcept {
  auto i = static_cast<int32_t>(lua_tointeger(L, index));
  *out = i;
  return n == static_cast<lua_Number>(i);
}

}  // namespace rk::bridge
