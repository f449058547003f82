// rkctl lua: hosts a script with routerkit's script host, gives it an
// object of library services, calls one of its functions and prints what
// the function returned.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <memory>
#include <string>

#include <lua.hpp>
#include <routerkit/config.h>
#include <routerkit/log.h>
#include <routerkit/lua_helper.h>
#include <routerkit/uci_access.h>

#include "args.h"
#include "command.h"
#include "log_level.h"
#include "output.h"

namespace rkctl {
namespace {

constexpr size_t kUciValueSize = 1024;
constexpr size_t kFileValueSize = 128;

// The string member `key` of `request`, or null.
const char *str(json_object *request, const char *key) {
  json_object *v = nullptr;
  if (!request || !json_object_object_get_ex(request, key, &v) || !json_object_is_type(v, json_type_string))
    return nullptr;
  return json_object_get_string(v);
}

// ---- the object "rk" that scripts get ----

// rk:log{level = "info", message = "..."} -> {sent = true|false}
int serveLog(json_object *request, json_object *response) {
  const char *name = str(request, "level"), *message = str(request, "message");
  const LogLevel *level = name ? findLogLevel(name) : nullptr;
  bool sent = false;
  if (level && message) {
    level->emit("%s", message);
    sent = log_isLevelEnabled(passingLevel(*level)) == 1;
  }
  json_object_object_add(response, "sent", json_object_new_boolean(sent));
  return 0;
}

// rk:tick() -> {tick = milliseconds of the monotonic clock}
int serveTick(json_object *, json_object *response) {
  json_object_object_add(response, "tick", json_object_new_int64(static_cast<int64_t>(GetTickCount())));
  return 0;
}

// rk:uci_get{config=, type=, name=, option=} -> {value = "..."}, {} when absent
int serveUciGet(json_object *request, json_object *response) {
  char value[kUciValueSize] = "";
  const char *config = str(request, "config"), *option = str(request, "option");
  if (config && option &&
      uciGetOptionString(config, str(request, "type"), str(request, "name"), option, value, sizeof value) == 0)
    json_object_object_add(response, "value", json_object_new_string(value));
  return 0;
}

// rk:uci_set{config=, type=, name=, option=, value=} -> {ok = true|false}
int serveUciSet(json_object *request, json_object *response) {
  const char *config = str(request, "config"), *option = str(request, "option"), *value = str(request, "value");
  bool ok = config && option && value &&
            uciSetOptionString(config, str(request, "type"), str(request, "name"), option, value,
                               static_cast<int>(strlen(value)) + 1) == 0;
  json_object_object_add(response, "ok", json_object_new_boolean(ok));
  return 0;
}

// rk:file_value{path=, key=} -> {length = n, value = "..."}; length -1 when unreadable
int serveFileValue(json_object *request, json_object *response) {
  char value[kFileValueSize] = "";
  const char *path = str(request, "path"), *key = str(request, "key");
  int n = path && key ? getValueFromFile(path, key, value, sizeof value) : -1;
  json_object_object_add(response, "length", json_object_new_int(n));
  if (n >= 0 && (n > 0 || value[0] == '\0')) json_object_object_add(response, "value", json_object_new_string(value));
  return 0;
}

const LuaHelperFunction kServices[] = {{"log", serveLog},
                                       {"tick", serveTick},
                                       {"uci_get", serveUciGet},
                                       {"uci_set", serveUciSet},
                                       {"file_value", serveFileValue},
                                       {nullptr, nullptr}};

// ---- calling the script's function ----

// The script host drops what a function returns, so the call goes through
// this function of our own, which hands the result back to rkctl.
const char kCaller[] = R"(
function __rkctl_call(req)
  local f = _G
  for seg in string.gmatch(req.path, "[^.]+") do
    if type(f) ~= "table" then f = nil break end
    f = f[seg]
  end
  if type(f) ~= "function" then return __rkctl:finish({status = "missing"}) end
  local ok, value = pcall(f, req.arg)
  if not ok then value = tostring(value) end
  __rkctl:finish({status = ok and "ok" or "error", value = value})
end
)";

json_object *finished = nullptr;  // what __rkctl:finish got, one reference

int finish(json_object *request, json_object *) {
  if (request && !finished) finished = json_object_get(request);
  return 0;
}

const LuaHelperFunction kCallerObject[] = {{"finish", finish}, {nullptr, nullptr}};

struct LuaHelperDeleter {
  void operator()(LuaHelper *h) const { luaHelperDestroy(h); }
};
using LuaHelperPtr = std::unique_ptr<LuaHelper, LuaHelperDeleter>;

// The script host logs a file it cannot load to syslog only; the reason is
// worth telling the user.
std::string loadError(const std::string &path) {
  lua_State *L = luaL_newstate();
  if (!L) return "out of memory";
  std::string why = luaL_loadfile(L, path.c_str()) != 0 ? lua_tostring(L, -1) : "its main chunk raised an error";
  lua_close(L);
  return why;
}

void printValue(const Invocation &inv, json_object *value) {
  if (inv.json)
    printJson(value);
  else if (json_object_is_type(value, json_type_string))
    printf("%s\n", json_object_get_string(value));
  else if (value)
    printJson(value);
}

int run(Invocation &inv) {
  if (!inv.parse({})) return kUsage;
  const std::vector<std::string> &pos = inv.positional;
  if (pos.size() < 2 || pos.size() > 3) return usageError(inv, "expected SCRIPT FUNCTION [JSON]");
  const std::string &script = pos[0], &function = pos[1];
  JsonPtr arg;
  if (pos.size() == 3) {
    json_tokener_error err = json_tokener_success;
    arg.reset(json_tokener_parse_verbose(pos[2].c_str(), &err));
    if (err != json_tokener_success)
      return usageError(inv, "the argument is no JSON: %s", json_tokener_error_desc(err));
  }
  FILE *f = fopen(script.c_str(), "r");
  if (!f) return fail(inv, "cannot read %s: %s", script.c_str(), strerror(errno));
  fclose(f);

  LuaHelperPtr helper(CreateLuaHelper(script.c_str()));
  if (!helper) return fail(inv, "cannot load %s: %s", script.c_str(), loadError(script).c_str());
  if (luaHelperRegister(helper.get(), "rk", kServices) != 0 ||
      luaHelperRegister(helper.get(), "__rkctl", kCallerObject) != 0 ||
      luaL_loadbuffer(helper->state, kCaller, sizeof kCaller - 1, "=rkctl") != 0 ||
      lua_pcall(helper->state, 0, 0, 0) != 0)
    return fail(inv, "cannot set the script host up");

  JsonPtr request(json_object_new_object());
  json_object_object_add(request.get(), "path", jsonString(function));
  json_object_object_add(request.get(), "arg", json_object_get(arg.get()));
  luaHelperCall(helper.get(), "__rkctl_call", request.get());
  JsonPtr result(finished);
  finished = nullptr;
  helper.reset();

  json_object *value = nullptr;
  const char *status = str(result.get(), "status");
  json_object_object_get_ex(result.get(), "value", &value);
  if (!status) return fail(inv, "%s: looking the function up raised an error", function.c_str());
  if (strcmp(status, "missing") == 0) return fail(inv, "%s has no function %s", script.c_str(), function.c_str());
  if (strcmp(status, "error") == 0)
    return fail(inv, "%s raised an error: %s", function.c_str(), value ? json_object_get_string(value) : "?");
  printValue(inv, value);
  return kOk;
}

}  // namespace

