// uloop (placeholder bodies).
#include <libubox/uloop.h>

extern "C" {

bool uloop_cancelled = false;

int uloop_fd_add(struct uloop_fd *, unsigned int) { return -1; }
int uloop_fd_delete(struct uloop_fd *) { return 0; }
int uloop_timeout_add(struct uloop_timeout *) { return -1; }
int uloop_timeout_set(struct uloop_timeout *, int) { return -1; }
int uloop_timeout_cancel(struct uloop_timeout *) { return -1; }
int uloop_timeout_remaining(struct uloop_timeout *) { return -1; }
int64_t uloop_timeout_remaining64(struct uloop_timeout *) { return -1; }
int uloop_init(void) { return -1; }
int uloop_run_timeout(int) { return 0; }
void uloop_done(void) {}

}  // extern "C"
