// rkctl uci: one option read or written (and committed) through routerkit's
// one-shot UCI accessors.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include <routerkit/uci_access.h>

#include "args.h"
#include "command.h"
#include "output.h"

namespace rkctl {
namespace {

constexpr size_t kValueSize = 4096;

struct Key {
  std::string config, section, option;
  const char *type() const { return section[0] == '@' ? section.c_str() + 1 : nullptr; }
  const char *name() const { return section[0] == '@' ? nullptr : section.c_str(); }
  std::string text() const { return config + "." + section + "." + option; }
};

// CONFIG.SECTION.OPTION, SECTION a name or @TYPE.
bool parseKey(const std::string &text, Key *key) {
  size_t a = text.find('.');
  size_t b = a == std::string::npos ? a : text.find('.', a + 1);
  if (b == std::string::npos) return false;
  key->config = text.substr(0, a);
  key->section = text.substr(a + 1, b - a - 1);
  key->option = text.substr(b + 1);
  return !key->config.empty() && !key->option.empty() && key->option.find('.') == std::string::npos &&
         !key->section.empty() && key->section != "@";
}

// Why a one-shot call failed, as far as the package file tells.
int explain(Invocation &inv, const Key &key, const char *what) {
  std::string path = key.config[0] == '/' || key.config.rfind("./", 0) == 0 ? key.config : "/etc/config/" + key.config;
  FILE *f = fopen(path.c_str(), "r");
  if (!f) return fail(inv, "%s: cannot read %s: %s", key.text().c_str(), path.c_str(), strerror(errno));
  fclose(f);
  return fail(inv, "%s: %s", key.text().c_str(), what);
}

void printOption(const Key &key, const std::string &value) {
  JsonPtr out(json_object_new_object());
  json_object_object_add(out.get(), "config", jsonString(key.config));
  json_object_object_add(out.get(), "section", jsonString(key.section));
  json_object_object_add(out.get(), "option", jsonString(key.option));
  json_object_object_add(out.get(), "value", jsonString(value));
  printJson(out.get());
}

int run(Invocation &inv) {
  if (!inv.parse({})) return kUsage;
  const std::vector<std::string> &pos = inv.positional;
  if (pos.size() != 2 || (pos[0] != "get" && pos[0] != "set")) return usageError(inv, "expected get or set and one key");
  Key key;
  std::string value;
  std::string keyText = pos[1];
  if (pos[0] == "set") {
    size_t eq = keyText.find('=');
    if (eq == std::string::npos) return usageError(inv, "set takes CONFIG.SECTION.OPTION=VALUE");
    value = keyText.substr(eq + 1);
    keyText.resize(eq);
  }
  if (!parseKey(keyText, &key))
    return usageError(inv, "'%s' is not CONFIG.SECTION.OPTION (SECTION a name or @TYPE)", keyText.c_str());

  if (pos[0] == "get") {
    std::vector<char> out(kValueSize, '\0');  // the reader never writes the last byte
    if (uciGetOptionString(key.config.c_str(), key.type(), key.name(), key.option.c_str(), out.data(),
                           static_cast<int>(out.size())) != 0)
      return explain(inv, key, "no such section or option (or a list option)");
    value = out.data();
    if (inv.json)
      printOption(key, value);
    else
      printf("%s\n", value.c_str());
    return kOk;
  }
  // The length only has to be above 0: an empty value is written as "".
  if (uciSetOptionString(key.config.c_str(), key.type(), key.name(), key.option.c_str(), value.c_str(),
                         static_cast<int>(value.size()) + 1) != 0)
    return explain(inv, key, "not written: no such section, or the package could not be committed");
  if (inv.json) printOption(key, value);
  return kOk;
}

}  // namespace

const Command kUciCommand = {
    "uci", "get CONFIG.SECTION.OPTION | set CONFIG.SECTION.OPTION=VALUE",
    "read or write (and commit) one UCI option",
    "SECTION is a section name, or @TYPE for the sections of that type: get reads the\n"
    "first of them that has the option, set writes the first that takes it. A write\n"
    "is committed before rkctl returns; the section must exist already.\n"
    "\n"
    "get prints the value. Exit 1 when the package cannot be read, or has no such\n"
    "section or option (list options count as absent).\n"
    "JSON: {\"config\", \"section\", \"option\", \"value\"}, for set as well.\n",
    run};

}  // namespace rkctl
