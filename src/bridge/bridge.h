// The conversions behind the entries of data_bridge.h, one each, with the
// entry's arguments checked: a Lua index is absolute and names a value, a
// pointer is not NULL unless the entry lets it through. A conversion given
// Bounds is the limited twin; without, the plain one.
#pragma once

#include <stdint.h>

#include <lua.hpp>

#include <routerkit/data_bridge.h>

struct blob_attr;
struct blob_buf;
struct json_object;

namespace rk::bridge {

// The bounds of one limited conversion, with the defaults filled in, and the
// values it has met so far (the outermost counts from the start). Each check
// that fails logs the refusal as `origin`, once: the conversion ends there.
// Trivially destructible, since a Lua error may jump over its holder.
class Bounds {
 public:
  Bounds(const RkConvertLimits *limits, const char *origin) noexcept;
  // A container opened at `level` (the outermost is 1).
  bool open(uint32_t level) noexcept;
  // `more` values met.
  bool count(uint64_t more) noexcept;
  // A Lua table opened at `level`: with *n its largest key as an array (-1
  // for an object) and `keys` its keys then. A sparse array becomes an
  // object under the object rule (*n -1); an array's elements count now.
  bool table(uint32_t level, int32_t *n, uint32_t keys) noexcept;

 private:
  const char *origin_;
  uint64_t values_ = 1;
  uint32_t maxDepth_;
  uint32_t maxValues_;
  uint32_t sparseRatio_;
  bool sparseAsObject_;
};

json_object *luaToJson(lua_State *L, int index, Bounds *bounds = nullptr) noexcept;
void luaToBlob(lua_State *L, int index, blob_buf *buf, Bounds *bounds = nullptr) noexcept;
void jsonToBlob(blob_buf *buf, json_object *obj) noexcept;
json_object *blobToJson(const blob_attr *attr) noexcept;
// `obj` may be NULL (nil).
void jsonToLua(lua_State *L, json_object *obj, Bounds *bounds = nullptr) noexcept;
// `attr` may be NULL or `len` 0 (nil).
void blobToLua(lua_State *L, const blob_attr *attr, uint32_t len, Bounds *bounds = nullptr) noexcept;

}  // namespace rk::bridge
