/* blob: a compact tree of typed attributes in one growable buffer.
 *
 * Each attribute starts with a 32-bit big-endian word: bit 31 the extended
 * flag, bits 24-30 the id, bits 0-23 the length of header plus payload
 * (without padding). Attributes are aligned to 4 bytes; padding is zero. */
#ifndef LIBUBOX_BLOB_H
#define LIBUBOX_BLOB_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "utils.h"

#ifdef __cplusplus
extern "C" {
#endif

#define BLOB_COOKIE 0x01234567

enum {
	BLOB_ATTR_UNSPEC,
	BLOB_ATTR_NESTED,
	BLOB_ATTR_BINARY,
	BLOB_ATTR_STRING,
	BLOB_ATTR_INT8,
	BLOB_ATTR_INT16,
	BLOB_ATTR_INT32,
	BLOB_ATTR_INT64,
	BLOB_ATTR_DOUBLE,
	BLOB_ATTR_LAST
};

#define BLOB_ATTR_ID_MASK 0x7f000000
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffff
#define BLOB_ATTR_ALIGN 4
#define BLOB_ATTR_EXTENDED 0x80000000

struct blob_attr {
	uint32_t id_len; /* big-endian, also in memory */
	char data[];
} __packed;

/* Describes one attribute id for blob_parse: its raw blob type (checked
 * with blob_check_type unless BLOB_ATTR_UNSPEC), payload bounds (maxlen 0 =
 * unbounded) and an optional extra validator. */
struct blob_attr_info {
	unsigned int type;
	unsigned int minlen;
	unsigned int maxlen;
	bool (*validate)(const struct blob_attr_info *, struct blob_attr *);
};

/* Must be zeroed before the first blob_buf_init. */
struct blob_buf {
	struct blob_attr *head; /* innermost open container (the root if none) */
	bool (*grow)(struct blob_buf *buf, int minlen);
	int buflen;             /* bytes allocated */
	void *buf;              /* the allocation */
};

/* ---- accessors (trusted data: they read the header as it is) ---- */

static inline uint32_t blob_word_be_(const void *p)
{
	uint32_t v;
	memcpy(&v, p, sizeof(v));
	return be32_to_cpu(v);
}

static inline void *blob_data(const struct blob_attr *attr)
{
	return (void *)attr->data;
}

static inline unsigned int blob_id(const struct blob_attr *attr)
{
	return (blob_word_be_(attr) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr *attr)
{
	return (blob_word_be_(attr) & BLOB_ATTR_EXTENDED) != 0;
}

/* Header plus payload, without padding. */
static inline size_t blob_raw_len(const struct blob_attr *attr)
{
	return blob_word_be_(attr) & BLOB_ATTR_LEN_MASK;
}

/* Payload bytes (the blobmsg name header counts as payload here). */
static inline size_t blob_len(const struct blob_attr *attr)
{
	return blob_raw_len(attr) - sizeof(struct blob_attr);
}

static inline size_t blob_pad_len(const struct blob_attr *attr)
{
	size_t len = blob_raw_len(attr);

	return (len + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline struct blob_attr *blob_next(const struct blob_attr *attr)
{
	return (struct blob_attr *)((char *)attr + blob_pad_len(attr));
}

static inline uint8_t blob_get_u8(const struct blob_attr *attr)
{
	return *(const uint8_t *)attr->data;
}

static inline bool blob_get_bool(const struct blob_attr *attr)
{
	return *(const uint8_t *)attr->data != 0;
}

static inline uint16_t blob_get_u16(const struct blob_attr *attr)
{
	uint16_t v;

	memcpy(&v, attr->data, sizeof(v));
	return be16_to_cpu(v);
}

static inline uint32_t blob_get_u32(const struct blob_attr *attr)
{
	return blob_word_be_(attr->data);
}

static inline uint64_t blob_get_u64(const struct blob_attr *attr)
{
	uint64_t v;

	memcpy(&v, attr->data, sizeof(v));
	return be64_to_cpu(v);
}

static inline int8_t blob_get_int8(const struct blob_attr *attr)
{
	return (int8_t)blob_get_u8(attr);
}

static inline int16_t blob_get_int16(const struct blob_attr *attr)
{
	return (int16_t)blob_get_u16(attr);
}

static inline int32_t blob_get_int32(const struct blob_attr *attr)
{
	return (int32_t)blob_get_u32(attr);
}

static inline int64_t blob_get_int64(const struct blob_attr *attr)
{
	return (int64_t)blob_get_u64(attr);
}

static inline double blob_get_double(const struct blob_attr *attr)
{
	uint64_t bits = blob_get_u64(attr);
	double v;

	memcpy(&v, &bits, sizeof(v));
	return v;
}

static inline const char *blob_get_string(const struct blob_attr *attr)
{
	return attr->data;
}

/* ---- building ---- */

int blob_buf_init(struct blob_buf *buf, int id);
void blob_buf_free(struct blob_buf *buf);
/* Makes room for at least required more bytes; false when that fails. */
bool blob_buf_grow(struct blob_buf *buf, int required);

/* Appends an attribute with payload bytes of room (zeroed), or NULL. */
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);
/* Appends an attribute holding a copy of len bytes of ptr, or NULL. */
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);
/* Appends len bytes that already form complete attributes, or NULL. */
struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len);

/* Opens a container; the cookie (never NULL on success) closes it. */
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);

