// The way back from blobmsg: attributes to json-c objects, and a run of
// attributes to one Lua table through JSON.
//
// Attributes may come from outside, so every read stays inside the bytes
// the attribute (and, for a child, its parent) claims.
#include <routerkit/data_bridge.h>

#include <endian.h>
#include <string.h>

#include <json-c/json.h>

#include "bridge/bridge.h"
#include "bridge/work_stack.h"
#include "common/deps.h"

namespace rk::bridge {
namespace {

// The attribute header: a big-endian word with the extended flag, the type
// and the length; with the flag, a big-endian name length and the name from
// kNameOffset on. Attributes are padded to kAlign bytes.
constexpr size_t kIdLenSize = 4;
constexpr size_t kNameOffset = 6;
constexpr size_t kAlign = 4;
constexpr uint32_t kExtended = 0x80000000u;
constexpr uint32_t kLengthMask = 0x00ffffffu;
constexpr int kTypeShift = 24;
constexpr uint32_t kTypeMask = 0x7f;

// The level of the attributes a reader is handed.
constexpr uint32_t kOuterLevel = 1;

uint32_t loadBe32(const uint8_t *p) noexcept {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return be32toh(v);
}

uint64_t loadBe64(const uint8_t *p) noexcept {
  uint64_t v;
  memcpy(&v, p, sizeof v);
  return be64toh(v);
}

uint32_t rawLen(const uint8_t *attr) noexcept { return loadBe32(attr) & kLengthMask; }
uint32_t paddedLen(const uint8_t *attr) noexcept {
  return (rawLen(attr) + kAlign - 1) & ~uint32_t{kAlign - 1};
}

// The name of a child read as a table member: the text at kNameOffset, which
// must end inside the attribute; NULL when it does not.
const char *memberName(const uint8_t *attr) noexcept {
  uint32_t len = rawLen(attr);
  if (len <= kNameOffset) return nullptr;
  const char *name = reinterpret_cast<const char *>(attr) + kNameOffset;
  return memchr(name, '\0', len - kNameOffset) ? name : nullptr;
}

// A container being read: where its next child lies and, in a table, the
// name of the child in hand. Its object is inside no other yet.
struct ReadFrame {
  json_object *node;
  const uint8_t *p;
  size_t rem;       // bytes from p to the container's end
  const char *key;  // a table's child in hand
  uint32_t height;  // levels of containers in the tallest child so far
  bool table;
};
using ReadStack = WorkStack<ReadFrame>;

// The next child of the container on top, or NULL when the walk is over:
// a child is taken only while it lies inside what remains.
const uint8_t *nextChild(ReadFrame &f) noexcept {
  if (f.rem < kIdLenSize) return nullptr;
  uint32_t pad = paddedLen(f.p);
  if (pad < kIdLenSize || pad > f.rem) return nullptr;
  const uint8_t *child = f.p;
  f.p += pad;
  f.rem -= pad;
  return child;
}

// Opens `container`, whose children are the `rem` bytes at `p`, on the
// stack; false, with it released, when the stack could not grow.
bool openContainer(ReadStack &stack, json_object *container, const uint8_t *p, size_t rem,
                   bool table) noexcept {
  ReadFrame *frame = stack.push();
  if (!frame) {
    json_object_put(container);
    return false;
  }
  *frame = ReadFrame{container, p, rem, nullptr, 0, table};
  return true;
}

// The attribute at `attr`, `depth` levels down, as json-c: a scalar's value,
// or NULL; or a container's empty object opened on the stack (*opened) for
// the walk to fill. *failed when the stack could not grow.
json_object *readAttr(const uint8_t *attr, uint32_t depth, ReadStack &stack, bool *opened,
                      bool *failed) noexcept {
  uint32_t idLen = loadBe32(attr);
  size_t len = idLen & kLengthMask;
  size_t header = kIdLenSize;
  if (idLen & kExtended) {
    if (len < kNameOffset) return nullptr;
    size_t nameLen = size_t{attr[kIdLenSize]} << 8 | attr[kIdLenSize + 1];
    header += (nameLen + kNameOffset) & ~size_t{kAlign - 1};
  }
  if (len < header) return nullptr;
  const uint8_t *data = attr + header;
  size_t size = len - header;
  const uint32_t type = (idLen >> kTypeShift) & kTypeMask;
  switch (type) {
    case BLOBMSG_TYPE_ARRAY:
    case BLOBMSG_TYPE_TABLE: {
      if (depth > RK_BLOB_MAX_DEPTH) return nullptr;
      const bool table = type == BLOBMSG_TYPE_TABLE;
      json_object *container = table ? json_object_new_object() : json_object_new_array();
      if (!container) return nullptr;
      *opened = openContainer(stack, container, data, size, table);
      *failed = !*opened;
      return *opened ? container : nullptr;
    }
    case BLOBMSG_TYPE_STRING:
      return json_object_new_string_len(reinterpret_cast<const char *>(data),
                                        static_cast<int>(strnlen(reinterpret_cast<const char *>(data), size)));
    case BLOBMSG_TYPE_INT64:
      return size >= sizeof(uint64_t) ? json_object_new_int64(static_cast<int64_t>(loadBe64(data)))
                                      : nullptr;
    case BLOBMSG_TYPE_INT32:
      return size >= sizeof(uint32_t) ? json_object_new_int(static_cast<int32_t>(loadBe32(data)))
                                      : nullptr;
    case BLOBMSG_TYPE_INT16:
      return size >= sizeof(uint16_t) ? json_object_new_int(data[0] << 8 | data[1]) : nullptr;
    case BLOBMSG_TYPE_BOOL:
      return size >= sizeof(uint8_t) ? json_object_new_boolean(data[0] != 0) : nullptr;
    case BLOBMSG_TYPE_DOUBLE: {
      if (size < sizeof(double)) return nullptr;
      uint64_t bits = loadBe64(data);
      double d;
      memcpy(&d, &bits, sizeof d);
      return json_object_new_double(d);
    }
    default:
      return nullptr;
  }
}

// Releases a tree `height` levels tall whose root lies at level `level` of
// the stack, or would.
void releaseAt(ReadStack &stack, uint32_t level, json_object *tree, uint32_t height) noexcept {
  if (height <= kPutLevels) {
    json_object_put(tree);
    return;
  }
  uint32_t count;
  ReadFrame *spare = stack.spareFrom(level, &count);
  releaseTree(tree, spare, count);
}

// Stores `value`, a child `height` levels tall, in the container on top.
void addChild(ReadStack &stack, json_object *value, uint32_t height) noexcept {
  ReadFrame &f = stack.top();
  if (height > f.height) f.height = height;
  if (!f.table) {
    if (json_object_array_add(f.node, value) != 0) releaseAt(stack, stack.depth(), value, height);
    return;
  }
  // A later child of the same name replaces a member, which json-c releases
  // by its own recursion unless taken out first.
  json_object *replaced = nullptr;
  if (f.height > kPutLevels && json_object_object_get_ex(f.node, f.key, &replaced))
    json_object_get(replaced);
  if (json_object_object_add(f.node, f.key, value) != 0) {
    json_object_put(replaced);
    releaseAt(stack, stack.depth(), value, height);
  } else if (replaced) {
    releaseAt(stack, stack.depth(), replaced, f.height);
  }
}

// Fills the container opened on the empty stack, whose children lie
// `depth` + 1 levels down, and returns it with its height; NULL, with
// everything released, when the stack could not grow. Children are read in
// the order of the recursion this replaces.
json_object *readTree(ReadStack &stack, uint32_t depth, uint32_t *height) noexcept {
  for (;;) {
    ReadFrame &f = stack.top();
    const uint8_t *child = nextChild(f);
    if (!child) {
      json_object *done = f.node;
      *height = f.height + 1;
      stack.pop();
      if (stack.empty()) return done;
      addChild(stack, done, *height);
      continue;
    }
    if (f.table && !(f.key = memberName(child))) continue;
    bool opened = false, failed = false;
    json_object *value = readAttr(child, depth + stack.depth(), stack, &opened, &failed);
    if (opened) continue;
    if (failed) break;
    addChild(stack, value, 0);
  }
  // Each open container is released with the frames from its own level up,
  // which held its tree while it was read.
  for (uint32_t i = stack.depth(); i-- > 0;) {
    uint32_t count;
    ReadFrame *spare = stack.spareFrom(i, &count);
    releaseTree(spare->node, spare, count);
  }
  return nullptr;
}

}  // namespace

json_object *blobToJson(const blob_attr *attr) noexcept {
  ReadStack stack;
  bool opened = false, failed = false;
  json_object *value = readAttr(reinterpret_cast<const uint8_t *>(attr), kOuterLevel, stack, &opened, &failed);
  uint32_t height;
  if (opened) value = readTree(stack, kOuterLevel, &height);
  stack.release();
  return value;
}

void blobToLua(lua_State *L, const blob_attr *attr, uint32_t len) noexcept {
  ReadStack stack;
  json_object *object = attr && len ? json_object_new_object() : nullptr;
  uint32_t height = 0;
  // The run is read as the children of a table above the outer level.
  if (object)
    object = openContainer(stack, object, reinterpret_cast<const uint8_t *>(attr), len, true)
                 ? readTree(stack, kOuterLevel - 1, &height)
                 : nullptr;
  jsonToLua(L, object);
  releaseAt(stack, 0, object, height);
  stack.release();
}

}  // namespace rk::bridge

extern "C" {

json_object *blob_to_json(blob_attr *attr) {
  if (!attr) return nullptr;
  return rk::bridge::blobToJson(attr);
}

int blob_to_lua(lua_State *L, blob_attr *attr, uint32_t len) {
  if (!L) return -1;
  rk::bridge::blobToLua(L, attr, len);
  return 0;
}

}  // extern "C"
