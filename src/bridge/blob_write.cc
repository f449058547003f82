// Lua values and json-c objects appended to a blob_buf as blobmsg
// attributes. Payloads are handed to blobmsg_add_field in wire order
// (big-endian), since it copies bytes and swaps nothing.
#include <routerkit/data_bridge.h>

#include <endian.h>
#include <stdlib.h>
#include <string.h>

#include <type_traits>

#include <json-c/json.h>

#include "bridge/bridge.h"
#include "bridge/lua_protect.h"
#include "bridge/lua_walk.h"
#include "bridge/work_stack.h"
#include "common/deps.h"

namespace rk::bridge {
namespace {

// Each adder is false when the buffer could not grow for the attribute.
bool addInt32(blob_buf *buf, const char *name, int32_t value) noexcept {
  uint32_t wire = htobe32(static_cast<uint32_t>(value));
  return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &wire, sizeof wire) == 0;
}

bool addInt64(blob_buf *buf, const char *name, int64_t value) noexcept {
  uint64_t wire = htobe64(static_cast<uint64_t>(value));
  return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &wire, sizeof wire) == 0;
}

bool addDouble(blob_buf *buf, const char *name, double value) noexcept {
  uint64_t wire;
  memcpy(&wire, &value, sizeof wire);
  wire = htobe64(wire);
  return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &wire, sizeof wire) == 0;
}

bool addBool(blob_buf *buf, const char *name, bool value) noexcept {
  uint8_t byte = value ? 1 : 0;
  return blobmsg_add_field(buf, BLOBMSG_TYPE_BOOL, name, &byte, sizeof byte) == 0;
}

bool addString(blob_buf *buf, const char *name, const char *text) noexcept {
  return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, text,
                           static_cast<unsigned int>(strlen(text) + 1)) == 0;
}

// Where a writer started in the buffer, so that a conversion that cannot end
// leaves nothing written: the level it started on, with its length as it
// was. The head is kept as an offset, since the buffer may move while it
// grows.
struct BlobMark {
  size_t headAt;
  uint32_t headWord;
};

BlobMark markOf(const blob_buf *buf) noexcept {
  BlobMark mark{static_cast<size_t>(reinterpret_cast<char *>(buf->head) - static_cast<char *>(buf->buf)), 0};
  memcpy(&mark.headWord, buf->head, sizeof mark.headWord);
  return mark;
}

void rollBack(blob_buf *buf, const BlobMark &mark) noexcept {
  buf->head = reinterpret_cast<blob_attr *>(static_cast<char *>(buf->buf) + mark.headAt);
  memcpy(buf->head, &mark.headWord, sizeof mark.headWord);
}

// A Lua table being written: the nest it opened (none for an object
// without a name), and for an array the wrapper of the element in hand.
struct LuaBlobFrame {
  void *nest;
  void *wrapper;
  int index;  // of the table, absolute
  int32_t n;  // an array's length, or -1 for an object
  int32_t i;  // an array's elements begun
};

struct BlobConversion {
  VisitedTableSet *set = nullptr;
  blob_buf *buf = nullptr;
  WorkStack<LuaBlobFrame> stack;
  Bounds *bounds = nullptr;  // none for the plain conversion
  bool failed = false;       // no memory (work stack or buffer), or the bounds refused
};
static_assert(std::is_trivially_destructible_v<BlobConversion>,
              "a Lua error may jump over the frame that holds it");

// The Lua writers run under runProtected and are not noexcept (see
// docs/internals.md, "Lua: errors are jumps").

// Appends the value at `index`, of `type`, not a table, under `name`
// (NULL: none); false when the buffer could not grow for it.
bool scalarToBlob(lua_State *L, int index, int type, const char *name, blob_buf *buf) {
  switch (type) {
    case LUA_TBOOLEAN:
      return addBool(buf, name, lua_toboolean(L, index));
    case LUA_TNUMBER: {
      lua_Number n = lua_tonumber(L, index);
      int32_t i;
      if (luaNumberInt32(L, index, n, &i)) return addInt32(buf, name, i);
      return addDouble(buf, name, n);
    }
    case LUA_TSTRING:
      return addString(buf, name, lua_tostring(L, index));
    default:
      return true;
  }
}

// Opens the table at the absolute `index` on the work stack, with its nest
// opened under `name` and the Lua stack made ready for its walk; false when
// it writes nothing: met before, no room on the Lua stack, no memory or a
// refusal of the bounds (conv->failed then).
bool openTable(lua_State *L, int index, BlobConversion *conv, const char *name) {
  if (visited_table_check(&conv->set, lua_topointer(L, index))) return false;
  uint32_t keys;
  int32_t n = lua_table_array_length(L, index, &keys);
  if (conv->bounds && !conv->bounds->table(conv->stack.depth() + 1, &n, keys)) {
    conv->failed = true;
    return false;
  }
  if (!lua_checkstack(L, n >= 0 ? kArrayWalkSlots : kObjectWalkSlots)) return false;
  // Without a name an object's members land at the level the writer stands on.
  void *nest = nullptr;
  if (n >= 0 || name) {
    nest = blobmsg_open_nested(conv->buf, name, n >= 0);
    if (!nest) {
      conv->failed = true;
      return false;
    }
  }
  LuaBlobFrame *frame = conv->stack.push();
  if (!frame) {
    conv->failed = true;
    return false;
  }
  *frame = LuaBlobFrame{nest, nullptr, index, n, 0};
  if (n < 0) lua_pushnil(L);
  return true;
}