/* Sets the raw length (header included); id and flag stay. */
void blob_set_raw_len(struct blob_attr *attr, unsigned int len);
/* Zeroes the bytes between the raw length and the padded length. */
void blob_fill_pad(struct blob_attr *attr);
/* malloc'd copy of attr (padded length), NULL on failure. */
struct blob_attr *blob_memdup(struct blob_attr *attr);
/* Same padded length and same bytes; two NULLs are equal. */
bool blob_attr_equal(const struct blob_attr *a1, const struct blob_attr *a2);

/* ---- checking (safe for untrusted data) ---- */

/* Whether len bytes at ptr are a valid payload of raw blob type type. */
bool blob_check_type(const void *ptr, unsigned int len, int type);
/* Files each child of attr under data[id] (ids below max) after checking it
 * against info[id] if info is given; returns the number of attributes taken.
 * The untrusted variant also bounds everything by attr_len, the bytes
 * available at attr. */
int blob_parse(struct blob_attr *attr, struct blob_attr **data,
               const struct blob_attr_info *info, int max);
int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
                         const struct blob_attr_info *info, int max);

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str)
{
	return blob_put(buf, id, str, (unsigned int)strlen(str) + 1);
}

static inline struct blob_attr *blob_put_u8(struct blob_buf *buf, int id, uint8_t val)
{
	return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u16(struct blob_buf *buf, int id, uint16_t val)
{
	val = cpu_to_be16(val);
	return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t val)
{
	val = cpu_to_be32(val);
	return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u64(struct blob_buf *buf, int id, uint64_t val)
{
	val = cpu_to_be64(val);
	return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_double(struct blob_buf *buf, int id, double val)
{
	uint64_t bits;

	memcpy(&bits, &val, sizeof(bits));
	return blob_put_u64(buf, id, bits);
}

#define blob_put_int8 blob_put_u8
#define blob_put_int16 blob_put_u16
#define blob_put_int32 blob_put_u32
#define blob_put_int64 blob_put_u64

/* ---- iteration ----
 * rem must be an unsigned size (size_t). A child that is shorter than a
 * header or reaches past the remaining bytes ends the walk. */

#define __blob_for_each_attr(pos, start, rem)                                  \
	for ((pos) = (struct blob_attr *)(start);                                  \
	     (rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (rem) &&    \
	     blob_pad_len(pos) >= sizeof(struct blob_attr);                        \
	     (rem) -= blob_pad_len(pos), (pos) = blob_next(pos))

#define blob_for_each_attr(pos, attr, rem)                                     \
	for ((rem) = (attr) ? blob_len(attr) : 0,                                  \
	     (pos) = (struct blob_attr *)((attr) ? blob_data(attr) : NULL);        \
	     (rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (rem) &&    \
	     blob_pad_len(pos) >= sizeof(struct blob_attr);                        \
	     (rem) -= blob_pad_len(pos), (pos) = blob_next(pos))

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_BLOB_H */
