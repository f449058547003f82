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

// An attribute's type and payload.
struct Payload {
  uint32_t type;
  const uint8_t *data;
  size_t size;
};

// False for an attribute whose header does not fit in its length.
inline bool payloadOf(const uint8_t *attr, Payload *out) noexcept {
  uint32_t idLen = loadBe32(attr);
  size_t len = idLen & kLengthMask;
  size_t header = kIdLenSize;
  if (idLen & kExtended) {
    if (len < kNameOffset) return false;
    size_t nameLen = size_t{attr[kIdLenSize]} << 8 | attr[kIdLenSize + 1];
    header += (nameLen + kNameOffset) & ~size_t{kAlign - 1};
  }
  if (len < header) return false;
  *out = Payload{(idLen >> kTypeShift) & kTypeMask, attr + header, len - header};
  return true;
}

bool isContainer(uint32_t type) noexcept {
  return type == BLOBMSG_TYPE_ARRAY || type == BLOBMSG_TYPE_TABLE;
}

// A payload of `type`, no container, as json-c, or NULL; *noMemory set
// when json-c could not make the value it had the bytes for.
json_object *scalarOf(uint32_t type, const uint8_t *data, size_t size, bool *noMemory) noexcept {
  const auto made = [noMemory](json_object *value) noexcept {
    if (!value) *noMemory = true;
    return value;
  };
  switch (type) {
    case BLOBMSG_TYPE_STRING:
      return made(json_object_new_string_len(
          reinterpret_cast<const char *>(data), static_cast<int>(strnlen(reinterpret_cast<const char *>(data), size))));
    case BLOBMSG_TYPE_INT64:
      return size >= sizeof(uint64_t) ? made(json_object_new_int64(static_cast<int64_t>(loadBe64(data))))
                                      : nullptr;
    case BLOBMSG_TYPE_INT32:
      return size >= sizeof(uint32_t) ? made(json_object_new_int(static_cast<int32_t>(loadBe32(data))))
                                      : nullptr;
    case BLOBMSG_TYPE_INT16:
      return size >= sizeof(uint16_t) ? made(json_object_new_int(data[0] << 8 | data[1])) : nullptr;
    case BLOBMSG_TYPE_BOOL:
      return size >= sizeof(uint8_t) ? made(json_object_new_boolean(data[0] != 0)) : nullptr;
    case BLOBMSG_TYPE_DOUBLE: {
      if (size < sizeof(double)) return nullptr;
      uint64_t bits = loadBe64(data);
      double d;
      memcpy(&d, &bits, sizeof d);
      return made(json_object_new_double(d));
    }
    default:
      return nullptr;
  }
}

