// Fuzz entry for the JSON writer and the blob reader together: JSON text ->
// json_to_blob -> blob_to_json must give the same document, apart from what
// blobmsg cannot carry (nulls vanish, strings end at a NUL, integers beyond
// 64 bits are clamped by json-c on both sides alike).
#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "common/deps.h"

#include <routerkit/data_bridge.h>

namespace {

bool same(json_object *a, json_object *b) {
  json_type t = json_object_get_type(a);
  if (t != json_object_get_type(b)) return false;
  switch (t) {
    case json_type_boolean: return json_object_get_boolean(a) == json_object_get_boolean(b);
    case json_type_int: return json_object_get_int64(a) == json_object_get_int64(b);
    case json_type_string: return strcmp(json_object_get_string(a), json_object_get_string(b)) == 0;
    case json_type_double: {
      double x = json_object_get_double(a), y = json_object_get_double(b);
      return memcmp(&x, &y, sizeof x) == 0;
    }
    case json_type_object: {
      size_t present = 0;  // a null member is not written
      json_object_object_foreach(a, key, value) {
        json_object *other;
        if (!value) continue;
        if (!json_object_object_get_ex(b, key, &other) || !same(value, other)) return false;
        present++;
      }
      return present == (size_t)json_object_object_length(b);
    }
    case json_type_array: {
      size_t j = 0, n = json_object_array_length(b);
      for (size_t i = 0; i < json_object_array_length(a); ++i) {
        json_object *e = json_object_array_get_idx(a, i);
        if (!e) continue;  // a null element is not written
        if (j >= n || !same(e, json_object_array_get_idx(b, j++))) return false;
      }
      return j == n;
    }
    default: return true;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  json_tokener *tok = json_tokener_new();
  json_object *doc = json_tokener_parse_ex(tok, (const char *)data, (int)size);
  json_tokener_free(tok);
  if (!doc) return 0;
  blob_buf buf{};
  blob_buf_init(&buf, 0);
  json_to_blob(&buf, doc);
  json_object *back = blob_to_json((blob_attr *)blob_data(buf.head));
  bool ok;
  if (json_object_get_type(doc) == json_type_object) {
    // The members stand at the top level: read them as a run.
    json_object *members = json_object_new_object();
    size_t rem = blob_len(buf.head);
    blob_attr *a;
    __blob_for_each_attr(a, (blob_attr *)blob_data(buf.head), rem)
        json_object_object_add(members, blobmsg_name(a), blob_to_json(a));
    ok = same(doc, members);
    json_object_put(members);
  } else {
    ok = json_object_get_type(doc) == json_type_null || same(doc, back);
  }
  json_object_put(back);
  json_object_put(doc);
  blob_buf_free(&buf);
  if (!ok) abort();
  return 0;
}
