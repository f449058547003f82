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

namespace rk {
namespace {

// The family's one message; no line end, as daemons have always seen it.
constexpr char kAllocFailed[] = "error uci_alloc_context";

// Working buffers of the typed readers. Each hands one byte less than its
// buffer to uciGetOptionString, whose copy leaves one more byte alone, so the
// text is always terminated and at most size - 2 characters are converted.
constexpr size_t kUint32Text = 32;
constexpr size_t kInt32Text = 16;
constexpr size_t kUint64Text = 24;
constexpr size_t kUint16Text = 32;
constexpr size_t kUint8Text = 16;
constexpr size_t kBooleanText = 16;
// Holds "%d" of any 32-bit value with its terminator.
constexpr size_t kInt32Format = 16;

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
  bool has_sections() const noexcept {
    return package_ != nullptr && !uci_list_empty(&package_->sections);
  }

 private:
  uci_context *ctx_ = nullptr;
  uci_package *package_ = nullptr;
};

bool valid_selector(const char *config, const char *sectionType, const char *sectionName,
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
uci_section *section_at(uci_package *package, size_t index) noexcept {
  if (package == nullptr) return nullptr;
  uci_element *e;
  uci_foreach_element(&package->sections, e) {
    if (index-- == 0) return uci_to_section(e);
  }
  return nullptr;
}

int get_text(const char *config, const char *sectionType, const char *sectionName,
             const char *option, char *out, int size) noexcept {
  if (!valid_selector(config, sectionType, sectionName, option) || !out || size <= 0) return -1;
  OneShotPackage uci;
  if (!uci.open(config) || !uci.has_sections()) return -1;
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
// so the section handed to the revert is looked up again by its position.
int commit_or_revert(OneShotPackage &uci, size_t index) noexcept {
  uci_package *&package = uci.package();
  if (uci_commit(uci.ctx(), &package, false) == 0) return 0;
  uci_section *section = section_at(package, index);
  if (section != nullptr) (void)uciRollback(uci.ctx(), &package, section);
  return -1;
}

int set_text(const char *config, const char *sectionType, const char *sectionName,
             const char *option, const char *value, int valueLen) noexcept {
  if (!valid_selector(config, sectionType, sectionName, option) || !value || valueLen <= 0)
    return -1;
  OneShotPackage uci;
  if (!uci.open(config) || !uci.has_sections()) return -1;
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
      return commit_or_revert(uci, index);
    ++index;
  }
  return -1;
}

// Text of the option into a zeroed buffer of N bytes, of which N - 1 are
// offered to the reader. Conversion happens after the context is gone.
template <size_t N>
bool fetch(const char *config, const char *sectionType, const char *sectionName,
           const char *option, std::array<char, N> &text) noexcept {
  text.fill(0);
  return get_text(config, sectionType, sectionName, option, text.data(),
                  static_cast<int>(N - 1)) == 0;
}

template <typename T>
bool reader_args_ok(const char *config, const char *sectionType, const char *sectionName,
                    const char *option, const T *out) noexcept {
  return valid_selector(config, sectionType, sectionName, option) && out != nullptr;
}

// One sscanf conversion of at most N - 2 leading characters; see scan_number.
template <size_t N, typename Raw, typename T>
int get_number(const char *config, const char *sectionType, const char *sectionName, const char *option,
               T *out, const char *format, bool lenient = false) noexcept {
  if (!reader_args_ok(config, sectionType, sectionName, option, out)) return -1;
  std::array<char, N> text;
  if (!fetch(config, sectionType, sectionName, option, text)) return -1;
  return scan_number<Raw>(text.data(), format, out, lenient);
}

// Unlike uciGetBoolean this stores 0 for every text that isn't true.
int get_boolean(const char *config, const char *sectionType, const char *sectionName,
                const char *option, uint8_t *out) noexcept {
  if (!reader_args_ok(config, sectionType, sectionName, option, out)) return -1;
  std::array<char, kBooleanText> text;
  if (!fetch(config, sectionType, sectionName, option, text)) return -1;
  *out = is_true(text.data()) ? 1 : 0;
  return 0;
}

int set_int32(const char *config, const char *sectionType, const char *sectionName,
              const char *option, int value) noexcept {
  std::array<char, kInt32Format> text{};
  int len = snprintf(text.data(), text.size(), "%d", value);
  return set_text(config, sectionType, sectionName, option, text.data(), len);
}

int set_boolean(const char *config, const char *sectionType, const char *sectionName,
                const char *option, uint8_t value) noexcept {
  // Only the flag's own byte counts, whatever the caller had above it.
  if ((value & 0xffu) != 0) return set_text(config, sectionType, sectionName, option, "true", 4);
  return set_text(config, sectionType, sectionName, option, "false", 5);
}

}  // namespace
}  // namespace rk

extern "C" {

int uciGetOptionString(const char *config, const char *sectionType, const char *sectionName,
                       const char *option, char *out, int size) {
  return rk::get_text(config, sectionType, sectionName, option, out, size);
}

int uciSetOptionString(const char *config, const char *sectionType, const char *sectionName,
                       const char *option, const char *value, int valueLen) {
  return rk::set_text(config, sectionType, sectionName, option, value, valueLen);
}

int uciSetOptionInt32(const char *config, const char *sectionType, const char *sectionName,
                      const char *option, int value) {
  return rk::set_int32(config, sectionType, sectionName, option, value);
}

int uciSetOptionBoolean(const char *config, const char *sectionType, const char *sectionName,
                        const char *option, uint8_t value) {
  return rk::set_boolean(config, sectionType, sectionName, option, value);
}

int uciSetOptionEnabled(const char *config, const char *sectionType, const char *sectionName,
                        uint8_t value) {
  return rk::set_boolean(config, sectionType, sectionName, "enabled", value);
}

int uciGetOptionUint32(const char *config, const char *sectionType, const char *sectionName,
                       const char *option, uint32_t *out) {
  return rk::get_number<rk::kUint32Text, unsigned>(config, sectionType, sectionName, option, out, "%u");
}

int uciGetOptionInt32(const char *config, const char *sectionType, const char *sectionName,
                      const char *option, int *out) {
  // Int32 and Uint64 report success for any readable text; a caller that
  // must tell a non-number presets `out`, which then stays as it was.
  return rk::get_number<rk::kInt32Text, int>(config, sectionType, sectionName, option, out, "%d", true);
}

int uciGetOptionUint64(const char *config, const char *sectionType, const char *sectionName,
                       const char *option, uint64_t *out) {
  return rk::get_number<rk::kUint64Text, unsigned long long>(config, sectionType, sectionName, option, out,
                                                              "%llu", true);
}

int uciGetOptionUint16(const char *config, const char *sectionType, const char *sectionName,
                       const char *option, uint16_t *out) {
  return rk::get_number<rk::kUint16Text, unsigned short>(config, sectionType, sectionName, option, out, "%hu");
}

int uciGetOptionUint8(const char *config, const char *sectionType, const char *sectionName,
                      const char *option, uint8_t *out) {
  // Signed like uciGetUint8: bytes from 128 up are stored as negative numbers.
  return rk::get_number<rk::kUint8Text, signed char>(config, sectionType, sectionName, option, out, "%hhd");
}

int uciGetOptionBoolean(const char *config, const char *sectionType, const char *sectionName,
                        const char *option, uint8_t *out) {
  return rk::get_boolean(config, sectionType, sectionName, option, out);
}

int uciGetOptionEnabled(const char *config, const char *sectionType, const char *sectionName,
                        uint8_t *out) {
  return rk::get_boolean(config, sectionType, sectionName, "enabled", out);
}

}  // extern "C"
