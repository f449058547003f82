/*
 * Build options of the UCI stand-in. The platform's libuci generates this
 * file at build time; nothing in it matters to users of <uci.h>.
 */
#ifndef UCI_CONFIG_H
#define UCI_CONFIG_H

#define UCI_PREFIX "/usr"

#endif /* UCI_CONFIG_H */
