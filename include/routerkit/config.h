/*
 * routerkit: values from key/value files and the factory tool.
 *
 * Buffers are the caller's: `out` with `size` bytes.
 */
#ifndef ROUTERKIT_CONFIG_H
#define ROUTERKIT_CONFIG_H

#ifndef RK_API
#define RK_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Reads the value of `key` from a file of "key = value" (or "key: value")
 * lines into `out`. Returns the value's length (0 also for an empty value);
 * 0 with `out` untouched when no line matches; -1 for bad arguments or a
 * file that can't be opened (both logged). The file is read in pieces of 63
 * bytes, so a value ends at the end of its piece.
 */
RK_API int getValueFromFile(const char *path, const char *key, char *out, int size);

/*
 * Asks "/usr/bin/factory show <key>" (a plain word) and reads the rest of
 * the line behind the first '=' of its output, trailing blanks and line ends
 * removed. 0 when a value was read (not a length), else -1 with `out`
 * untouched.
 */
RK_API int getFactoryValue(const char *key, char *out, int size);

/* getFactoryValue("provinceCode"); on failure `out` becomes "" (size >= 1). */
RK_API int getTheProvinceCode(char *out, int size);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_CONFIG_H */
