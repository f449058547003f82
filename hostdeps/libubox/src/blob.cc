// blob and blobmsg: building buffers in the wire format, and reading them
// back, including checks that are safe for data from untrusted peers.
//
// Building keeps one invariant: b->head is the innermost open container and
// the next attribute goes right after its padded end. A container's length
// is only raised when a child is complete (blob_new) or closed
// (blob_nest_end), so the enclosing lengths of open nests are stale until
// they are closed. Positions are kept as offsets wherever the buffer may
// move, which is also why cookies are offsets.
#include <libubox/blobmsg.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

// Wire and record layouts shared with the real library, on 32- and 64-bit
// targets.
static_assert(sizeof(blob_attr) == 4, "blob_attr is a bare 32-bit header");
static_assert(sizeof(blobmsg_hdr) == 2, "blobmsg_hdr is a bare 16-bit length");
static_assert(offsetof(blob_buf, grow) == sizeof(void *) && offsetof(blob_buf, buflen) == 2 * sizeof(void *) &&
                  offsetof(blob_buf, buf) == 3 * sizeof(void *) && sizeof(blob_buf) == 4 * sizeof(void *),
              "blob_buf layout");

namespace rk {
namespace {

constexpr size_t kHdr = sizeof(blob_attr);
constexpr int kGrowStep = 256;

size_t pad4(size_t len) noexcept {
  return (len + BLOB_ATTR_ALIGN - 1) & ~static_cast<size_t>(BLOB_ATTR_ALIGN - 1);
}

uint32_t read_be32(const void *p) noexcept {
  uint32_t v;
  std::memcpy(&v, p, sizeof(v));
  return be32_to_cpu(v);
}

void write_be32(void *p, uint32_t v) noexcept {
  v = cpu_to_be32(v);
  std::memcpy(p, &v, sizeof(v));
}

void set_header(blob_attr *attr, unsigned int id, size_t raw_len, bool extended) noexcept {
  uint32_t word = ((id << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK) |
                  (static_cast<uint32_t>(raw_len) & BLOB_ATTR_LEN_MASK);
  if (extended)
    word |= BLOB_ATTR_EXTENDED;
  write_be32(attr, word);
}

void set_raw_len(blob_attr *attr, size_t raw_len) noexcept {
  uint32_t word = read_be32(attr) & ~static_cast<uint32_t>(BLOB_ATTR_LEN_MASK);
  write_be32(attr, word | (static_cast<uint32_t>(raw_len) & BLOB_ATTR_LEN_MASK));
}

bool default_grow(blob_buf *buf, int minlen) noexcept {
  if (minlen <= 0)
    return true;
  size_t delta = (static_cast<size_t>(minlen) + kGrowStep - 1) / kGrowStep * kGrowStep;
  size_t size = static_cast<size_t>(buf->buflen) + delta;
  void *grown = std::realloc(buf->buf, size);
  if (!grown)
    return false;
  buf->buf = grown;
  buf->buflen = static_cast<int>(size);
  return true;
}

char *base(const blob_buf *buf) noexcept {
  return static_cast<char *>(buf->buf);
}

size_t offset_of(const blob_buf *buf, const void *p) noexcept {
  return static_cast<size_t>(static_cast<const char *>(p) - base(buf));
}

// Offset where the next attribute goes: the padded end of the head.
size_t end_offset(const blob_buf *buf) noexcept {
  if (!buf->head)
    return 0;
  return offset_of(buf, buf->head) + blob_pad_len(buf->head);
}

// Makes the buffer at least `needed` bytes long, keeping head's offset.
bool ensure_size(blob_buf *buf, size_t needed) noexcept {
  if (needed <= static_cast<size_t>(buf->buflen))
    return true;
  if (needed > BLOB_ATTR_LEN_MASK)
    return false;
  return blob_buf_grow(buf, static_cast<int>(needed - static_cast<size_t>(buf->buflen)));
}

// Appends an attribute of raw length kHdr + payload after the head without
// counting it in the head; the payload and the padding are zeroed.
blob_attr *append(blob_buf *buf, unsigned int id, size_t payload, bool extended) noexcept {
  if (payload > BLOB_ATTR_LEN_MASK - kHdr)
    return nullptr;
  size_t at = end_offset(buf);
  size_t raw = kHdr + payload;
  if (!ensure_size(buf, at + pad4(raw)))
    return nullptr;
  auto *attr = reinterpret_cast<blob_attr *>(base(buf) + at);
  std::memset(attr, 0, pad4(raw));
  set_header(attr, id, raw, extended);
  return attr;
}

// Counts a finished child in the head.
void account(blob_buf *buf, const blob_attr *child) noexcept {
  set_raw_len(buf->head, blob_raw_len(buf->head) + blob_pad_len(child));
}

void *cookie_for(const blob_buf *buf) noexcept {
  return reinterpret_cast<void *>(static_cast<uintptr_t>(offset_of(buf, buf->head)) + BLOB_COOKIE);
}

// Appends a blobmsg attribute (name header written, value zeroed) without
// counting it. *value receives the start of the value.
blob_attr *append_named(blob_buf *buf, int type, const char *name, size_t value_len,
                        char **value) noexcept {
  size_t namelen = name ? std::strlen(name) : 0;
  if (namelen > 0xffff)
    return nullptr;
  size_t hdrlen = blobmsg_hdrlen(static_cast<unsigned int>(namelen));
  if (value_len > BLOB_ATTR_LEN_MASK)
    return nullptr;
  blob_attr *attr = append(buf, static_cast<unsigned int>(type), hdrlen + value_len, true);
  if (!attr)
    return nullptr;
  uint16_t be_len = cpu_to_be16(static_cast<uint16_t>(namelen));
  std::memcpy(attr->data, &be_len, sizeof(be_len));
  if (namelen)
    std::memcpy(attr->data + sizeof(blobmsg_hdr), name, namelen);
  if (value)
    *value = attr->data + hdrlen;
  return attr;
}

// ---- checks for untrusted data ----

// Every read stays inside `avail` bytes from attr.
bool check_type_payload(const char *data, size_t len, int type) noexcept {
  switch (type) {
    case BLOB_ATTR_INT8:
      return len == 1;
    case BLOB_ATTR_INT16:
      return len == 2;
    case BLOB_ATTR_INT32:
      return len == 4;
    case BLOB_ATTR_INT64:
    case BLOB_ATTR_DOUBLE:
      return len == 8;
    case BLOB_ATTR_STRING:
      return len >= 1 && data[len - 1] == '\0';
    default:
      return type >= 0 && type < BLOB_ATTR_LAST;
  }
}

// The raw blob type a blobmsg scalar must satisfy.
int blob_type_for(int blobmsg_type) noexcept {
  switch (blobmsg_type) {
    case BLOBMSG_TYPE_STRING:
      return BLOB_ATTR_STRING;
    case BLOBMSG_TYPE_INT64:
      return BLOB_ATTR_INT64;
    case BLOBMSG_TYPE_INT32:
      return BLOB_ATTR_INT32;
    case BLOBMSG_TYPE_INT16:
      return BLOB_ATTR_INT16;
    case BLOBMSG_TYPE_INT8:
      return BLOB_ATTR_INT8;
    case BLOBMSG_TYPE_DOUBLE:
      return BLOB_ATTR_DOUBLE;
    default:
      return BLOB_ATTR_UNSPEC;
  }
}

bool is_container(int type) noexcept {
  return type == BLOBMSG_TYPE_ARRAY || type == BLOBMSG_TYPE_TABLE;
}

// Header readable, length sane and inside avail.
bool header_fits(const blob_attr *attr, size_t avail) noexcept {
  if (!attr || avail < kHdr)
    return false;
  size_t raw = blob_raw_len(attr);
  return raw >= kHdr && raw <= avail;
}

// Checks one blobmsg attribute but not the children of a container. On
// success *value/*value_len describe its value.
bool check_one(const blob_attr *attr, bool need_name, size_t avail, const char **value,
               size_t *value_len) noexcept {
  if (!header_fits(attr, avail))
    return false;
  const char *data = attr->data;
  size_t len = blob_len(attr);
  if (blob_is_extended(attr)) {
    if (len < sizeof(blobmsg_hdr))
      return false;
    uint16_t namelen = blobmsg_namelen(reinterpret_cast<const blobmsg_hdr *>(data));
    size_t hdrlen = blobmsg_hdrlen(namelen);
    if (hdrlen > len || data[sizeof(blobmsg_hdr) + namelen] != '\0')
      return false;
    if (need_name && namelen == 0)
      return false;
    data += hdrlen;
    len -= hdrlen;
  } else if (need_name) {
    return false;
  }
  int type = static_cast<int>(blob_id(attr));
  if (type > BLOBMSG_TYPE_LAST)
    return false;
  if (!is_container(type) && !check_type_payload(data, len, blob_type_for(type)))
    return false;
  *value = data;
  *value_len = len;
  return true;
}

// Checks attr and, for arrays and tables, every descendant. Nesting depth is
// limited only by the data, so the walk keeps its own stack instead of
// recursing.
bool check_tree(const blob_attr *attr, bool need_name, size_t avail) noexcept {
  struct Frame {
    const char *pos;
    size_t rem;
    bool table;
  };
  const char *value;
  size_t value_len;
  if (!check_one(attr, need_name, avail, &value, &value_len))
    return false;
  if (!is_container(static_cast<int>(blob_id(attr))))
    return true;
  try {
    std::vector<Frame> stack;
    stack.push_back({value, value_len, blob_id(attr) == BLOBMSG_TYPE_TABLE});
    while (!stack.empty()) {
      Frame &top = stack.back();
      if (top.rem == 0) {
        stack.pop_back();
        continue;
      }
      auto *child = reinterpret_cast<const blob_attr *>(top.pos);
      if (!check_one(child, top.table, top.rem, &value, &value_len))
        return false;
      size_t pad = blob_pad_len(child);
      if (pad > top.rem)
        return false;
      top.pos += pad;
      top.rem -= pad;
      int type = static_cast<int>(blob_id(child));
      if (is_container(type))
        stack.push_back({value, value_len, type == BLOBMSG_TYPE_TABLE});
    }
  } catch (...) {  // out of memory for the walk: cannot vouch for the data
    return false;
  }
  return true;
}

bool policy_type_matches(int policy_type, int type) noexcept {
  if (policy_type == BLOBMSG_TYPE_UNSPEC)
    return true;
  if (policy_type == BLOBMSG_CAST_INT64)
    return type == BLOBMSG_TYPE_INT64 || type == BLOBMSG_TYPE_INT32 ||
           type == BLOBMSG_TYPE_INT16 || type == BLOBMSG_TYPE_INT8;
  return policy_type == type;
}

int check_array(const blob_attr *attr, int type, size_t avail) noexcept {
  if (type < 0 || type > BLOBMSG_TYPE_LAST)
    return -1;
  if (!check_tree(attr, false, avail))
    return -1;
  if (!is_container(blobmsg_type(attr)))
    return -1;
  int count = 0;
  const blob_attr *child;
  size_t rem;
  blobmsg_for_each_attr(child, attr, rem) {
    if (type != BLOBMSG_TYPE_UNSPEC && blobmsg_type(child) != type)
      return -1;
    count++;
  }
  return count;
}

bool info_accepts(const blob_attr_info *info, blob_attr *attr) noexcept {
  size_t len = blob_len(attr);
  if (info->type != BLOB_ATTR_UNSPEC &&
      !check_type_payload(attr->data, len, static_cast<int>(info->type)))
    return false;
  if (len < info->minlen)
    return false;
  if (info->maxlen && len > info->maxlen)
    return false;
  return !info->validate || info->validate(info, attr);
}

int parse_blob(blob_attr *attr, size_t attr_len, blob_attr **data, const blob_attr_info *info,
               int max) noexcept {
  if (!data || max <= 0)
    return 0;
  std::memset(data, 0, sizeof(*data) * static_cast<size_t>(max));
  if (!header_fits(attr, attr_len))
    return 0;
  int found = 0;
  blob_attr *pos;
  size_t rem;
  blob_for_each_attr(pos, attr, rem) {
    int id = static_cast<int>(blob_id(pos));
    if (id >= max)
      continue;
    if (info && !info_accepts(&info[id], pos))
      continue;
    if (!data[id])
      found++;
    data[id] = pos;
  }
  return found;
}

// Common start of both parsers: checks the arguments and clears the table.
// false with the parser's result in *result when there is nothing to parse.
bool start_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                 const void *data, unsigned int len, int *result) {
  if (policy_len <= 0 || !policy || !tb) {
    *result = policy_len == 0 ? 0 : -EINVAL;
    return false;
  }
  std::memset(tb, 0, sizeof(*tb) * static_cast<size_t>(policy_len));
  if (!data || !len) {
    *result = -EINVAL;
    return false;
  }
  return true;
}

}  // namespace
}  // namespace rk

