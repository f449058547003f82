// The library's own messages, "[function:line]text", through one of the
// leveled log functions (see docs/internals.md). RK_LOG names the function it
// is written in; RK_LOG_AS names `origin` instead, for the messages whose
// documented origin is another function. The line is the macro's own.
#pragma once

#include <routerkit/log.h>

#define RK_LOG_AS(level, origin, fmt, ...) \
  log_##level("[%s:%d]" fmt, origin, __LINE__, ##__VA_ARGS__)
#define RK_LOG(level, fmt, ...) RK_LOG_AS(level, __func__, fmt, ##__VA_ARGS__)