const Command kLuaCommand = {
    "lua", "SCRIPT FUNCTION [JSON]",
    "call a function of a Lua script and print its result",
    "Loads SCRIPT with routerkit's script host (its main chunk runs), gives it the\n"
    "global object rk, calls FUNCTION (a dotted path: a global function, or\n"
    "table.function) with JSON as its one argument (nil without it) and prints the\n"
    "first value it returns: a string as it is, anything else as JSON, nil as\n"
    "nothing (null with --json). Values cross as JSON both ways.\n"
    "\n"
    "The object rk, called as rk:method{...}:\n"
    "  rk:log{level = \"info\", message = \"...\"}      -> {sent = true|false}\n"
    "  rk:tick()                                   -> {tick = ms}\n"
    "  rk:uci_get{config =, type =, name =, option =}  -> {value = ...} or {}\n"
    "  rk:uci_set{config =, type =, name =, option =, value =} -> {ok = ...}\n"
    "  rk:file_value{path =, key =}                -> {length = n, value = ...}\n"
    "(type or name may be left out, not both.) rk does not exist yet while the\n"
    "main chunk runs.\n"
    "\n"
    "Exit 1 when the script cannot be read or loaded, has no such function, or\n"
    "the function raises an error (its message goes to standard error); 2 when\n"
    "JSON does not parse.\n",
    run};

}  // namespace rkctl
