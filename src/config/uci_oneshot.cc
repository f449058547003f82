// One-shot UCI access by package name: every call makes its own context,
// loads the package, reads or writes one option and frees everything again.
// A write is committed before the call returns. Nothing outlives a call, so
// calls from several threads share nothing here.
#include <routerkit/uci_access.h>

#include <stdio.h>
#include <string.h>

#include <array>

#include <uci.h>

#include "config/uci_convert.h"

namespace rk::config {
namespace {

// The family's one message; no line end, as daemons have always seen it.
constexpr char kAllocFailed[] = "error uci_alloc_context";

// Working buffers of the typed readers. Each hands one byte less than its
// buffer to uciGetOptionString, whose copy leaves one more byte alone, so the
// text is always terminated and at most size - 2 characters are converted.
enum ReaderTextSize : size_t {
  kUint32TextSize = 32,
  kInt32TextSize = 16,
  kUint64TextSize = 24,
  kUint16TextSize = 32,
  kUint8TextSize = 16,
  kBooleanTextSize = 16,
};
// Holds "%d" of any 32-bit value with its terminator.
constexpr size_t kInt32WrittenSize = 16;

// One context and the package loaded into it. The package variable is the
// one libuci's commit and revert replace, so the destructor unloads whatever
// it holds by then, and frees the context on every path.
class OneShotPackage {
 public:
  OneShotPackage() noexcept = default;
  OneShotPackage(const OneShotPackage &) = delete;
  OneShotPackage &operator=(const OneShotPackage &) = delete;
  ~OneShotPackage() {
    if (package_ != nullptr) uci_unload(ctx_, package_);
    if (ctx_ != nullptr) uci_free_context(ctx_);
  }

  // Context and package; false if either can't be had.
  bool open(const char *config) noexcept {
    ctx_ = uci_alloc_context();
    if (ctx_ == nullptr) {
      fwrite(kAllocFailed, 1, sizeof kAllocFailed - 1, stderr);
      return false;
    }
    return uci_load(ctx_, config, &package_) == 0;
  }

  uci_context *ctx() const noexcept { return ctx_; }
  uci_package *&package() noexcept { return package_; }
  bool hasSections() const noexcept {
    return package_ != nullptr && !uci_list_empty(&package_->sections);
  }

 private:
  uci_context *ctx_ = nullptr;
  uci_package *package_ = nullptr;
};

bool validSelector(const char *config, const char *sectionType, const char *sectionName,
                   const char *option) noexcept {
  return config != nullptr && option != nullptr &&
         (sectionType != nullptr || sectionName != nullptr);
}

bool matches(const uci_section *s, const char *sectionType, const char *sectionName) noexcept {
  if (sectionType != nullptr && (s->type == nullptr || strcmp(s->type, sectionType) != 0))
    return false;
  if (sectionName != nullptr && (s->e.name == nullptr || strcmp(s->e.name, sectionName) != 0))
    return false;
  return true;
}

// The section at `index` in list order, or NULL.
uci_section *sectionAt(uci_package *package, size_t index) noexcept {
  if (package == nullptr) return nullptr;
  uci_element *e;
  uci_foreach_element(&package->sections, e) {
    if (index-- == 0) return uci_to_section(e);
  }
  return nullptr;
}

int getText(const char *config, const char *sectionType, const char *sectionName,
            const char *option, char *out, int size) noexcept {
  if (!validSelector(config, sectionType, sectionName, option) || !out || size <= 0) return -1;
  OneShotPackage uci;
  if (!uci.open(config) || !uci.hasSections()) return -1;
  uci_element *e;
  uci_foreach_element(&uci.package()->sections, e) {
    uci_section *s = uci_to_section(e);
    if (!matches(s, sectionType, sectionName)) continue;
    // Missing here (or a list) doesn't end the search: the next matching
    // section may have it.
    if (uciGetString(uci.ctx(), s, option, out, size) == 0) return 0;
  }
  return -1;
}

// Commits the package after a set in the section at `index`. On failure the
// section's change is reverted. A commit can fail after libuci has already
// freed the package and loaded it again, leaving the section we set dangling,
// so the section handed to the revert is looked up again by its position;
// one that fails before the package is loaded again (out of memory) leaves
// none, with the change saved: the package is loaded again to revert it.
int commitOrRevert(OneShotPackage &uci, const char *config, size_t index) noexcept {
  uci_package *&package = uci.package();
  if (uci_commit(uci.ctx(), &package, false) == 0) return 0;
  if (package == nullptr && uci_load(uci.ctx(), config, &package) != 0) return -1;
  uci_section *section = sectionAt(package, index);
  if (section != nullptr) (void)uciRollback(uci.ctx(), &package, section);
  return -1;
}

int setText(const char *config, const char *sectionType, const char *sectionName,
            const char *option, const char *value, int valueLen) noexcept {
  if (!validSelector(config, sectionType, sectionName, option) || !value || valueLen <= 0)
    return -1;
  OneShotPackage uci;
  if (!uci.open(config) || !uci.hasSections()) return -1;
  uci_package *package = uci.package();
  size_t index = 0;
  uci_element *e;
  uci_foreach_element(&package->sections, e) {
    uci_section *s = uci_to_section(e);
    // The first matching section that takes the value is the only one
    // changed; the commit ends the walk, whatever it gives, because it
    // replaces the package under the loop.
    if (matches(s, sectionType, sectionName) &&
        uciSetString(uci.ctx(), package, s, option, value) == 0)
      return commitOrRevert(uci, config, index);
    ++index;
  }
  return -1;
}

// Text of the option into a zeroed buffer of N bytes, of which N - 1 are
// offered to the reader. Conversion happens after the context is gone.
template <size_t N>
bool fetch(const char *config, const char *sectionType, const char *sectionName, const char *option,
           std::array<char, N> &text) noexcept {
  text.fill(0);
  const int offered = static_cast<int>(N - 1);
  return getText(config, sectionType, sectionName, option, text.data(), offered) == 0;
}

template <typename T>
bool readerArgsOk(const char *config, const char *sectionType, const char *sectionName,
                  const char *option, const T *out) noexcept {
  return validSelector(config, sectionType, sectionName, option) && out != nullptr;
}

// One sscanf conversion of at most N - 2 leading characters; see scanNumber.
template <size_t N, typename Raw, typename T>
int getNumber(const char *config, const char *sectionType, const char *sectionName,
              const char *option, T *out, const char *format, bool lenient = false) noexcept {
  if (!readerArgsOk(config, sectionType, sectionName, option, out)) return -1;
  std::array<char, N> text;
  if (!fetch(config, sectionType, sectionName, option, text)) return -1;
  return scanNumber<Raw>(text.data(), format, out, lenient);
}

// Unlike uciGetBoolean this stores 0 for every text that isn't true.
int getBoolean(const char *config, const char *sectionType, const char *sectionName,
               const char *option, uint8_t *out) noexcept {
  if (!readerArgsOk(config, sectionType, sectionName, option, out)) return -1;
  std::array<char, kBooleanTextSize> text;
  if (!fetch(config, sectionType, sectionName, option, text)) return -1;
  *out = isTrue(text.data()) ? 1 : 0;
  return 0;
}

int setInt32(const char *config, const char *sectionType, const char *sectionName,
             const char *option, int value) noexcept {
  std::array<char, kInt32WrittenSize> text{};
  int len = snprintf(text.data(), text.size(), "%d", value);
  return setText(config, sectionType, sectionName, option, text.data(), len);
}

int setBoolean(const char *config, const char *sectionType, const char *sectionName,
               const char *option, uint8_t value) noexcept {
  const char *text = value != 0 ? kTrueText : kFalseText;
  return setText(config, sectionType, sectionName, option, text, static_cast<int>(strlen(text)));
}

}  // namespace
}  // namespace rk::config

