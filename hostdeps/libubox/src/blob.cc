// blob buffers (placeholder bodies).
#include <libubox/blob.h>

extern "C" {

int blob_buf_init(struct blob_buf *, int) { return -1; }
void blob_buf_free(struct blob_buf *) {}
bool blob_buf_grow(struct blob_buf *, int) { return false; }
struct blob_attr *blob_new(struct blob_buf *, int, int) { return nullptr; }
struct blob_attr *blob_put(struct blob_buf *, int, const void *, unsigned int) { return nullptr; }
struct blob_attr *blob_put_raw(struct blob_buf *, const void *, unsigned int) { return nullptr; }
void *blob_nest_start(struct blob_buf *, int) { return nullptr; }
void blob_nest_end(struct blob_buf *, void *) {}
void blob_set_raw_len(struct blob_attr *, unsigned int) {}
void blob_fill_pad(struct blob_attr *) {}
struct blob_attr *blob_memdup(struct blob_attr *) { return nullptr; }
bool blob_attr_equal(const struct blob_attr *, const struct blob_attr *) { return false; }
bool blob_check_type(const void *, unsigned int, int) { return false; }
int blob_parse(struct blob_attr *, struct blob_attr **, const struct blob_attr_info *, int) { return 0; }
int blob_parse_untrusted(struct blob_attr *, size_t, struct blob_attr **, const struct blob_attr_info *,
                         int) {
  return 0;
}

}  // extern "C"
