// Pieces shared by the conversions out of Lua (to JSON and to blobmsg): the
// array test, the set of tables met, the number rule, and the protected run
// that keeps a Lua error inside the library.
#pragma once

#include <stdint.h>

#include <lua.hpp>

struct blob_buf;
struct json_object;

namespace rk::bridge {

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
// The largest key of the table at the absolute `index` when every key is a
// whole number from 1 up (0 for an empty table), else -1. Stack unchanged.
int32_t lua_table_array_length(lua_State *L, int index);
// True, with the value in *out, when the number `n` at `index` is a 32-bit
// integer exactly.
bool lua_number_int32(lua_State *L, int index, lua_Number n, int32_t *out);

json_object *lua_to_json_value(lua_State *L, int index, VisitedTableSet **set);
int lua_to_blob_value(lua_State *L, int index, VisitedTableSet **set, const char *name,
                      blob_buf *buf);
void json_to_blob_value(blob_buf *buf, const char *name, json_object *obj);

// Runs body(L, ud) as a protected Lua call. With `index` (absolute) not 0, a
// copy of the value there is at index 1 of body's frame; body leaves
// `nresults` values, which reach the caller's stack. 1 when body ran to the
// end; 0 when a Lua error ended it (the error is dropped, nothing pushed);
// -1 when the caller's stack had no room (nothing pushed).
int run_protected(lua_State *L, int index, void (*body)(lua_State *, void *), void *ud,
                  int nresults) noexcept;

}  // namespace rk::bridge
