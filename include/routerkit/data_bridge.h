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
 * The *_limited twins of the conversions out of Lua and back into it are
 * for values the daemon did not make itself (a script's result, a message
 * from the bus): they refuse a value beyond the bounds of an RkConvertLimits
 * with their twin's failure result and one log line, and otherwise give
 * exactly what the twin gives.
 *
 * No plain function here logs, and none lets a Lua error reach its caller:
 * a Lua error raised inside a conversion (the Lua state running out of
 * memory) ends it with NULL, with nothing written, or with nil pushed, and
 * whatever was built is released. Only a failure to grow the caller's own Lua stack
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

/* What a limited conversion does with a sparse array (RkConvertLimits). */
#define RK_SPARSE_REFUSE 0    /* refuses the whole value */
#define RK_SPARSE_AS_OBJECT 1 /* writes the table as an object, its keys as text */

/* Added to sparseRatio times a table's keys: the largest key it may have
 * as an array, so that a short array with holes is never sparse. */
#define RK_SPARSE_SLACK 16

/* The bounds a NULL RkConvertLimits, or a field of 0, stands for. */
#define RK_LIMIT_DEPTH 64
#define RK_LIMIT_VALUES 100000
#define RK_LIMIT_SPARSE_RATIO 2

/*
 * Bounds of a limited conversion. In each field 0 takes the default (the
 * RK_LIMIT_* and RK_SPARSE_REFUSE), so a zeroed record is the defaults;
 * UINT32_MAX lifts a bound.
 */
typedef struct RkConvertLimits {
  /* Levels of containers (tables, arrays, objects), the outermost value
   * being level 1 (a scalar is none); a deeper one refuses the value. */
  uint32_t maxDepth;
  /* Values in all, the outermost included: every element of an array
   * (holes of a Lua array too, up to its largest key) and every member of
   * an object (also one whose key a conversion skips); more refuse it. */
  uint32_t maxValues;
  /* Out of Lua: a table whose keys are all whole numbers from 1 up is an
   * array only while its largest key is at most sparseRatio times its
   * number of keys, plus RK_SPARSE_SLACK; beyond, it is sparse. */
  uint32_t sparseRatio;
  /* RK_SPARSE_REFUSE or RK_SPARSE_AS_OBJECT; any other value refuses. */
  uint32_t sparseRule;
} RkConvertLimits;

/*
 * The twins of lua_to_json, lua_to_blob, json_to_lua and blob_to_lua, with
 * `limits` (NULL: the defaults). A value within them converts exactly as
 * the twin converts it, but for a sparse array under RK_SPARSE_AS_OBJECT,
 * which becomes an object as a table with other keys would. A value beyond
 * them is refused, with whatever was built of it released, and the refusal
 * logged in one warning line, "[<entry>:<line>]refused: ...": deeper than
 * N levels, more than N values, or sparse array, largest index I,
 * elements K. Its result is the twin's failure: NULL from
 * lua_to_json_limited; nothing written and 0 from lua_to_blob_limited; nil
 * pushed by json_to_lua_limited, and by blob_to_lua_limited with 0. An
 * array out of Lua is weighed before any of its elements is made, so
 * {[2147483647] = true} is refused at once. Sparse arrays are a matter of
 * Lua tables only; the levels of blob_to_lua_limited start with the table
 * of the run. The plain twins keep the bounds documented with them and no
 * others.
 */
RK_API struct json_object *lua_to_json_limited(struct lua_State *L, int index,
                                               const RkConvertLimits *limits);
RK_API int lua_to_blob_limited(struct lua_State *L, int index, struct blob_buf *buf,
                               const RkConvertLimits *limits);
RK_API void json_to_lua_limited(struct lua_State *L, struct json_object *obj,
                                const RkConvertLimits *limits);
RK_API int blob_to_lua_limited(struct lua_State *L, struct blob_attr *attr, uint32_t len,
                               const RkConvertLimits *limits);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_DATA_BRIDGE_H */
