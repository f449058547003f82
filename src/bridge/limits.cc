// The bounds of the limited conversions: a record from the daemon, with the
// defaults for what it leaves at 0, and the one line each refusal logs.
#include <routerkit/data_bridge.h>

#include <stddef.h>

#include <type_traits>

#include "bridge/bridge.h"
#include "diag/logmsg.h"

static_assert(sizeof(RkConvertLimits) == 16, "four 32-bit fields");
static_assert(offsetof(RkConvertLimits, maxDepth) == 0, "maxDepth");
static_assert(offsetof(RkConvertLimits, maxValues) == 4, "maxValues");
static_assert(offsetof(RkConvertLimits, sparseRatio) == 8, "sparseRatio");
static_assert(offsetof(RkConvertLimits, sparseRule) == 12, "sparseRule");
static_assert(std::is_trivially_destructible_v<rk::bridge::Bounds>,
              "a Lua error may jump over the frame that holds it");

namespace rk::bridge {
namespace {

uint32_t orDefault(uint32_t value, uint32_t fallback) noexcept { return value ? value : fallback; }

}  // namespace

Bounds::Bounds(const RkConvertLimits *limits, const char *origin) noexcept
    : origin_(origin),
      maxDepth_(orDefault(limits ? limits->maxDepth : 0, RK_LIMIT_DEPTH)),
      maxValues_(orDefault(limits ? limits->maxValues : 0, RK_LIMIT_VALUES)),
      sparseRatio_(orDefault(limits ? limits->sparseRatio : 0, RK_LIMIT_SPARSE_RATIO)),
      sparseAsObject_(limits && limits->sparseRule == RK_SPARSE_AS_OBJECT) {}

bool Bounds::open(uint32_t level) noexcept {
  if (level <= maxDepth_) return true;
  RK_LOG_AS(warn, origin_, "refused: deeper than %u levels", maxDepth_);
  return false;
}

bool Bounds::count(uint64_t more) noexcept {
  values_ += more;
  if (values_ <= maxValues_) return true;
  RK_LOG_AS(warn, origin_, "refused: more than %u values", maxValues_);
  return false;
}

bool Bounds::table(uint32_t level, int32_t *n, uint32_t keys) noexcept {
  if (!open(level)) return false;
  if (*n > 0 && static_cast<uint64_t>(*n) > uint64_t{sparseRatio_} * keys + RK_SPARSE_SLACK) {
    if (!sparseAsObject_) {
      RK_LOG_AS(warn, origin_, "refused: sparse array, largest index %d, elements %u", *n, keys);
      return false;
    }
    *n = -1;
  }
  // An object's members count as they are met.
  return *n < 0 || count(static_cast<uint64_t>(*n));
}

}  // namespace rk::bridge
