// Fuzz entry for the blob readers: arbitrary bytes as one attribute for
// blob_to_json (when the attribute's own length fits in them, the one thing
// that reader trusts) and as a run of attributes for blob_to_lua. Nothing may
// be read outside the bytes, and nothing may leak.
#include <stdint.h>
#include <string.h>

#include <json-c/json.h>
#include <lua.hpp>

#include <routerkit/data_bridge.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size >= 4) {
    uint32_t id_len;
    memcpy(&id_len, data, 4);
    if ((__builtin_bswap32(id_len) & 0x00ffffffu) <= size)
      json_object_put(blob_to_json((struct blob_attr *)data));
  }
  lua_State *L = luaL_newstate();
  blob_to_lua(L, (struct blob_attr *)data, (uint32_t)size);
  lua_close(L);
  return 0;
}
