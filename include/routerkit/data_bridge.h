/*
 * routerkit: the conversions that carry values between Lua scripts, json-c
 * objects and blobmsg messages.
 *
 * Out of Lua (lua_to_json, lua_to_blob):
 *   - A number that is a 32-bit integer becomes an integer (blobmsg INT32);
 *     any other number, whole numbers beyond 32 bits, NaN and the infinities
 *     among them, becomes a double. The Lua side writes no INT64.
 *   - A table whose keys are all whole numbers from 1 to 2147483647 is an
 *     array as long as its largest key; holes become null. An empty table is
 *     an array. Any other table is an object; its keys that are neither
 *     strings nor numbers are skipped, number keys take Lua's text form.
 *   - A table met a second time in one conversion (a cycle, or merely a
 *     second reference) becomes null, as do nil, functions, userdata and
 *     threads. Strings end at their first NUL byte.
 *   - The blob writer wraps every array element in an unnamed table
 *     attribute; an unnamed object at the top writes its members at the
 *     buffer's current level. The JSON writer uses no wrappers.
 * The Lua stack is left as it was found. A table nested deeper than the Lua
 * stack allows becomes null at the level where the stack is full.
 *
 * Back into Lua (json_to_lua, blob_to_lua) a JSON null becomes nil: a hole
 * in an array, a missing key in an object. Integers beyond 32 bits become
 * Lua numbers (doubles).
 *
 * No function here logs, and none lets a Lua error reach its caller: a Lua
 * error raised inside a conversion (the Lua state running out of memory)
 * ends it with NULL, with nothing written, or with nil pushed, and whatever
 * was built is released. Only a failure to grow the caller's own Lua stack
 * before a conversion starts can raise, as any Lua API call can.
 *
 * The C stack a conversion needs does not grow with the nesting: the levels
 * open are kept on the heap. Running out of memory for them, for json-c's
 * objects or for a growing blob buffer ends the conversion as a Lua error
 * does.
 *
 * The blob readers accept untrusted attributes within these bounds: a
 * child is read only when it lies inside its parent, a scalar only when its
 * payload holds the bytes it needs, a string or name up to its NUL or the end
 * of its attribute; a child of a table whose name runs past its end is
 * skipped. Containers nested deeper than RK_BLOB_MAX_DEPTH read as null.
 * blob_to_json trusts the length of the attribute it is given.
 */
#ifndef ROUTERKIT_DATA_BRIDGE_H
#define ROUTERKIT_DATA_BRIDGE_H

#ifndef RK_API
#define RK_API __attribute__((visibility("default")))
#endif

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The library's own types are named by their tags, so this header needs no
 * Lua, json-c or libubox header of its own. */
struct lua_State;
struct json_object;
struct blob_buf;
struct blob_attr;

/* Levels of containers the blob readers follow; deeper ones read as null. */
#define RK_BLOB_MAX_DEPTH 512

/*
 * The value at `index` (a stack index, not a pseudo-index) as a json-c
 * object holding one reference for the caller (json_object_put), or NULL for
 * a value without a JSON form, an empty index or a failure.
 */
RK_API struct json_object *lua_to_json(struct lua_State *L, int index);

/*
 * Appends the value at `index` to `buf` (initialised by the caller) at its
 * current nesting level. Always 0, also when nothing could be written.
 */
RK_API int lua_to_blob(struct lua_State *L, int index, struct blob_buf *buf);

/*
 * Appends `obj` (which stays the caller's) to `buf`: an object's members at
 * the current level, anything else as one attribute with an empty name.
 * Nothing for NULL or a JSON null.
 */
RK_API void json_to_blob(struct blob_buf *buf, struct json_object *obj);

/*
 * One attribute as a json-c object holding one reference for the caller, or
 * NULL for an attribute without a JSON form (NULL `attr` included).
 */
RK_API struct json_object *blob_to_json(struct blob_attr *attr);

/*
 * Pushes one table with a key per attribute of the run of `len` bytes at
 * `attr`, or nil for an empty run: 0. -1 for a NULL `L`, with nothing
 * pushed.
 */
RK_API int blob_to_lua(struct lua_State *L, struct blob_attr *attr, uint32_t len);

/*
 * Pushes `obj` (which stays the caller's; NULL pushes nil) as one Lua value.
 * A level nested deeper than the Lua stack allows is pushed as nil.
 */
RK_API void json_to_lua(struct lua_State *L, struct json_object *obj);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_DATA_BRIDGE_H */
