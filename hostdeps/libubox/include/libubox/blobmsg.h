/* blobmsg: named, typed values on top of blob.
 *
 * Every blobmsg attribute has the extended flag set and its payload starts
 * with a name header: a 16-bit big-endian name length N, the N name bytes, a
 * NUL, and zero padding up to a multiple of 4. The value follows. Arrays and
 * tables hold their children as payload; array children have empty names. */
#ifndef LIBUBOX_BLOBMSG_H
#define LIBUBOX_BLOBMSG_H

#include <stdarg.h>

#include "blob.h"

#ifdef __cplusplus
extern "C" {
#endif

#define BLOBMSG_ALIGN 2
#define BLOBMSG_PADDING(len) (((len) + (1 << BLOBMSG_ALIGN) - 1) & ~((1 << BLOBMSG_ALIGN) - 1))

/* Numbered differently from the raw BLOB_ATTR_* ids. */
enum blobmsg_type {
	BLOBMSG_TYPE_UNSPEC,
	BLOBMSG_TYPE_ARRAY,
	BLOBMSG_TYPE_TABLE,
	BLOBMSG_TYPE_STRING,
	BLOBMSG_TYPE_INT64,
	BLOBMSG_TYPE_INT32,
	BLOBMSG_TYPE_INT16,
	BLOBMSG_TYPE_INT8,
	BLOBMSG_TYPE_DOUBLE,
	__BLOBMSG_TYPE_LAST,
	BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
	BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
	/* Policy type only: accepts any integer type. */
	BLOBMSG_CAST_INT64 = __BLOBMSG_TYPE_LAST
};

struct blobmsg_hdr {
	uint16_t namelen; /* big-endian */
	uint8_t name[];
} __packed;

struct blobmsg_policy {
	const char *name;
	enum blobmsg_type type;
};

/* Name header length for a name of namelen bytes. */
static inline unsigned int blobmsg_hdrlen(unsigned int namelen)
{
	return BLOBMSG_PADDING(sizeof(struct blobmsg_hdr) + namelen + 1);
}

static inline uint16_t blobmsg_namelen(const struct blobmsg_hdr *hdr)
{
	uint16_t v;

	memcpy(&v, hdr, sizeof(v));
	return be16_to_cpu(v);
}

/* Trusted data: no check of the extended flag or of the length. */
static inline const char *blobmsg_name(const struct blob_attr *attr)
{
	return attr->data + sizeof(struct blobmsg_hdr);
}

static inline int blobmsg_type(const struct blob_attr *attr)
{
	return (int)blob_id(attr);
}

static inline void *blobmsg_data(const struct blob_attr *attr)
{
	char *data;

	if (!attr)
		return NULL;
	data = (char *)blob_data(attr);
	if (blob_is_extended(attr))
		data += blobmsg_hdrlen(blobmsg_namelen((const struct blobmsg_hdr *)attr->data));
	return data;
}

static inline size_t blobmsg_data_len(const struct blob_attr *attr)
{
	char *start, *end;

	if (!attr)
		return 0;
	start = (char *)blob_data(attr);
	end = (char *)blobmsg_data(attr);
	return blob_len(attr) - (size_t)(end - start);
}

static inline size_t blobmsg_len(const struct blob_attr *attr)
{
	return blobmsg_data_len(attr);
}

/* ---- checking (safe for untrusted data) ----
 * The _len variants read nothing beyond len bytes from attr; the others
 * take the attribute's own length for granted. name: a non-empty name is
 * required. Arrays and tables are checked with all their descendants. */
bool blobmsg_check_attr(const struct blob_attr *attr, bool name);
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len);
/* Container of children that are all of type (UNSPEC: any) and valid. */
bool blobmsg_check_attr_list(const struct blob_attr *attr, int type);
bool blobmsg_check_attr_list_len(const struct blob_attr *attr, int type, size_t len);
/* Number of children of a valid array/table whose children are all of
 * type (UNSPEC: any), or -1. */
int blobmsg_check_array(const struct blob_attr *attr, int type);
int blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t blob_len);

/* Fills tb[i] with the child of data (len bytes) whose name and type match
 * policy[i]; the first match wins, other slots stay NULL. -1 when a matching
 * child is invalid or on bad arguments, else 0. */
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len,
                  struct blob_attr **tb, void *data, unsigned int len);
/* Same, by position: the i-th child goes to tb[i] if its type matches. */
int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len,
                        struct blob_attr **tb, void *data, unsigned int len);

static inline int blobmsg_parse_attr(const struct blobmsg_policy *policy, int policy_len,
                                     struct blob_attr **tb, struct blob_attr *data)
{
	return blobmsg_parse(policy, policy_len, tb, blobmsg_data(data),
	                     (unsigned int)blobmsg_len(data));
}

/* ---- building ---- */

int blobmsg_add_field(struct blob_buf *buf, int type, const char *name,
                      const void *data, unsigned int len);
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);

/* Opens a string value of up to maxlen bytes to be written in place; finish
 * it with blobmsg_add_string_buffer (its length is taken with strlen). */