extern "C" {

// ---- raw blob ----

bool blob_buf_grow(struct blob_buf *buf, int required) {
  if (required <= 0)
    return true;
  if (static_cast<size_t>(buf->buflen) + static_cast<size_t>(required) > BLOB_ATTR_LEN_MASK)
    return false;
  size_t head = buf->head ? rk::offset_of(buf, buf->head) : 0;
  bool had_head = buf->head != nullptr;
  if (!buf->grow || !buf->grow(buf, required))
    return false;
  buf->head = had_head ? reinterpret_cast<blob_attr *>(rk::base(buf) + head) : nullptr;
  return true;
}

int blob_buf_init(struct blob_buf *buf, int id) {
  if (!buf->grow)
    buf->grow = rk::default_grow;
  buf->head = nullptr;  // the root goes at offset 0, over whatever was there
  if (!buf->buf)
    buf->buflen = 0;
  if (!rk::ensure_size(buf, rk::kHdr))
    return -ENOMEM;
  buf->head = static_cast<blob_attr *>(buf->buf);
  rk::set_header(buf->head, static_cast<unsigned int>(id), rk::kHdr, false);
  return 0;
}

void blob_buf_free(struct blob_buf *buf) {
  std::free(buf->buf);
  buf->buf = nullptr;
  buf->head = nullptr;
  buf->buflen = 0;
}

struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload) {
  if (payload < 0 || !buf->head)
    return nullptr;
  blob_attr *attr = rk::append(buf, static_cast<unsigned int>(id), static_cast<size_t>(payload), false);
  if (attr)
    rk::account(buf, attr);
  return attr;
}

struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len) {
  if (len > BLOB_ATTR_LEN_MASK)
    return nullptr;
  blob_attr *attr = blob_new(buf, id, static_cast<int>(len));
  if (attr && len)
    std::memcpy(attr->data, ptr, len);
  return attr;
}

struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len) {
  if (!buf->head || !ptr || len == 0 || len > BLOB_ATTR_LEN_MASK)
    return nullptr;
  size_t at = rk::end_offset(buf);
  size_t padded = rk::pad4(len);
  if (!rk::ensure_size(buf, at + padded))
    return nullptr;
  char *dest = rk::base(buf) + at;
  std::memcpy(dest, ptr, len);
  std::memset(dest + len, 0, padded - len);
  rk::set_raw_len(buf->head, blob_raw_len(buf->head) + padded);
  return reinterpret_cast<blob_attr *>(dest);
}

void *blob_nest_start(struct blob_buf *buf, int id) {
  if (!buf->head)
    return nullptr;
  void *cookie = rk::cookie_for(buf);
  blob_attr *attr = rk::append(buf, static_cast<unsigned int>(id), 0, false);
  if (!attr)
    return nullptr;
  buf->head = attr;
  return cookie;
}

void blob_nest_end(struct blob_buf *buf, void *cookie) {
  if (!cookie || !buf->head)
    return;
  auto offset = reinterpret_cast<uintptr_t>(cookie) - BLOB_COOKIE;
  if (offset >= static_cast<uintptr_t>(buf->buflen))
    return;  // not a cookie of this buffer
  auto *parent = reinterpret_cast<blob_attr *>(rk::base(buf) + offset);
  blob_attr *done = buf->head;
  buf->head = parent;
  rk::account(buf, done);
}