// Opens a new container for the payload `a` on the stack: false, with
// *container NULL, when memory ran out (for the stack or json-c).
bool openContainer(ReadStack &stack, const Payload &a, json_object **container) noexcept {
  const bool table = a.type == BLOBMSG_TYPE_TABLE;
  *container = table ? json_object_new_object() : json_object_new_array();
  if (!*container) return false;
  ReadFrame *frame = stack.push();
  if (!frame) {
    json_object_put(*container);
    *container = nullptr;
    return false;
  }
  *frame = ReadFrame{*container, a.data, a.size, nullptr, 0, table};
  return true;
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

// Adds `value`, `height` levels tall, to `table` under `key`. A later child
// of the same name replaces a member, which json-c releases by its own
// recursion unless taken out first: the members are at most `tallest`
// levels tall. The stack's top is the table's level. False when json-c had
// no memory for it; `value` is released then.
bool addMember(ReadStack &stack, json_object *table, const char *key, json_object *value,
               uint32_t height, uint32_t tallest) noexcept {
  json_object *replaced = nullptr;
  if (tallest > kPutLevels && json_object_object_get_ex(table, key, &replaced)) json_object_get(replaced);
  if (json_object_object_add(table, key, value) != 0) {
    json_object_put(replaced);
    releaseAt(stack, stack.depth(), value, height);
    return false;
  }
  if (replaced) releaseAt(stack, stack.depth(), replaced, tallest);
  return true;
}

// Releases the containers open on the stack, each with the frames from its
// own level up, which held its tree while it was read: NULL.
json_object *releaseOpen(ReadStack &stack) noexcept {
  for (uint32_t i = stack.depth(); i-- > 0;) {
    uint32_t count;
    ReadFrame *spare = stack.spareFrom(i, &count);
    releaseTree(spare->node, spare, count);
  }
  return nullptr;
}

// Fills the container opened on the empty stack, whose children lie
// `depth` + 1 levels down, and returns it with its height; NULL, with
// everything released, when memory ran out or `bounds` (if any, with the
// container at level 1) refused a child. Children are read in the order of
// the recursion this replaces, those of one container in a loop of their own
// until one is a container.
json_object *readTree(ReadStack &stack, uint32_t depth, uint32_t *height, Bounds *bounds) noexcept {
  for (;;) {
    ReadFrame &f = stack.top();
    json_object *node = f.node;
    const bool table = f.table;
    const uint32_t tallest = f.height;
    const uint8_t *p = f.p;
    size_t rem = f.rem;
    const uint32_t childDepth = depth + stack.depth();
    json_object *opened = nullptr;
    // A child is taken only while it lies inside what remains.
    while (rem >= kIdLenSize) {
      const uint32_t pad = paddedLen(p);
      if (pad < kIdLenSize || pad > rem) break;
      if (bounds && !bounds->count(1)) return releaseOpen(stack);
      const uint8_t *child = p;
      p += pad;
      rem -= pad;
      const char *key = nullptr;
      if (table && !(key = memberName(child))) continue;
      Payload a;
      json_object *value = nullptr;
      bool noMemory = false;
      if (payloadOf(child, &a)) {
        if (!isContainer(a.type)) {
          value = scalarOf(a.type, a.data, a.size, &noMemory);
          if (noMemory) return releaseOpen(stack);
        } else if (childDepth <= RK_BLOB_MAX_DEPTH) {
          if (bounds && !bounds->open(stack.depth() + 1)) return releaseOpen(stack);
          f.p = p;
          f.rem = rem;
          f.key = key;
          if (!openContainer(stack, a, &value)) return releaseOpen(stack);
          opened = value;
          break;
        }
      }
      // A scalar, or NULL: json-c releases it alone, if need be.
      if (table && tallest > kPutLevels) {
        if (!addMember(stack, node, key, value, 0, tallest)) return releaseOpen(stack);
      } else if ((table ? json_object_object_add(node, key, value) : json_object_array_add(node, value)) != 0) {
        json_object_put(value);
        return releaseOpen(stack);
      }
    }
    if (opened) continue;
    *height = tallest + 1;
    stack.pop();
    if (stack.empty()) return node;
    ReadFrame &parent = stack.top();
    if (!parent.table) {
      if (json_object_array_add(parent.node, node) != 0) {
        releaseAt(stack, stack.depth(), node, *height);
        return releaseOpen(stack);
      }
    } else if (!addMember(stack, parent.node, parent.key, node, *height, parent.height)) {
      return releaseOpen(stack);
    }
    if (*height > parent.height) parent.height = *height;
  }
}

}  // namespace

json_object *blobToJson(const blob_attr *attr) noexcept {
  Payload a;
  if (!payloadOf(reinterpret_cast<const uint8_t *>(attr), &a)) return nullptr;
  bool noMemory = false;
  if (!isContainer(a.type)) return scalarOf(a.type, a.data, a.size, &noMemory);
  ReadStack stack;
  json_object *value = nullptr;
  uint32_t height;
  if (openContainer(stack, a, &value)) value = readTree(stack, kOuterLevel, &height, nullptr);
  stack.release();
  return value;
}

void blobToLua(lua_State *L, const blob_attr *attr, uint32_t len, Bounds *bounds) noexcept {
  ReadStack stack;
  json_object *object = nullptr;
  uint32_t height = 0;
  // The run is read as the children of a table above the outer level.
  const Payload run{BLOBMSG_TYPE_TABLE, reinterpret_cast<const uint8_t *>(attr), len};
  if (attr && len && openContainer(stack, run, &object))
    object = readTree(stack, kOuterLevel - 1, &height, bounds);
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

int blob_to_lua_limited(lua_State *L, blob_attr *attr, uint32_t len, const RkConvertLimits *limits) {
  if (!L) return -1;
  rk::bridge::Bounds bounds(limits, __func__);
  rk::bridge::blobToLua(L, attr, len, &bounds);
  return 0;
}

}  // extern "C"