void *blobmsg_alloc_string_buffer(struct blob_buf *buf, const char *name, unsigned int maxlen);
void *blobmsg_realloc_string_buffer(struct blob_buf *buf, unsigned int maxlen);
void blobmsg_add_string_buffer(struct blob_buf *buf);

int blobmsg_vprintf(struct blob_buf *buf, const char *name, const char *format, va_list arg)
	__attribute__((format(printf, 3, 0)));
int blobmsg_printf(struct blob_buf *buf, const char *name, const char *format, ...)
	__attribute__((format(printf, 3, 4)));

static inline int blobmsg_buf_init(struct blob_buf *buf)
{
	return blob_buf_init(buf, BLOBMSG_TYPE_TABLE);
}

static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name)
{
	return blobmsg_open_nested(buf, name, true);
}

static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name)
{
	return blobmsg_open_nested(buf, name, false);
}

static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie)
{
	blob_nest_end(buf, cookie);
}

static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie)
{
	blob_nest_end(buf, cookie);
}

static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string)
{
	return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string,
	                         (unsigned int)strlen(string) + 1);
}

static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t val)
{
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &val, 1);
}

static inline int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t val)
{
	val = cpu_to_be16(val);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &val, 2);
}

static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t val)
{
	val = cpu_to_be32(val);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &val, 4);
}

static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t val)
{
	val = cpu_to_be64(val);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &val, 8);
}

static inline int blobmsg_add_double(struct blob_buf *buf, const char *name, double val)
{
	uint64_t bits;

	memcpy(&bits, &val, sizeof(bits));
	bits = cpu_to_be64(bits);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, 8);
}

/* Copies an attribute (name, type and value) into buf. */
static inline int blobmsg_add_blob(struct blob_buf *buf, struct blob_attr *attr)
{
	return blobmsg_add_field(buf, blobmsg_type(attr), blobmsg_name(attr),
	                         blobmsg_data(attr), (unsigned int)blobmsg_data_len(attr));
}

/* ---- value accessors (trusted data: check the type and length first) ---- */

static inline uint8_t blobmsg_get_u8(const struct blob_attr *attr)
{
	return *(const uint8_t *)blobmsg_data(attr);
}

static inline bool blobmsg_get_bool(const struct blob_attr *attr)
{
	return *(const uint8_t *)blobmsg_data(attr) != 0;
}

static inline uint16_t blobmsg_get_u16(const struct blob_attr *attr)
{
	uint16_t v;

	memcpy(&v, blobmsg_data(attr), sizeof(v));
	return be16_to_cpu(v);
}

static inline uint32_t blobmsg_get_u32(const struct blob_attr *attr)
{
	return blob_word_be_(blobmsg_data(attr));
}

static inline uint64_t blobmsg_get_u64(const struct blob_attr *attr)
{
	uint64_t v;

	memcpy(&v, blobmsg_data(attr), sizeof(v));
	return be64_to_cpu(v);
}

static inline double blobmsg_get_double(const struct blob_attr *attr)
{
	uint64_t bits = blobmsg_get_u64(attr);
	double v;

	memcpy(&v, &bits, sizeof(v));
	return v;
}

static inline char *blobmsg_get_string(const struct blob_attr *attr)
{
	if (!attr)
		return NULL;
	return (char *)blobmsg_data(attr);
}

/* Any integer type widened to 64 bits (unsigned); 0 for other types. */
static inline uint64_t blobmsg_cast_u64(const struct blob_attr *attr)
{
	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_INT64:
		return blobmsg_get_u64(attr);
	case BLOBMSG_TYPE_INT32:
		return blobmsg_get_u32(attr);
	case BLOBMSG_TYPE_INT16:
		return blobmsg_get_u16(attr);
	case BLOBMSG_TYPE_INT8:
		return blobmsg_get_u8(attr);
	default:
		return 0;
	}
}

/* Any integer type sign-extended to 64 bits; 0 for other types. */
static inline int64_t blobmsg_cast_s64(const struct blob_attr *attr)
{
	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_INT64:
		return (int64_t)blobmsg_get_u64(attr);
	case BLOBMSG_TYPE_INT32:
		return (int32_t)blobmsg_get_u32(attr);
	case BLOBMSG_TYPE_INT16:
		return (int16_t)blobmsg_get_u16(attr);
	case BLOBMSG_TYPE_INT8:
		return (int8_t)blobmsg_get_u8(attr);
	default:
		return 0;
	}
}

/* ---- iteration (rem must be size_t) ---- */

#define __blobmsg_for_each_attr(pos, attr, rem)                                \
	for ((pos) = (struct blob_attr *)(attr);                                   \
	     (rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (rem) &&    \
	     blob_pad_len(pos) >= sizeof(struct blob_attr);                        \
	     (rem) -= blob_pad_len(pos), (pos) = blob_next(pos))

#define blobmsg_for_each_attr(pos, attr, rem)                                  \
	for ((rem) = (attr) ? blobmsg_data_len(attr) : 0,                          \
	     (pos) = (struct blob_attr *)((attr) ? blobmsg_data(attr) : NULL);     \
	     (rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (rem) &&    \
	     blob_pad_len(pos) >= sizeof(struct blob_attr);                        \
	     (rem) -= blob_pad_len(pos), (pos) = blob_next(pos))

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_BLOBMSG_H */