void blob_set_raw_len(struct blob_attr *attr, unsigned int len) {
  if (len < rk::kHdr)
    len = rk::kHdr;
  rk::set_raw_len(attr, len);
}

void blob_fill_pad(struct blob_attr *attr) {
  size_t raw = blob_raw_len(attr);
  size_t pad = blob_pad_len(attr);
  if (pad > raw)
    std::memset(reinterpret_cast<char *>(attr) + raw, 0, pad - raw);
}

struct blob_attr *blob_memdup(struct blob_attr *attr) {
  size_t raw = blob_raw_len(attr);
  size_t pad = blob_pad_len(attr);
  void *copy = std::malloc(pad);
  if (!copy)
    return nullptr;
  std::memcpy(copy, attr, raw);
  std::memset(static_cast<char *>(copy) + raw, 0, pad - raw);
  return static_cast<blob_attr *>(copy);
}

bool blob_attr_equal(const struct blob_attr *a1, const struct blob_attr *a2) {
  if (!a1 || !a2)
    return a1 == a2;
  size_t raw = blob_raw_len(a1);
  return raw == blob_raw_len(a2) && std::memcmp(a1, a2, raw) == 0;
}

bool blob_check_type(const void *ptr, unsigned int len, int type) {
  if (!ptr && len)
    return false;
  return rk::check_type_payload(static_cast<const char *>(ptr), len, type);
}

