// blobmsg (placeholder bodies).
#include <libubox/blobmsg.h>

extern "C" {

bool blobmsg_check_attr(const struct blob_attr *, bool) { return false; }
bool blobmsg_check_attr_len(const struct blob_attr *, bool, size_t) { return false; }
bool blobmsg_check_attr_list(const struct blob_attr *, int) { return false; }
bool blobmsg_check_attr_list_len(const struct blob_attr *, int, size_t) { return false; }
int blobmsg_check_array(const struct blob_attr *, int) { return -1; }
int blobmsg_check_array_len(const struct blob_attr *, int, size_t) { return -1; }
int blobmsg_parse(const struct blobmsg_policy *, int, struct blob_attr **, void *, unsigned int) { return -1; }
int blobmsg_parse_array(const struct blobmsg_policy *, int, struct blob_attr **, void *, unsigned int) {
  return -1;
}
int blobmsg_add_field(struct blob_buf *, int, const char *, const void *, unsigned int) { return -1; }
void *blobmsg_open_nested(struct blob_buf *, const char *, bool) { return nullptr; }
void *blobmsg_alloc_string_buffer(struct blob_buf *, const char *, unsigned int) { return nullptr; }
void *blobmsg_realloc_string_buffer(struct blob_buf *, unsigned int) { return nullptr; }
void blobmsg_add_string_buffer(struct blob_buf *) {}
int blobmsg_vprintf(struct blob_buf *, const char *, const char *, va_list) { return -1; }
int blobmsg_printf(struct blob_buf *, const char *, const char *, ...) { return -1; }

}  // extern "C"
