// The C dependencies, included the way C++ needs them: libubox headers have
// no extern "C" guards of their own.
#pragma once

extern "C" {
#include <libubox/avl-cmp.h>
#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
}
#include <uci.h>
