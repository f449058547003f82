// The library's own messages: "[function:line]" in front of the text, where
// the function is the one that logs and the line is the line of the call.
#pragma once

#include <routerkit/log.h>

#define RK_LOG_ERROR(fmt, ...) log_error("[%s:%d]" fmt, __func__, __LINE__, ##__VA_ARGS__)
#define RK_LOG_INFO(fmt, ...) log_info("[%s:%d]" fmt, __func__, __LINE__, ##__VA_ARGS__)