extern "C" {

int uciGetOptionString(const char *config, const char *sectionType, const char *sectionName,
                       const char *option, char *out, int size) {
  return rk::config::getText(config, sectionType, sectionName, option, out, size);
}

int uciSetOptionString(const char *config, const char *sectionType, const char *sectionName,
                       const char *option, const char *value, int valueLen) {
  return rk::config::setText(config, sectionType, sectionName, option, value, valueLen);
}

int uciSetOptionInt32(const char *config, const char *sectionType, const char *sectionName,
                      const char *option, int value) {
  return rk::config::setInt32(config, sectionType, sectionName, option, value);
}

int uciSetOptionBoolean(const char *config, const char *sectionType, const char *sectionName,
                        const char *option, uint8_t value) {
  return rk::config::setBoolean(config, sectionType, sectionName, option, value);
}

int uciSetOptionEnabled(const char *config, const char *sectionType, const char *sectionName,
                        uint8_t value) {
  return rk::config::setBoolean(config, sectionType, sectionName, "enabled", value);
}

int uciGetOptionUint32(const char *config, const char *sectionType, const char *sectionName,
                       const char *option, uint32_t *out) {
  return rk::config::getNumber<rk::config::kUint32TextSize, unsigned>(
      config, sectionType, sectionName, option, out, "%u");
}

int uciGetOptionInt32(const char *config, const char *sectionType, const char *sectionName,
                      const char *option, int *out) {
  // Int32 and Uint64 report success for any readable text; a caller that
  // must tell a non-number presets `out`, which then stays as it was.
  return rk::config::getNumber<rk::config::kInt32TextSize, int>(config, sectionType, sectionName,
                                                                option, out, "%d", true);
}

int uciGetOptionUint64(const char *config, const char *sectionType, const char *sectionName,
                       const char *option, uint64_t *out) {
  return rk::config::getNumber<rk::config::kUint64TextSize, unsigned long long>(
      config, sectionType, sectionName, option, out, "%llu", true);
}

int uciGetOptionUint16(const char *config, const char *sectionType, const char *sectionName,
                       const char *option, uint16_t *out) {
  return rk::config::getNumber<rk::config::kUint16TextSize, unsigned short>(
      config, sectionType, sectionName, option, out, "%hu");
}

int uciGetOptionUint8(const char *config, const char *sectionType, const char *sectionName,
                      const char *option, uint8_t *out) {
  // Signed like uciGetUint8: bytes from 128 up are stored as negative numbers.
  return rk::config::getNumber<rk::config::kUint8TextSize, signed char>(
      config, sectionType, sectionName, option, out, "%hhd");
}

int uciGetOptionBoolean(const char *config, const char *sectionType, const char *sectionName,
                        const char *option, uint8_t *out) {
  return rk::config::getBoolean(config, sectionType, sectionName, option, out);
}

int uciGetOptionEnabled(const char *config, const char *sectionType, const char *sectionName,
                        uint8_t *out) {
  return rk::config::getBoolean(config, sectionType, sectionName, "enabled", out);
}

}  // extern "C"
