/*
 * routerkit: typed access to UCI options.
 *
 * Two families:
 *
 * - On an open package (ctx first): the daemon holds a uci_context, a loaded
 *   uci_package and its uci_section records. Nothing here loads, saves or
 *   commits: changes stay in the caller's context until the caller commits.
 *   Results: 0 for success, -1 for failure; a NULL argument gives -1 before
 *   any call into libuci. The section-name family (uciGetSectionOption*,
 *   uciSetSectionOptionString) answers 0, 2 for a NULL argument and 3 for
 *   anything not found, and publicUciAddList/publicUciDelList hand on
 *   libuci's own number.
 *
 * - One-shot (config, sectionType, sectionName, option first): each call
 *   makes its own context, loads the package "config" by name, picks the
 *   sections whose type equals sectionType and/or whose name equals
 *   sectionName (either may be NULL, not both), reads or writes, commits a
 *   write, and frees everything. 0 for success, -1 for anything else.
 *
 * String contract of every text reader: the text is copied with strncpy
 * with size - 1 as the count, so the last byte of `out` is never written and
 * a text that fills the count is left without a terminator. The caller
 * provides the terminator (zero the buffer, or at least its last byte).
 *
 * Only string options are readable; a list option counts as absent.
 * Booleans are written as "true"/"false"; "true" and "1" read as true.
 */
#ifndef ROUTERKIT_UCI_ACCESS_H
#define ROUTERKIT_UCI_ACCESS_H

#ifndef RK_API
#define RK_API __attribute__((visibility("default")))
#endif

#include <stdint.h>
#include <uci.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- On an open package ---------------------------------------------- */

/* Text of `option` in `section` into `out` (string contract); size <= 0 gives -1. */
RK_API int uciGetString(struct uci_context *ctx, struct uci_section *section,
                        const char *option, char *out, int size);
/* uci_set of `option` = `value` on the section record. */
RK_API int uciSetString(struct uci_context *ctx, struct uci_package *package,
                        struct uci_section *section, const char *option,
                        const char *value);
/* As uciSetString, with the section named by `sectionName`. */
RK_API int setString(struct uci_context *ctx, struct uci_package *package,
                     const char *sectionName, const char *option, const char *value);

/* Read with the signed "%hhd": the byte gets the low 8 bits, so 300 reads as 44. */
RK_API int uciGetUint8(struct uci_context *ctx, struct uci_section *section,
                       const char *option, uint8_t *out);
/* Written with the signed "%hhd": 200 is stored as -56 (and reads back as 200). */
RK_API int uciSetUint8(struct uci_context *ctx, struct uci_package *package,
                       struct uci_section *section, const char *option, uint8_t value);
RK_API int uciGetUint32(struct uci_context *ctx, struct uci_section *section,
                        const char *option, uint32_t *out);
RK_API int uciSetUint32(struct uci_context *ctx, struct uci_package *package,
                        struct uci_section *section, const char *option, uint32_t value);
RK_API int uciGetInt32(struct uci_context *ctx, struct uci_section *section,
                       const char *option, int *out);
RK_API int uciSetInt32(struct uci_context *ctx, struct uci_package *package,
                       struct uci_section *section, const char *option, int value);

/*
 * Writes 1 to `out` for "true" or "1" and leaves it alone for any other
 * text (preset it, normally to 0); 0 for every readable text.
 */
RK_API int uciGetBoolean(struct uci_context *ctx, struct uci_section *section,
                         const char *option, uint8_t *out);
/* Any nonzero value (all 32 bits count) writes "true", 0 writes "false". */
RK_API int uciSetBoolean(struct uci_context *ctx, struct uci_package *package,
                         struct uci_section *section, const char *option, int value);
/* uciGetBoolean / uciSetBoolean on the option "enabled". */
RK_API int uciGetEnabled(struct uci_context *ctx, struct uci_section *section, uint8_t *out);
RK_API int uciSetEnabled(struct uci_context *ctx, struct uci_package *package,
                         struct uci_section *section, int value);
/* uciGetUint32 / uciSetUint32 on the option "ID". */
RK_API int uciGetID(struct uci_context *ctx, struct uci_section *section, uint32_t *out);
RK_API int uciSetID(struct uci_context *ctx, struct uci_package *package,
                    struct uci_section *section, uint32_t value);

/*
 * uci_revert of `section` in *packageRef. libuci replaces the package while
 * reverting: on success the new pointer is written to *packageRef and every
 * section/option pointer into the old one is dangling. On failure
 * *packageRef stays as it was, unless libuci had freed the package already
 * and could not load it again (out of memory): it is NULL then.
 */
RK_API int uciRollback(struct uci_context *ctx, struct uci_package **packageRef,
                       struct uci_section *section);

/* uci_add_list / uci_del_list by names; libuci's result unchanged (-1 only for NULLs). */
RK_API int publicUciAddList(struct uci_context *ctx, const char *packageName,
                            const char *sectionName, const char *option, const char *value);
RK_API int publicUciDelList(struct uci_context *ctx, const char *packageName,
                            const char *sectionName, const char *option, const char *value);
