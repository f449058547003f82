/*
 * routerkit: logging, the monotonic tick and the executable's own name.
 *
 * The leveled family (log_debug ... log_fatal) goes to syslog (facility
 * LOCAL0), filtered by a process-wide level: 4 at start, so fatal, error,
 * warn and info pass. A message below the level costs one comparison. The
 * file family appends "[YYYY-MM-DD hh:mm:ss] pid[(tid)] message" to a text
 * file, opened and closed per message and guarded by flock; a file that has
 * grown past 1 MiB starts over with the next message. Nothing here adds a
 * newline.
 *
 * There is no start-up call. The first call that needs it (a leveled message
 * that passes the level, log_setLevel, log_printf_to_flash) sets logging up:
 * the name comes from the executable, "/etc/<name>.debug" raises the level
 * to 6 and adds a copy of each syslog message on stderr, and the process's
 * log file is "/tmp/log/<name>.log". A name given with log_setName before
 * that keeps the set-up from ever running.
 *
 * The level, name and file path are process-wide and unguarded: set them
 * before starting threads.
 */
#ifndef ROUTERKIT_LOG_H
#define ROUTERKIT_LOG_H

#ifndef RK_API
#define RK_API __attribute__((visibility("default")))
#endif

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define RK_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define RK_PRINTF(f, a)
#endif

/* Always 0, also for a NULL format and for a message below the level. */
RK_API int log_debug(const char *fmt, ...) RK_PRINTF(1, 2);
RK_API int log_trace(const char *fmt, ...) RK_PRINTF(1, 2);
RK_API int log_info(const char *fmt, ...) RK_PRINTF(1, 2);
RK_API int log_warn(const char *fmt, ...) RK_PRINTF(1, 2);
RK_API int log_error(const char *fmt, ...) RK_PRINTF(1, 2);
/* Logs only; the process goes on. */
RK_API int log_fatal(const char *fmt, ...) RK_PRINTF(1, 2);

/* 1 when the stored level is at or above `level`, else 0. Sets nothing up. */
RK_API int log_isLevelEnabled(uint32_t level);
/* Sets logging up if needed, then stores any value; always 0. */
RK_API int log_setLevel(uint32_t level);
/*
 * Stores at most 63 bytes of `name` (the syslog ident); -1 for NULL. Nothing
 * else: an empty name makes the next call set logging up again.
 */
RK_API int log_setName(const char *name);

/*
 * Append one message to `path` (not filtered by the level). Failures go to
 * stderr only. The format must not be NULL here.
 */
RK_API void logfile_vprintf(const char *path, const char *fmt, va_list ap) RK_PRINTF(2, 0);
RK_API void logfile_printf(const char *path, const char *fmt, ...) RK_PRINTF(2, 3);
/* Append one message to the process's own log file under /tmp/log. */
RK_API void log_printf_to_flash(const char *fmt, ...) RK_PRINTF(1, 2);

/* Milliseconds of the monotonic clock. */
RK_API uint64_t GetTickCount(void);

/*
 * Splits the running executable's path. Both buffers must be zero-filled by
 * the caller, with sizes one less than their capacity: nothing here writes a
 * terminator except the one that ends the directory. Returns the length of
 * the directory including its final '/', or -1.
 */
RK_API int64_t get_executable_path(char *dir, uint64_t dirSize, char *name, uint64_t nameSize);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_LOG_H */
