// What every walk over a Lua value shares, to JSON and to blobmsg alike: the
// array test, the number rule and the set of tables met.
#pragma once

#include <stdint.h>

#include <lua.hpp>

namespace rk::bridge {

// Stack slots a table walk needs on top of the table: an element for an
// array; a key, its value and a copy of the key for an object.
constexpr int kArrayWalkSlots = 1;
constexpr int kObjectWalkSlots = 3;

// Every table met in one conversion, by identity; entries are never removed.
struct VisitedTableSet {
  uint64_t capacity;
  uint64_t count;
  const void *entries[];  // `capacity` of them, in the same block
};

// A new set with room for 10, or NULL. Freed with free().
VisitedTableSet *visited_table_create() noexcept;
// 1 when `table` was met already, or the set could not grow (it is then freed
// and *set cleared); 0 when it was new and has been added.
int visited_table_check(VisitedTableSet **set, const void *table) noexcept;

// `index` as an absolute index of a value on the stack, or 0 when it names
// none (0, beyond the top, a pseudo-index).
int stackIndex(lua_State *L, int index) noexcept;
// The largest key of the table at the absolute `index` when every key is a
// whole number from 1 up (0 for an empty table), with the number of its
// keys in *keys when asked; else -1. Stack unchanged.
int32_t lua_table_array_length(lua_State *L, int index, uint32_t *keys = nullptr);
// True, with the value in *out, when the number `n` at `index` is a 32-bit
// integer exactly.
bool luaNumberInt32(lua_State *L, int index, lua_Number n, int32_t *out) noexcept;

}  // namespace rk::bridge
