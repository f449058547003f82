/* uloop: a single-threaded event loop over descriptors and timers.
 *
 * Records are owned by the caller and embedded in the caller's own objects;
 * the loop never allocates on the caller's behalf. A handler gets the embedded
 * record back and reaches its owner with container_of. */
#ifndef LIBUBOX_ULOOP_H
#define LIBUBOX_ULOOP_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>

#include "list.h"

#ifdef __cplusplus
extern "C" {
#endif

struct uloop_fd;
struct uloop_timeout;

/* events carries only ULOOP_READ and/or ULOOP_WRITE (possibly none, see
 * ULOOP_ERROR_CB and the error field). */
typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_EDGE_TRIGGER (1 << 2)
/* Leave the descriptor's O_NONBLOCK alone on first registration. */
#define ULOOP_BLOCKING (1 << 3)
#define ULOOP_EVENT_MASK (ULOOP_READ | ULOOP_WRITE)
/* Internal: events of this record are queued for delivery. */
#define ULOOP_EVENT_BUFFERED (1 << 4)
/* On error or hang-up keep the registration and let the handler decide. */
#define ULOOP_ERROR_CB (1 << 6)

struct uloop_fd {
	uloop_fd_handler cb;
	int fd;
	bool eof;        /* the peer shut down its sending side */
	bool error;      /* the kernel reported an error or a hang-up */
	bool registered; /* the loop watches fd */
	uint8_t flags;   /* flags of the last successful uloop_fd_add */
};

/* Initialise as all-zero plus cb. */
struct uloop_timeout {
	struct list_head list;
	bool pending;
	uloop_timeout_handler cb;
	struct timeval time; /* absolute expiry on the monotonic clock */
};

/* Set by uloop_end() and by SIGINT/SIGTERM; cleared when a run starts. */
extern bool uloop_cancelled;

int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);
int uloop_fd_delete(struct uloop_fd *sock);

int uloop_timeout_add(struct uloop_timeout *timeout);
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs);
int uloop_timeout_cancel(struct uloop_timeout *timeout);
/* Milliseconds left (clamped to int), -1 when not pending. */
int uloop_timeout_remaining(struct uloop_timeout *timeout);
/* Milliseconds left, -1 when not pending. */
int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout);

int uloop_init(void);
/* timeout < 0: run until uloop_end() or a terminating signal; returns 0 or
 * that signal's number. timeout >= 0: one iteration waiting at most that
 * many milliseconds. */
int uloop_run_timeout(int timeout);
void uloop_done(void);

static inline int uloop_run(void)
{
	return uloop_run_timeout(-1);
}

static inline void uloop_end(void)
{
	uloop_cancelled = true;
}

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_ULOOP_H */