int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info,
               int max) {
  return rk::parse_blob(attr, attr ? blob_raw_len(attr) : 0, data, info, max);
}

int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
                         const struct blob_attr_info *info, int max) {
  return rk::parse_blob(attr, attr_len, data, info, max);
}

// ---- blobmsg ----

int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data,
                      unsigned int len) {
  if (!buf->head)
    return -1;
  char *value;
  blob_attr *attr = rk::append_named(buf, type, name, len, &value);
  if (!attr)
    return -1;
  if (len)
    std::memcpy(value, data, len);
  rk::account(buf, attr);
  return 0;
}

void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array) {
  if (!buf->head)
    return nullptr;
  void *cookie = rk::cookie_for(buf);
  blob_attr *attr = rk::append_named(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0,
                                     nullptr);
  if (!attr)
    return nullptr;
  buf->head = attr;
  return cookie;
}

// The pending string sits uncounted after the head, its raw length covering
// the whole reserved room plus one spare byte for a terminating NUL.
void *blobmsg_alloc_string_buffer(struct blob_buf *buf, const char *name, unsigned int maxlen) {
  if (!buf->head || maxlen >= BLOB_ATTR_LEN_MASK)
    return nullptr;
  char *value;
  if (!rk::append_named(buf, BLOBMSG_TYPE_STRING, name, static_cast<size_t>(maxlen) + 1, &value))
    return nullptr;
  return value;
}

void *blobmsg_realloc_string_buffer(struct blob_buf *buf, unsigned int maxlen) {
  if (!buf->head || maxlen >= BLOB_ATTR_LEN_MASK)
    return nullptr;
  size_t at = rk::end_offset(buf);
  auto *attr = reinterpret_cast<blob_attr *>(rk::base(buf) + at);
  size_t hdrlen = static_cast<size_t>(static_cast<char *>(blobmsg_data(attr)) - attr->data);
  size_t raw = rk::kHdr + hdrlen + maxlen + 1;
  if (raw > blob_raw_len(attr)) {
    size_t old_pad = blob_pad_len(attr);
    if (!rk::ensure_size(buf, at + rk::pad4(raw)))
      return nullptr;
    attr = reinterpret_cast<blob_attr *>(rk::base(buf) + at);
    std::memset(reinterpret_cast<char *>(attr) + old_pad, 0, rk::pad4(raw) - old_pad);
    rk::set_raw_len(attr, raw);
  }
  return blobmsg_data(attr);
}

