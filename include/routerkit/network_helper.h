/*
 * routerkit: a record of recent internet delays shared by every process on
 * the device, and the choice of a LAN bridge address.
 *
 * The delay record is the text file "/var/run/internet.state", one
 * "<label> <delay>\n" line per record, newest first. Label and delay are the
 * caller's: nothing here measures. There is no lock and no temporary file: a
 * write empties the file in place and writes it anew, so a reader during a
 * write may see fewer records, and of two writers at once one may lose its
 * record. None of these functions logs.
 *
 * Reading takes the file line by line and at most the first five records. A
 * record is a line exactly as a write makes it: a label of 1 to 15
 * characters without white space or NUL, one blank, the delay as 1 to 10
 * decimal digits of at most 4294967295, the newline (the last line may lack
 * it). Every other line is skipped: a line without a readable number, with a
 * longer label, a sign, a second blank or a third word is not counted, not
 * averaged and not carried over by the next write.
 */
#ifndef ROUTERKIT_NETWORK_HELPER_H
#define ROUTERKIT_NETWORK_HELPER_H

#ifndef RK_API
#define RK_API __attribute__((visibility("default")))
#endif

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Writes the new record, then the first five records the file held (so the
 * file has up to six lines, and a sixth one is dropped by the next write).
 * The label is written as given; one outside the limit above is skipped when
 * read back. 0; -1 when the file cannot be opened for writing, the file then
 * being as it was. `label` must not be NULL.
 */
RK_API int setInternetDelay(const char *label, uint32_t delay);
/*
 * Stores the mean of the first five records: their delays summed with
 * 32-bit wrap-around, divided with truncation. 0; -1 with `*delay` untouched
 * when there is no file or no record in it. `delay` must not be NULL.
 */
RK_API int getInternetDelay(uint32_t *delay);
/* Leaves the file existing and empty where it can; always 0. */
RK_API int clearInternetDelay(void);

/*
 * Chooses an address of a running interface whose name begins with "br-lan"
 * (br-lan, br-lan1, ...) for talking to `peer`. family 2: `peer` and `out`
 * are 4 bytes; family 10: `out` is 16 bytes and only the first 12 bytes of
 * `peer` are read, so the last 32 bits never take part, whatever the mask.
 *
 * The system's interface list is read afresh and walked in its own order.
 * The first address whose subnet (under its own mask) holds the peer is taken
 * at once. Failing that, IPv4 keeps the first address outside the subnet of
 * the default LAN address 192.168.10.1, else the last one; IPv6 keeps the
 * first address beginning fe80, else the last one. `out` holds the candidate
 * during the walk.
 *
 * 1 when an address was stored in `out`; 0 with `out` untouched when no
 * running bridge has an address of that family, when the interface list
 * cannot be read, or for any other family. Neither pointer may be NULL.
 */
RK_API int networkHelper_getBridgeAddr(uint8_t family, const void *peer, void *out);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_NETWORK_HELPER_H */
