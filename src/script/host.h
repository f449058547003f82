// The script host behind the entries of lua_helper.h, one each, with the
// entry's arguments checked: no pointer is NULL unless said so.
#pragma once

#include <routerkit/lua_helper.h>

#include <lua.hpp>

namespace rk::script {

// `path` goes to luaL_loadfile untested.
LuaHelper *createHelper(const char *path) noexcept;
// `helper` may be NULL.
void destroyHelper(LuaHelper *helper) noexcept;
int registerTable(lua_State *L, const char *name, const LuaHelperFunction *functions) noexcept;
// `arg` may be NULL.
int callPath(lua_State *L, const char *path, json_object *arg) noexcept;

}  // namespace rk::script
