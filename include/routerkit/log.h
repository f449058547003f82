/*
 * routerkit: logging, the monotonic tick, the executable's own name, shell
 * and firewall commands, CPU usage.
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

/*
 * Shell and firewall commands. Each call blocks the calling thread until the
 * shell ends; there is no time limit. The child inherits everything: no
 * descriptor is closed and no signal disposition changes, so descriptors
 * without close-on-exec reach the command.
 *
 * LC_SystemCall formats the command (cut to 2047 characters) and runs it as
 * "/bin/sh -c <command>". The result is the raw wait status, not the exit
 * code: exit code 3 gives 768, a command killed by signal 9 gives 9, a shell
 * that cannot be run gives 32512 (exit code 127). -1 for a NULL format (nothing
 * runs), when the child cannot be made (logged) or when waiting fails for a
 * reason other than an interrupting signal (an interrupted wait is resumed).
 *
 * iptables and ip6tables run "/usr/sbin/iptables -w <rule>" and
 * "/usr/sbin/ip6tables -w <rule>", the whole command cut to 1023 characters
 * (a rule of up to 1001 resp. 1000 characters runs whole). The formatted rule
 * reaches the shell as it stands: a '%' in it is not read as a directive a
 * second time. -1 for a NULL format, else as LC_SystemCall.
 *
 * close_all_fd closes every descriptor of the process above 2, those of
 * other threads included. If /proc/<pid>/fd/ cannot be listed it logs and
 * closes nothing.
 */
RK_API int LC_SystemCall(const char *fmt, ...) RK_PRINTF(1, 2);
RK_API int iptables(const char *fmt, ...) RK_PRINTF(1, 2);
RK_API int ip6tables(const char *fmt, ...) RK_PRINTF(1, 2);
RK_API void close_all_fd(void);

/*
 * CPU usage between two samples. The record holds the counters of the first
 * line of /proc/stat as of the previous call, in clock ticks; the caller owns
 * it and zero-fills it for a defined first sample (the first value is then
 * the busy share since boot).
 */
typedef struct CpuTimes {
  uint64_t user;
  uint64_t nice;
  uint64_t system;
  uint64_t idle;
  uint64_t iowait;
  uint64_t irq;
  uint64_t softirq;
} CpuTimes;

/*
 * Per mille of the time since the previous sample that was not idle (iowait
 * counts as busy), truncated: normally 0 to 1000. Stores the new counters in
 * `times`, which must not be NULL. 0 when no tick passed, and 0 with `times`
 * unchanged when /proc/stat cannot be opened. One record belongs to one
 * thread at a time.
 */
RK_API uint16_t getCPUUsageValue(CpuTimes *times);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_LOG_H */
