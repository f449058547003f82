// Typed reading and writing of UCI options on a package the caller holds
// open. Nothing here loads, saves or commits: every change stays in the
// caller's context, and the result is the only report (no logging).
#include <routerkit/uci_access.h>

#include <stdio.h>
#include <string.h>

#include <array>

#include <uci.h>

#include "config/uci_convert.h"

namespace rk::config {
namespace {

// Text of a number written by the numeric setters; zeroed before each use.
constexpr size_t kNumberTextSize = 32;
using NumberText = std::array<char, kNumberTextSize>;

// The text of `name` in `section`, or NULL when it isn't readable: missing,
// a list, or a string option without a value.
const char *readableOption(uci_context *ctx, uci_section *section, const char *name) noexcept {
  uci_element *e = nullptr;
  if (uci_lookup_next(ctx, &e, &section->options, name) != 0 || e == nullptr) return nullptr;
  uci_option *o = uci_to_option(e);
  if (o->type != UCI_TYPE_STRING || o->v.string == nullptr) return nullptr;
  return o->v.string;
}

// The section named `name` in `package`, or NULL.
uci_section *sectionByName(uci_context *ctx, uci_package *package, const char *name) noexcept {
  uci_element *e = nullptr;
  if (uci_lookup_next(ctx, &e, &package->sections, name) != 0 || e == nullptr) return nullptr;
  return uci_to_section(e);
}

// libuci resolves whatever the record names; every field we don't fill
// (target, flags, o, last ...) must read as 0 so that it does the lookup
// itself, hence the record is zeroed whole, padding included.
uci_ptr zeroedPtr() noexcept {
  uci_ptr ptr;
  memset(&ptr, 0, sizeof ptr);
  return ptr;
}

int setOption(uci_context *ctx, uci_package *package, uci_section *section, const char *option,
              const char *value) noexcept {
  if (!ctx || !package || !section || !option || !value) return -1;
  uci_ptr ptr = zeroedPtr();
  ptr.p = package;
  ptr.s = section;
  ptr.option = option;
  ptr.value = value;
  return uci_set(ctx, &ptr) == 0 ? 0 : -1;
}

template <typename... Args>
int setNumber(uci_context *ctx, uci_package *package, uci_section *section, const char *option,
              const char *format, Args... value) noexcept {
  NumberText text{};
  snprintf(text.data(), text.size(), format, value...);
  return setOption(ctx, package, section, option, text.data());
}

// The string contract: strncpy with one less than `size`, so the last byte
// is the caller's and a text that fills the count has no terminator.
void copyText(char *out, int size, const char *text) noexcept {
  strncpy(out, text, size > 1 ? static_cast<size_t>(size - 1) : 0);
}

int getText(uci_context *ctx, uci_section *section, const char *option, char *out,
            int size) noexcept {
  if (!ctx || !section || !option || !out || size <= 0) return -1;
  const char *text = readableOption(ctx, section, option);
  if (text == nullptr) return -1;
  copyText(out, size, text);
  return 0;
}

// One sscanf conversion of the option's text; see scanNumber.
template <typename Raw, typename T>
int getNumber(uci_context *ctx, uci_section *section, const char *option, T *out,
              const char *format) noexcept {
  if (!ctx || !section || !option || !out) return -1;
  const char *text = readableOption(ctx, section, option);
  if (text == nullptr) return -1;
  return scanNumber<Raw>(text, format, out);
}

// Only ever writes 1: callers preset `out` and rely on "false" (or any text
// that isn't true) leaving their default in place.
int getBoolean(uci_context *ctx, uci_section *section, const char *option, uint8_t *out) noexcept {
  if (!ctx || !section || !option || !out) return -1;
  const char *text = readableOption(ctx, section, option);
  if (text == nullptr) return -1;
  if (isTrue(text)) *out = 1;
  return 0;
}

int setBoolean(uci_context *ctx, uci_package *package, uci_section *section, const char *option,
               int value) noexcept {
  return setOption(ctx, package, section, option, value != 0 ? kTrueText : kFalseText);
}

int rollback(uci_context *ctx, uci_package **packageRef, uci_section *section) noexcept {
  if (!ctx || !packageRef || !*packageRef) return -1;
  uci_ptr ptr = zeroedPtr();
  ptr.p = *packageRef;
  ptr.s = section;
  // uci_revert frees the package and loads it again; only the record knows
  // the new one, or that there is none when loading it again failed.
  const int rc = uci_revert(ctx, &ptr) == 0 ? 0 : -1;
  *packageRef = ptr.p;
  return rc;
}

// uci_add_list and uci_del_list take everything by name: with `p` unset
// libuci finds (or loads) the package called `packageName` itself.
int listCall(int (*call)(uci_context *, uci_ptr *), uci_context *ctx, const char *packageName,
             const char *sectionName, const char *option, const char *value) noexcept {
  if (!ctx || !packageName || !sectionName || !option || !value) return -1;
  uci_ptr ptr = zeroedPtr();
  ptr.package = packageName;
  ptr.section = sectionName;
  ptr.option = option;
  ptr.value = value;
  return call(ctx, &ptr);
}

int deleteSection(uci_context *ctx, uci_package *package, const char *packageName,
                  const char *sectionName) noexcept {
  if (!ctx || !package || !packageName || !sectionName) return -1;
  uci_ptr ptr = zeroedPtr();
  ptr.p = package;
  ptr.package = packageName;
  ptr.section = sectionName;
  return uci_delete(ctx, &ptr) == 0 ? 0 : -1;
}

int setByName(uci_context *ctx, uci_package *package, const char *sectionName, const char *option,
              const char *value) noexcept {
  if (!ctx || !package || !sectionName || !option || !value) return -1;
  uci_ptr ptr = zeroedPtr();
  ptr.p = package;
  ptr.section = sectionName;
  ptr.option = option;
  ptr.value = value;
  return uci_set(ctx, &ptr) == 0 ? 0 : -1;
}

// Section-name family: the text of `option` in the section called
// `sectionName`, with 2 for a NULL argument and 3 for anything missing.
int namedSectionText(uci_context *ctx, uci_package *package, const char *sectionName,
                     const char *option, const char **text) noexcept {
  uci_section *section = sectionByName(ctx, package, sectionName);
  if (section == nullptr) return UCI_ERR_NOTFOUND;
  *text = readableOption(ctx, section, option);
  return *text == nullptr ? UCI_ERR_NOTFOUND : 0;
}

int getSectionText(uci_context *ctx, uci_package *package, const char *sectionName,
                   const char *option, char *out, int size) noexcept {
  if (!ctx || !package || !sectionName || !option || !out) return UCI_ERR_INVAL;
  const char *text = nullptr;
  int rc = namedSectionText(ctx, package, sectionName, option, &text);
  if (rc != 0) return rc;
  // `size` below 1 is the caller's error; it copies nothing rather than
  // letting the count wrap around.
  copyText(out, size, text);
  return 0;
}

int setSectionText(uci_context *ctx, uci_package *package, const char *sectionName,
                   const char *option, const char *value) noexcept {
  if (!ctx || !package || !sectionName || !option || !value) return UCI_ERR_INVAL;
  uci_section *section = sectionByName(ctx, package, sectionName);
  if (section == nullptr) return UCI_ERR_NOTFOUND;
  // Finding the section is the success; a failing set isn't reported here
  // (callers that need that use uciSetString).
  (void)setOption(ctx, package, section, option, value);
  return 0;
}

int getSectionValue(uci_context *ctx, uci_package *package, const char *sectionName,
                    const char *option, int *out) noexcept {
  if (!ctx || !package || !sectionName || !option || !out) return UCI_ERR_INVAL;
  const char *text = nullptr;
  int rc = namedSectionText(ctx, package, sectionName, option, &text);
  if (rc != 0) return rc;
  // A text that isn't a number leaves `out` as it was and still counts as
  // found: sscanf writes only what it converts.
  (void)sscanf(text, "%d", out);
  return 0;
}

}  // namespace
}  // namespace rk::config

