// The walks over nested values keep one frame per open container in a stack
// of their own rather than in C frames, so that the C stack a conversion
// needs does not grow with the nesting: a daemon's thread may have no more
// than 128 KiB of it, and a value from outside may be nested as deep as it
// likes. And what a conversion releases of a tree it built, it releases
// without json-c's own recursion.
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

namespace rk::bridge {

// Frames held inside the stack itself, on its owner's C frame: the usual
// nesting needs no allocation.
constexpr uint32_t kInlineFrames = 32;

// Frames of a walk, innermost last. Trivially destructible, so that a Lua
// error may jump over the record that holds it: its owner calls release()
// on every path, after the protected run.
template <typename Frame>
class WorkStack {
 public:
  // User-provided, so that the frames are left uninitialised; the records
  // that hold a stack are default-initialised, not brace-initialised, since
  // the compiler clears a whole aggregate before filling it.
  WorkStack() noexcept {}
  WorkStack(const WorkStack &) = delete;
  WorkStack &operator=(const WorkStack &) = delete;

  // A new frame on top, for the caller to fill; NULL when the heap refuses
  // room for it (the stack is then as it was).
  Frame *push() noexcept {
    if (depth_ == room_ && !grow()) return nullptr;
    return &frames_[depth_++];
  }
  void pop() noexcept { --depth_; }
  bool empty() const noexcept { return depth_ == 0; }
  uint32_t depth() const noexcept { return depth_; }
  Frame &top() noexcept { return frames_[depth_ - 1]; }
  Frame &operator[](uint32_t i) noexcept { return frames_[i]; }
  // Frames from `from` up are free for other use: as many as the stack had
  // room for while it held a tree rooted at level `from`.
  Frame *spareFrom(uint32_t from, uint32_t *count) noexcept {
    *count = room_ - from;
    return frames_ + from;
  }
  void release() noexcept {
    if (frames_ != inline_) free(frames_);
    frames_ = inline_;
    room_ = kInlineFrames;
    depth_ = 0;
  }

 private:
  bool grow() noexcept {
    if (room_ > UINT32_MAX / 2) return false;
    const uint32_t room = room_ * 2;
    void *grown = reallocarray(frames_ == inline_ ? nullptr : frames_, room, sizeof(Frame));
    if (!grown) return false;
    if (frames_ == inline_) memcpy(grown, inline_, sizeof inline_);
    frames_ = static_cast<Frame *>(grown);
    room_ = room;
    return true;
  }

  Frame *frames_ = inline_;
  uint32_t depth_ = 0;
  uint32_t room_ = kInlineFrames;
  Frame inline_[kInlineFrames];
};

// Levels of containers that json_object_put may free by its own recursion
// on the library's behalf; a deeper tree goes through releaseTree.
constexpr uint32_t kPutLevels = 32;

inline bool isContainer(json_type type) noexcept {
  return type == json_type_array || type == json_type_object;
}
inline bool isContainer(json_object *obj) noexcept { return isContainer(json_object_get_type(obj)); }

// Takes one child out of the container `obj` into *child (NULL for a JSON
// null) with the reference `obj` held: false when `obj` is empty.
inline bool takeChild(json_object *obj, json_object **child) noexcept {
  if (json_object_get_type(obj) == json_type_array) {
    const size_t n = json_object_array_length(obj);
    if (n == 0) return false;
    // Held once more first, so that the delete only drops the array's hold.
    *child = json_object_get(json_object_array_get_idx(obj, n - 1));
    json_object_array_del_idx(obj, n - 1, 1);
    return true;
  }
  lh_table *members = json_object_get_object(obj);
  lh_entry *entry = lh_table_head(members);
  if (!entry) return false;
  *child = json_object_get(static_cast<json_object *>(lh_entry_v(entry)));
  lh_table_delete_entry(members, entry);
  return true;
}

// Releases `tree`, every node of which is held once, taking its containers
// apart child by child, deepest first, so that json_object_put only ever
// meets an empty one. `spare` holds `count` frames with a `node` member for
// the containers on the way down: at least the tree's levels.
template <typename Frame>
void releaseTree(json_object *tree, Frame *spare, uint32_t count) noexcept {
  uint32_t depth = 0;
  json_object *node = tree;
  for (;;) {
    json_object *child;
    if (isContainer(node) && takeChild(node, &child)) {
      if (isContainer(child) && depth < count) {
        spare[depth++].node = node;
        node = child;
      } else {
        json_object_put(child);
      }
      continue;
    }
    json_object_put(node);
    if (depth == 0) return;
    node = spare[--depth].node;
  }
}

}  // namespace rk::bridge