// Writes the elements of the array on top of the work stack from its next
// one on, each in an unnamed table of its own, until one is a table: true
// when that was opened on the stack (its wrapper stays open), false at the
// end or when memory ran out (conv->failed).
bool walkArray(lua_State *L, BlobConversion *conv) {
  const LuaBlobFrame &f = conv->stack.top();
  blob_buf *buf = conv->buf;
  const int table = f.index;
  const int32_t n = f.n;
  for (int32_t i = f.i; i < n; ++i) {
    void *wrapper = blobmsg_open_nested(buf, nullptr, false);
    if (!wrapper) {
      conv->failed = true;
      return false;
    }
    lua_rawgeti(L, table, i + 1);
    const int type = lua_type(L, -1);
    if (type == LUA_TTABLE) {
      LuaBlobFrame &top = conv->stack.top();
      top.i = i + 1;
      top.wrapper = wrapper;
      if (openTable(L, lua_gettop(L), conv, nullptr)) return true;
      if (conv->failed) return false;
    } else if (!scalarToBlob(L, -1, type, nullptr, buf)) {
      conv->failed = true;
      return false;
    }
    lua_settop(L, -2);
    blob_nest_end(buf, wrapper);
  }
  return false;
}

// The same for the members of the object on top of the work stack.
bool walkObject(lua_State *L, BlobConversion *conv) {
  const int table = conv->stack.top().index;
  while (lua_next(L, table)) {
    if (conv->bounds && !conv->bounds->count(1)) {
      conv->failed = true;
      return false;
    }
    lua_pushvalue(L, -2);
    const char *key = lua_tolstring(L, -1, nullptr);
    if (key) {
      const int type = lua_type(L, -2);
      if (type == LUA_TTABLE) {
        if (openTable(L, lua_gettop(L) - 1, conv, key)) return true;
        if (conv->failed) return false;
      } else if (!scalarToBlob(L, -2, type, key, conv->buf)) {
        conv->failed = true;
        return false;
      }
    }
    lua_settop(L, -3);
  }
  return false;
}

// Appends the value at `index` under `name` (NULL: none); always 0. The
// tables in it are walked with the work stack, in the order of the
// recursion this replaces, and with the same Lua stack on each level. Stack
// unchanged.
int lua_to_blob_value(lua_State *L, int index, BlobConversion *conv, const char *name) {
  if (index < 0) index += lua_gettop(L) + 1;
  const int type = lua_type(L, index);
  if (type != LUA_TTABLE) {
    if (!scalarToBlob(L, index, type, name, conv->buf)) conv->failed = true;
    return 0;
  }
  if (!openTable(L, index, conv, name)) return 0;
  for (;;) {
    if (conv->stack.top().n >= 0 ? walkArray(L, conv) : walkObject(L, conv)) continue;
    if (conv->failed) return 0;
    void *nest = conv->stack.top().nest;
    if (nest) blob_nest_end(conv->buf, nest);
    conv->stack.pop();
    if (conv->stack.empty()) return 0;
    // What the table's walk pushed for it, and the wrapper of an element.
    const LuaBlobFrame &f = conv->stack.top();
    if (f.n >= 0) {
      lua_settop(L, -2);
      blob_nest_end(conv->buf, f.wrapper);
    } else {
      lua_settop(L, -3);
    }
  }
}

void toBlobBody(lua_State *L, void *ud) {
  lua_to_blob_value(L, 1, static_cast<BlobConversion *>(ud), nullptr);
}

// A json-c container being written: the nest it opened (none for the
// object at the top) and where its walk stands.
struct JsonBlobFrame {
  const array_list *elements;  // an array's, NULL for an object
  lh_entry *next;              // an object's next member
  size_t i;                    // an array's next element
  void *nest;
};

// Opens the container `obj` on the work stack, with its nest opened under
// `name`; false, with *failed, when memory ran out (the buffer or the work
// stack could not grow).
bool openContainer(WorkStack<JsonBlobFrame> &stack, blob_buf *buf, const char *name,
                   json_object *obj, json_type type, bool *failed) noexcept {
  const bool array = type == json_type_array;
  void *nest = blobmsg_open_nested(buf, name, array);
  if (!nest) {
    *failed = true;
    return false;
  }
  JsonBlobFrame *frame = stack.push();
  if (!frame) {
    *failed = true;
    return false;
  }
  if (array)
    *frame = JsonBlobFrame{json_object_get_array(obj), nullptr, 0, nest};
  else
    *frame = JsonBlobFrame{nullptr, lh_table_head(json_object_get_object(obj)), 0, nest};
  return true;
}