/* uci_delete of the section `sectionName` of `package`. */
RK_API int publicUciDelSection(struct uci_context *ctx, struct uci_package *package,
                               const char *packageName, const char *sectionName);

/* Section by name: 0; 2 for a NULL argument; 3 if the section or option isn't found. */
/* As uciGetString on the named section; `size` must be at least 1. */
RK_API int uciGetSectionOptionString(struct uci_context *ctx, struct uci_package *package,
                                     const char *sectionName, const char *option,
                                     char *out, int size);
/* 0 once the section is found, whether or not the set succeeded. */
RK_API int uciSetSectionOptionString(struct uci_context *ctx, struct uci_package *package,
                                     const char *sectionName, const char *option,
                                     const char *value);
/* "%d"; 0 also for a text that isn't a number, with `out` untouched. */
RK_API int uciGetSectionOptionValue(struct uci_context *ctx, struct uci_package *package,
                                    const char *sectionName, const char *option, int *out);

/* ---- Weekday masks ----------------------------------------------------
 *
 * A mask byte has bit 0 for Sunday up to bit 6 for Saturday (bit 7 means
 * nothing). As text it is "Sun,Mon,Tue,Wed,Thu,Fri,Sat" for the days set.
 * Read back, tokens are separated by commas or blanks, in any order and case,
 * and each is decided by its first letter or two ("Mo", "monday", "TH");
 * one-letter tokens are dropped silently, unknown ones are logged
 * ("[getWeekValue:N]error week(<rest of the text>)") and dropped.
 */

/*
 * The text of `mask`, cut by whole days so that a day is written only when
 * its "Xxx," and a NUL fit: 4 times the days written (0 for none); -1 for a
 * NULL `out` or a size of 0 or less. All seven days need a size of 29.
 */
RK_API int getWeekString(char *out, int size, uint8_t mask);
/* ORs the days of `text` into *out (not cleared first): 0; -1 for NULL. */
RK_API int getWeekFlag(const char *text, uint8_t *out);
/* uciSetString of the mask's text (at most 33 bytes). */
RK_API int uciSetWeek(struct uci_context *ctx, struct uci_package *package,
                      struct uci_section *section, const char *option, uint8_t mask);
/*
 * uciGetString of the option (at most 33 bytes), -1 when that fails; else
 * prints "week=<text>" on standard output and gives getWeekFlag's result.
 */
RK_API int uciGetWeek(struct uci_context *ctx, struct uci_section *section,
                      const char *option, uint8_t *out);

/* ---- One-shot, by package name ---------------------------------------- */

/* Text of the first matching section that has the option readable (string contract). */
RK_API int uciGetOptionString(const char *config, const char *sectionType,
                              const char *sectionName, const char *option,
                              char *out, int size);
/*
 * Sets the option in the first matching section that accepts it and commits
 * the package. valueLen must be above 0 and is otherwise unused. A failed
 * commit reverts the section and gives -1.
 */
RK_API int uciSetOptionString(const char *config, const char *sectionType,
                              const char *sectionName, const char *option,
                              const char *value, int valueLen);
RK_API int uciSetOptionInt32(const char *config, const char *sectionType,
                             const char *sectionName, const char *option, int value);
/* Only the low 8 bits count: 256 writes "false". */
RK_API int uciSetOptionBoolean(const char *config, const char *sectionType,
                               const char *sectionName, const char *option, uint8_t value);
RK_API int uciSetOptionEnabled(const char *config, const char *sectionType,
                               const char *sectionName, uint8_t value);

/*
 * Typed readers. Each converts at most a fixed number of leading characters
 * (Uint32, Uint16: 30; Uint64: 22; Int32, Uint8, Boolean: 14); a longer text
 * is cut silently. A text that doesn't convert gives -1 with `out` untouched,
 * except in uciGetOptionInt32 and uciGetOptionUint64, which give 0 and leave
 * `out` untouched (preset `out` to notice).
 */
RK_API int uciGetOptionUint32(const char *config, const char *sectionType,
                              const char *sectionName, const char *option, uint32_t *out);
RK_API int uciGetOptionInt32(const char *config, const char *sectionType,
                             const char *sectionName, const char *option, int *out);
RK_API int uciGetOptionUint64(const char *config, const char *sectionType,
                              const char *sectionName, const char *option, uint64_t *out);
RK_API int uciGetOptionUint16(const char *config, const char *sectionType,
                              const char *sectionName, const char *option, uint16_t *out);
/* Signed "%hhd", low 8 bits kept: "-1" reads as 255, "300" as 44. */
RK_API int uciGetOptionUint8(const char *config, const char *sectionType,
                             const char *sectionName, const char *option, uint8_t *out);
/* Stores 1 for "true" or "1" and 0 for any other readable text. */
RK_API int uciGetOptionBoolean(const char *config, const char *sectionType,
                               const char *sectionName, const char *option, uint8_t *out);
/* uciGetOptionBoolean on the option "enabled". */
RK_API int uciGetOptionEnabled(const char *config, const char *sectionType,
                               const char *sectionName, uint8_t *out);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_UCI_ACCESS_H */