void blobmsg_add_string_buffer(struct blob_buf *buf) {
  if (!buf->head)
    return;
  auto *attr = reinterpret_cast<blob_attr *>(rk::base(buf) + rk::end_offset(buf));
  auto *value = static_cast<char *>(blobmsg_data(attr));
  size_t room = blob_len(attr) - static_cast<size_t>(value - attr->data);
  size_t len = strnlen(value, room - 1);
  value[len] = '\0';
  size_t raw = static_cast<size_t>(value - reinterpret_cast<char *>(attr)) + len + 1;
  rk::set_raw_len(attr, raw);
  blob_fill_pad(attr);
  rk::account(buf, attr);
}

int blobmsg_vprintf(struct blob_buf *buf, const char *name, const char *format, va_list arg) {
  va_list probe;
  va_copy(probe, arg);
  int len = std::vsnprintf(nullptr, 0, format, probe);
  va_end(probe);
  if (len < 0)
    return -1;
  auto *value = static_cast<char *>(
      blobmsg_alloc_string_buffer(buf, name, static_cast<unsigned int>(len) + 1));
  if (!value)
    return -1;
  std::vsnprintf(value, static_cast<size_t>(len) + 1, format, arg);
  blobmsg_add_string_buffer(buf);
  return len;
}

int blobmsg_printf(struct blob_buf *buf, const char *name, const char *format, ...) {
  va_list arg;
  va_start(arg, format);
  int len = blobmsg_vprintf(buf, name, format, arg);
  va_end(arg);
  return len;
}

bool blobmsg_check_attr(const struct blob_attr *attr, bool name) {
  return attr && rk::check_tree(attr, name, blob_raw_len(attr));
}

bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len) {
  return rk::check_tree(attr, name, len);
}

int blobmsg_check_array(const struct blob_attr *attr, int type) {
  return attr ? rk::check_array(attr, type, blob_raw_len(attr)) : -1;
}

int blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t blob_len) {
  return rk::check_array(attr, type, blob_len);
}

bool blobmsg_check_attr_list(const struct blob_attr *attr, int type) {
  return blobmsg_check_array(attr, type) >= 0;
}

bool blobmsg_check_attr_list_len(const struct blob_attr *attr, int type, size_t len) {
  return rk::check_array(attr, type, len) >= 0;
}

int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                  void *data, unsigned int len) {
  int early;
  if (!rk::start_parse(policy, policy_len, tb, data, len, &early))
    return early;
  blob_attr *attr;
  size_t rem = len;
  __blob_for_each_attr(attr, data, rem) {
    // Only the name header is needed to match; the full check follows a match.
    if (!blob_is_extended(attr) || blob_len(attr) < sizeof(blobmsg_hdr))
      continue;
    size_t namelen = blobmsg_namelen(reinterpret_cast<const blobmsg_hdr *>(attr->data));
    if (namelen == 0 || blobmsg_hdrlen(static_cast<unsigned int>(namelen)) > blob_len(attr))
      continue;
    const char *name = attr->data + sizeof(blobmsg_hdr);
    for (int i = 0; i < policy_len; i++) {
      if (tb[i] || !policy[i].name)
        continue;
      if (!rk::policy_type_matches(policy[i].type, blobmsg_type(attr)))
        continue;
      if (std::strlen(policy[i].name) != namelen || std::memcmp(policy[i].name, name, namelen) != 0)
        continue;
      if (!rk::check_tree(attr, false, rem))
        return -1;
      tb[i] = attr;
    }
  }
  return 0;
}

int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                        void *data, unsigned int len) {
  int early;
  if (!rk::start_parse(policy, policy_len, tb, data, len, &early))
    return early;
  blob_attr *attr;
  size_t rem = len;
  int i = 0;
  __blob_for_each_attr(attr, data, rem) {
    if (i >= policy_len)
      break;
    if (rk::policy_type_matches(policy[i].type, blobmsg_type(attr))) {
      if (!rk::check_tree(attr, false, rem))
        return -1;
      tb[i] = attr;
    }
    i++;
  }
  return 0;
}

}  // extern "C"