// Appends `obj`, of `type`, which is no container; false when the buffer
// could not grow for it.
bool scalarToBlob(blob_buf *buf, const char *name, json_object *obj, json_type type) noexcept {
  switch (type) {
    case json_type_boolean:
      return addBool(buf, name, json_object_get_boolean(obj));
    case json_type_double:
      return addDouble(buf, name, json_object_get_double(obj));
    case json_type_int: {
      int64_t v = json_object_get_int64(obj);
      if (v >= INT32_MIN && v <= INT32_MAX) return addInt32(buf, name, static_cast<int32_t>(v));
      return addInt64(buf, name, v);
    }
    case json_type_string:
      return addString(buf, name, json_object_get_string(obj));
    default:  // null
      return true;
  }
}

// Appends the members or elements of the container on top of the work
// stack from its next one on, until one is a container: true when that was
// opened on the stack, false at the end; *failed when memory ran out.
bool walkContainer(WorkStack<JsonBlobFrame> &stack, blob_buf *buf, bool *failed) noexcept {
  JsonBlobFrame &f = stack.top();
  if (const array_list *elements = f.elements) {
    for (size_t i = f.i; i < elements->length; ++i) {
      auto *child = static_cast<json_object *>(elements->array[i]);
      const json_type type = json_object_get_type(child);
      if (!isContainer(type)) {
        if (scalarToBlob(buf, nullptr, child, type)) continue;
        *failed = true;
        return false;
      }
      f.i = i + 1;
      if (openContainer(stack, buf, nullptr, child, type, failed)) return true;
      if (*failed) return false;
    }
    return false;
  }
  for (lh_entry *entry = f.next; entry; entry = lh_entry_next(entry)) {
    const auto *key = static_cast<const char *>(lh_entry_k(entry));
    auto *child = static_cast<json_object *>(lh_entry_v(entry));
    const json_type type = json_object_get_type(child);
    if (!isContainer(type)) {
      if (scalarToBlob(buf, key, child, type)) continue;
      *failed = true;
      return false;
    }
    f.next = lh_entry_next(entry);
    if (openContainer(stack, buf, key, child, type, failed)) return true;
    if (*failed) return false;
  }
  return false;
}

// Appends the containers on the work stack, the top one opened by the
// caller, until the stack is empty: each member and element in the order of
// the recursion this replaces. False when memory ran out.
bool json_to_blob_value(WorkStack<JsonBlobFrame> &stack, blob_buf *buf) noexcept {
  bool failed = false;
  while (!stack.empty()) {
    if (walkContainer(stack, buf, &failed)) continue;
    if (failed) return false;
    void *nest = stack.top().nest;
    if (nest) blob_nest_end(buf, nest);
    stack.pop();
  }
  return true;
}

}  // namespace

void luaToBlob(lua_State *L, int index, blob_buf *buf, Bounds *bounds) noexcept {
  // Not brace-initialised: that would clear the inline frames.
  BlobConversion conv;
  conv.set = visited_table_create();
  if (!conv.set) return;
  conv.buf = buf;
  conv.bounds = bounds;
  const BlobMark mark = markOf(buf);
  const int ran = runProtected(L, index, toBlobBody, &conv, 0);
  if (ran == 0 || (ran == 1 && conv.failed)) rollBack(buf, mark);
  conv.stack.release();
  free(conv.set);
}

void jsonToBlob(blob_buf *buf, json_object *obj) noexcept {
  const json_type type = json_object_get_type(obj);
  if (!isContainer(type)) {
    scalarToBlob(buf, nullptr, obj, type);
    return;
  }
  WorkStack<JsonBlobFrame> stack;
  const BlobMark mark = markOf(buf);
  bool failed = false;
  // An object at the top has no attribute of its own: its members go
  // straight into the buffer. The first frame is always inline.
  if (type == json_type_object)
    *stack.push() = JsonBlobFrame{nullptr, lh_table_head(json_object_get_object(obj)), 0, nullptr};
  else
    openContainer(stack, buf, nullptr, obj, type, &failed);
  if (failed || !json_to_blob_value(stack, buf)) rollBack(buf, mark);
  stack.release();
}

}  // namespace rk::bridge

extern "C" {

int lua_to_blob(lua_State *L, int index, blob_buf *buf) {
  if (!L || !buf || !buf->head) return 0;
  index = rk::bridge::stackIndex(L, index);
  if (index) rk::bridge::luaToBlob(L, index, buf);
  return 0;
}

int lua_to_blob_limited(lua_State *L, int index, blob_buf *buf, const RkConvertLimits *limits) {
  if (!L || !buf || !buf->head) return 0;
  index = rk::bridge::stackIndex(L, index);
  rk::bridge::Bounds bounds(limits, __func__);
  if (index) rk::bridge::luaToBlob(L, index, buf, &bounds);
  return 0;
}

void json_to_blob(blob_buf *buf, json_object *obj) {
  if (!buf || !obj) return;
  rk::bridge::jsonToBlob(buf, obj);
}

}  // extern "C"
