// The conversions behind the entries of data_bridge.h, one each, with the
// entry's arguments checked: a Lua index is absolute and names a value, a
// pointer is not NULL unless the entry lets it through.
#pragma once

#include <stdint.h>

#include <lua.hpp>

struct blob_attr;
struct blob_buf;
struct json_object;

namespace rk::bridge {

json_object *luaToJson(lua_State *L, int index) noexcept;
void luaToBlob(lua_State *L, int index, blob_buf *buf) noexcept;
void jsonToBlob(blob_buf *buf, json_object *obj) noexcept;
json_object *blobToJson(const blob_attr *attr) noexcept;
// `obj` may be NULL (nil).
void jsonToLua(lua_State *L, json_object *obj) noexcept;
// `attr` may be NULL or `len` 0 (nil).
void blobToLua(lua_State *L, const blob_attr *attr, uint32_t len) noexcept;

}  // namespace rk::bridge