extern "C" {

int uciGetString(uci_context *ctx, uci_section *section, const char *option, char *out, int size) {
  return rk::config::getText(ctx, section, option, out, size);
}

int uciSetString(uci_context *ctx, uci_package *package, uci_section *section, const char *option,
                 const char *value) {
  return rk::config::setOption(ctx, package, section, option, value);
}

int setString(uci_context *ctx, uci_package *package, const char *sectionName, const char *option,
              const char *value) {
  return rk::config::setByName(ctx, package, sectionName, option, value);
}

int uciGetUint8(uci_context *ctx, uci_section *section, const char *option, uint8_t *out) {
  // The store keeps bytes as signed numbers (see uciSetUint8); "%hhd" keeps
  // the low 8 bits of whatever number the text holds.
  return rk::config::getNumber<signed char>(ctx, section, option, out, "%hhd");
}

int uciSetUint8(uci_context *ctx, uci_package *package, uci_section *section, const char *option,
                uint8_t value) {
  // Signed on purpose: the store has always held bytes from 128 up as
  // negative numbers, and uciGetUint8 reads them back to the same byte.
  return rk::config::setNumber(ctx, package, section, option, "%hhd", static_cast<int>(value));
}

int uciGetUint32(uci_context *ctx, uci_section *section, const char *option, uint32_t *out) {
  return rk::config::getNumber<unsigned>(ctx, section, option, out, "%u");
}

int uciSetUint32(uci_context *ctx, uci_package *package, uci_section *section, const char *option,
                 uint32_t value) {
  return rk::config::setNumber(ctx, package, section, option, "%u", static_cast<unsigned>(value));
}

int uciGetInt32(uci_context *ctx, uci_section *section, const char *option, int *out) {
  return rk::config::getNumber<int>(ctx, section, option, out, "%d");
}

int uciSetInt32(uci_context *ctx, uci_package *package, uci_section *section, const char *option,
                int value) {
  return rk::config::setNumber(ctx, package, section, option, "%d", value);
}

int uciGetBoolean(uci_context *ctx, uci_section *section, const char *option, uint8_t *out) {
  return rk::config::getBoolean(ctx, section, option, out);
}

int uciSetBoolean(uci_context *ctx, uci_package *package, uci_section *section, const char *option,
                  int value) {
  return rk::config::setBoolean(ctx, package, section, option, value);
}

int uciGetEnabled(uci_context *ctx, uci_section *section, uint8_t *out) {
  return rk::config::getBoolean(ctx, section, "enabled", out);
}

int uciSetEnabled(uci_context *ctx, uci_package *package, uci_section *section, int value) {
  return rk::config::setBoolean(ctx, package, section, "enabled", value);
}

int uciGetID(uci_context *ctx, uci_section *section, uint32_t *out) {
  return rk::config::getNumber<unsigned>(ctx, section, "ID", out, "%u");
}

int uciSetID(uci_context *ctx, uci_package *package, uci_section *section, uint32_t value) {
  return uciSetUint32(ctx, package, section, "ID", value);
}

int uciRollback(uci_context *ctx, uci_package **packageRef, uci_section *section) {
  return rk::config::rollback(ctx, packageRef, section);
}

int publicUciAddList(uci_context *ctx, const char *packageName, const char *sectionName,
                     const char *option, const char *value) {
  return rk::config::listCall(uci_add_list, ctx, packageName, sectionName, option, value);
}

int publicUciDelList(uci_context *ctx, const char *packageName, const char *sectionName,
                     const char *option, const char *value) {
  return rk::config::listCall(uci_del_list, ctx, packageName, sectionName, option, value);
}

int publicUciDelSection(uci_context *ctx, uci_package *package, const char *packageName,
                        const char *sectionName) {
  return rk::config::deleteSection(ctx, package, packageName, sectionName);
}

int uciGetSectionOptionString(uci_context *ctx, uci_package *package, const char *sectionName,
                              const char *option, char *out, int size) {
  return rk::config::getSectionText(ctx, package, sectionName, option, out, size);
}

int uciSetSectionOptionString(uci_context *ctx, uci_package *package, const char *sectionName,
                              const char *option, const char *value) {
  return rk::config::setSectionText(ctx, package, sectionName, option, value);
}

int uciGetSectionOptionValue(uci_context *ctx, uci_package *package, const char *sectionName,
                             const char *option, int *out) {
  return rk::config::getSectionValue(ctx, package, sectionName, option, out);
}

}  // extern "C"
