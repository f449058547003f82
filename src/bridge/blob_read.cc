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
constexpr int kOuterLevel = 1;

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

json_object *attrToJson(const uint8_t *attr, int depth) noexcept;

// Calls `add(child)` for each child of the run of `rem` bytes at `p`, while
// the next child lies inside what remains.
template <typename Add>
void walkChildren(const uint8_t *p, size_t rem, Add add) noexcept {
  while (rem >= kIdLenSize) {
    uint32_t pad = paddedLen(p);
    if (pad < kIdLenSize || pad > rem) break;
    add(p);
    rem -= pad;
    p += pad;
  }
}

void addMembers(json_object *object, const uint8_t *p, size_t rem, int depth) noexcept {
  walkChildren(p, rem, [&](const uint8_t *child) {
    const char *key = memberName(child);
    if (!key) return;
    json_object *value = attrToJson(child, depth);
    if (json_object_object_add(object, key, value) != 0) json_object_put(value);
  });
}

json_object *attrToJson(const uint8_t *attr, int depth) noexcept {
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
  switch ((idLen >> kTypeShift) & kTypeMask) {
    case BLOBMSG_TYPE_ARRAY: {
      if (depth > RK_BLOB_MAX_DEPTH) return nullptr;
      json_object *array = json_object_new_array();
      if (!array) return nullptr;
      walkChildren(data, size, [&](const uint8_t *child) {
        json_object *value = attrToJson(child, depth + 1);
        if (json_object_array_add(array, value) != 0) json_object_put(value);
      });
      return array;
    }
    case BLOBMSG_TYPE_TABLE: {
      if (depth > RK_BLOB_MAX_DEPTH) return nullptr;
      json_object *object = json_object_new_object();
      if (object) addMembers(object, data, size, depth + 1);
      return object;
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

}  // namespace

json_object *blobToJson(const blob_attr *attr) noexcept {
  return attrToJson(reinterpret_cast<const uint8_t *>(attr), kOuterLevel);
}

void blobToLua(lua_State *L, const blob_attr *attr, uint32_t len) noexcept {
  json_object *object = attr && len ? json_object_new_object() : nullptr;
  if (object) addMembers(object, reinterpret_cast<const uint8_t *>(attr), len, kOuterLevel);
  jsonToLua(L, object);
  json_object_put(object);
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
