/*
 * routerkit: a Lua script hosted inside a daemon.
 *
 * CreateLuaHelper loads a script file and runs its main chunk. The daemon
 * then registers tables of native functions, each seen by the script as one
 * global object, and calls the script's functions by dotted name. Every
 * value crossing the border goes through JSON (see data_bridge.h).
 *
 * A script calls a native function as a method, obj:name(arg) or
 * obj.name(obj, arg). Only the first argument after the object is passed
 * on, as `request` (NULL when there is none or it has no JSON form); the
 * callback fills `response`, an empty object made for the call (when no
 * memory is left for it the call raises "not enough memory" instead), and
 * the script receives it as a table. Both are only lent to the callback, whose
 * own result is not read. The row is found by the name Lua reports for the
 * running call, so a method reached under another name (local f = obj.get;
 * f(obj)) or from native code (pcall(obj.get, obj)) fails with
 * "incorrect argument type to avg[0]"; reading a name that has no row is an
 * error, not nil. A method run with no object at all raises
 * "incorrect argument to avg", with one that is not a userdata
 * "incorrect argument to avg[0]". A userdata that is not an object of this
 * library (told apart by its metatable) is refused with
 * "incorrect argument type to avg[0]" and never read.
 *
 * No timeout, no thread: a helper and its state belong to one thread at a
 * time. Errors go to syslog through log_error.
 */
#ifndef ROUTERKIT_LUA_HELPER_H
#define ROUTERKIT_LUA_HELPER_H

#ifndef RK_API
#define RK_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

struct lua_State;
struct json_object;

typedef struct LuaHelper {
  struct lua_State *state; /* owned by the helper */
} LuaHelper;

/* The result, if any, is not read. */
typedef int (*LuaHelperCallback)(struct json_object *request, struct json_object *response);

/* One row of a table of native functions; a row with a NULL name ends the
 * table, which is read only during luaHelperRegister. */
typedef struct LuaHelperFunction {
  const char *name;
  LuaHelperCallback callback;
} LuaHelperFunction;

/*
 * Loads the script at `path` and runs its main chunk. NULL when the record or
 * the state cannot be made (nothing logged), when the file cannot be loaded
 * ("[...]error load <path>", out of memory too) or when its main chunk raises
 * an error ("[...]error call <path>", out of memory too).
 */
RK_API LuaHelper *CreateLuaHelper(const char *path);

/* Closes the state, which frees every registered object. NULL is ignored. */
RK_API void luaHelperDestroy(LuaHelper *helper);

/*
 * Makes the global object `name` (replacing one of that name) with a copy of
 * the rows of `functions`. 0, also when copying a name failed ("[...]error
 * strdup(<name>)"; the rows from there on are missing); -1 for a NULL
 * argument or when the object cannot be made, a Lua error raised meanwhile
 * (memory running out) included. The Lua stack is left as it was.
 */
RK_API int luaHelperRegister(LuaHelper *helper, const char *name,
                             const LuaHelperFunction *functions);

/*
 * Calls the script function at the dotted `path` ("handler.on_event": the
 * global table handler, its function on_event) with `arg` (which stays the
 * caller's) as its one argument, and drops its results. Segments are at most
 * 63 characters: a longer one is cut there and ends the path.
 *
 * 0 when the function was found and called, also when it raised an error.
 * -1 for a NULL helper or path, and, logged as "[...]Lua handler provides no
 * <path>() callback.", when a segment before the last is not a table, the
 * last is not a function, the path has more segments than the Lua stack has
 * room for, or a Lua error is raised while the path is looked up or the
 * argument converted (an __index metamethod that raises, memory running
 * out). The Lua stack is empty afterwards. Not for use from inside a
 * LuaHelperCallback.
 */
RK_API int luaHelperCall(LuaHelper *helper, const char *path, struct json_object *arg);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_LUA_HELPER_H */
