// Nesting as deep as each conversion accepts, and deeper, on a thread with
// the 128 KiB of stack a daemon's thread gets on musl; the DNS name decoder
// and a UCI walk at their longest beside them. Each row prints the stack it
// touched; an optimised build without sanitizers keeps it within 64 KiB.
// Also: conversions whose work stack cannot grow, and blob attributes that
// run one byte past their buffer.
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <json-c/json.h>
#include <lua.hpp>

#include "common/deps.h"
#include "dns/answer.h"
#include "dns/codec.h"
#include "rk_test.h"

#include <routerkit/async_dns.h>
#include <routerkit/data_bridge.h>
#include <routerkit/uci_access.h>

// The work stacks grow with reallocarray, which this program links wrapped.
extern "C" void *__real_reallocarray(void *ptr, size_t n, size_t size);
extern "C" void *__wrap_reallocarray(void *ptr, size_t n, size_t size);
static bool failGrowth = false;
extern "C" void *__wrap_reallocarray(void *ptr, size_t n, size_t size) {
  return failGrowth ? nullptr : __real_reallocarray(ptr, n, size);
}

namespace {

constexpr size_t kThreadStack = 128 * 1024;
constexpr size_t kStackGoal = 64 * 1024;
// The goal holds for an optimised build; sanitizers make frames larger.
#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__)
constexpr bool kCheckGoal = true;
#else
constexpr bool kCheckGoal = false;
#endif
constexpr uint8_t kPaint = 0xa5;

__attribute__((no_sanitize_address)) size_t untouched(const uint8_t *p, size_t n) {
  size_t i = 0;
  while (i < n && p[i] == kPaint) ++i;
  return i;
}

// Runs `job` on a painted stack of kThreadStack bytes with a guard page
// below it; the bytes of it the job touched.
size_t touched(const std::function<void()> &job) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  auto *base = static_cast<uint8_t *>(
      mmap(nullptr, page + kThreadStack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  EXPECT_NE(MAP_FAILED, base);
  mprotect(base, page, PROT_NONE);
  memset(base + page, kPaint, kThreadStack);
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstack(&attr, base + page, kThreadStack);
  pthread_t thread;
  auto run = [](void *j) -> void * { return (*static_cast<const std::function<void()> *>(j))(), nullptr; };
  EXPECT_EQ(0, pthread_create(&thread, &attr, run, const_cast<std::function<void()> *>(&job)));
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  const size_t used = kThreadStack - untouched(base + page, kThreadStack);
  munmap(base, page + kThreadStack);
  return used;
}

// The stack `job` needs beyond a thread that does nothing, reported.
void onSmallStack(const std::string &what, const std::function<void()> &job) {
  static const size_t idle = touched([] {});
  const size_t all = touched(job), used = all > idle ? all - idle : 0;
  printf("[  stack   ] %-34s %6zu bytes\n", what.c_str(), used);
  EXPECT_TRUE(!kCheckGoal || used <= kStackGoal) << what << ": " << used << " bytes";
}

// A Lua state with `levels` tables at index 1, each the next one's `field`.
struct LuaChain {
  lua_State *L = luaL_newstate();
  LuaChain(int levels, const char *field) {
    luaL_openlibs(L);
    std::string chunk = "local t = {} local c = t for i = 2, " + std::to_string(levels) +
                        " do local n = {} c" + field + " = n c = n end return t";
    EXPECT_EQ(0, luaL_dostring(L, chunk.c_str()));
  }
  ~LuaChain() { lua_close(L); }
  // Levels of tables of the value on top, which is popped.
  int depth() {
    luaL_dostring(L, "return function(v) local d = 0 while type(v) == 'table' do "
                     "d = d + 1 v = v[1] or v.k or v[''] end return d end");
    lua_insert(L, -2);
    lua_call(L, 1, 1);
    int d = static_cast<int>(lua_tointeger(L, -1));
    lua_pop(L, 1);
    return d;
  }
};

json_object *child(json_object *j) {
  json_object *c = nullptr;
  if (json_object_is_type(j, json_type_array) && json_object_array_length(j) > 0) c = json_object_array_get_idx(j, 0);
  if (json_object_is_type(j, json_type_object)) json_object_object_get_ex(j, "k", &c);
  return c;
}

// Levels of a chain of containers; and its release, which json_object_put
// would do with one C frame per level.
int depth(json_object *j) {
  int d = 0;
  for (; json_object_is_type(j, json_type_array) || json_object_is_type(j, json_type_object); j = child(j)) d++;
  return d;
}
void release(json_object *j) {
  while (j) {
    json_object *c = json_object_get(child(j));
    json_object_put(j);
    j = c;
  }
}

json_object *jsonChain(int levels, bool objects) {
  json_object *j = json_object_new_int(1);
  for (int i = 0; i < levels; ++i) {
    json_object *outer = objects ? json_object_new_object() : json_object_new_array();
    objects ? json_object_object_add(outer, "k", j) : json_object_array_add(outer, j);
    j = outer;
  }
  return j;
}

// `levels` arrays in one another, behind a named array of the same kind when
// `named` (a run for blob_to_lua).
std::vector<uint8_t> blobChain(uint32_t levels, bool named) {
  std::vector<uint8_t> bytes(levels * 4 + (named ? 8 : 0));
  uint32_t at = 0;
  if (named) {
    uint32_t w = htobe32(0x81000000u | uint32_t(bytes.size()));
    memcpy(&bytes[0], &w, 4);
    at = 8;
  }
  for (uint32_t i = 0; i < levels; ++i, at += 4) {
    uint32_t w = htobe32(0x01000000u | uint32_t(bytes.size() - at));
    memcpy(&bytes[at], &w, 4);
  }
  return bytes;
}

struct Buf {
  blob_buf b{};
  Buf() { blob_buf_init(&b, 0); }
  ~Buf() { blob_buf_free(&b); }
  uint32_t len() const { return blob_len(b.head); }
};

// Deeper than each conversion goes: the Lua stack (8000 slots a C frame)
// holds 7998 levels of arrays, one slot each, or 2666 of objects, three
// each; the blob readers stop at RK_BLOB_MAX_DEPTH; json_to_blob has no
// limit but its buffer's. Arrays write 16 bytes a level to blobmsg, wrapper
// included, named objects 8, JSON arrays 8.
TEST(DeepValues, ConvertOnASmallStack) {
  const struct {
    const char *field, *shape;
    int levels;
    uint32_t bytes;
  } rows[] = {{"[1]", " 20000 arrays", 7998, 7998 * 16}, {".k", " 20000 objects", 2666, 2665 * 8}};
  for (auto &r : rows) {
    LuaChain lua(20000, r.field);
    json_object *j = nullptr;
    Buf buf;
    onSmallStack(std::string("lua_to_json") + r.shape, [&] { j = lua_to_json(lua.L, 1); });
    onSmallStack(std::string("lua_to_blob") + r.shape, [&] { lua_to_blob(lua.L, 1, &buf.b); });
    EXPECT_EQ(r.levels, depth(j));
    EXPECT_EQ(r.bytes, buf.len());
    release(j);
  }
  for (bool objects : {false, true}) {
    json_object *j = jsonChain(100000, objects);
    LuaChain lua(1, "");
    Buf buf;
    const std::string shape = objects ? " 100000 objects" : " 100000 arrays";
    onSmallStack("json_to_lua" + shape, [&] { json_to_lua(lua.L, j); });
    onSmallStack("json_to_blob" + shape, [&] { json_to_blob(&buf.b, j); });
    EXPECT_EQ(7999, lua.depth());
    EXPECT_EQ(uint32_t((objects ? 99999 : 100000) * 8 + 12), buf.len());  // and the innermost 1
    release(j);
  }
  std::vector<uint8_t> run = blobChain(100000, true);
  json_object *j = nullptr;
  LuaChain lua(1, "");
  onSmallStack("blob_to_json 100000 arrays", [&] { j = blob_to_json((blob_attr *)&run[8]); });
  onSmallStack("blob_to_lua 100000 arrays", [&] { blob_to_lua(lua.L, (blob_attr *)run.data(), uint32_t(run.size())); });
  EXPECT_EQ(RK_BLOB_MAX_DEPTH, depth(j));
  EXPECT_EQ(RK_BLOB_MAX_DEPTH + 1, lua.depth());  // the run's own table
  release(j);
}

// A tree the conversion releases itself: a deep member replaced by a later
// one of the same name, in a Lua table (1 and "1") and in a blob table.
TEST(DeepValues, ReplacedMembersAreReleasedOnASmallStack) {
  LuaChain lua(1, "");
  // lua_next meets 1, in the array part, before '1'.
  luaL_dostring(lua.L, "local t = {} local c = t for i = 1, 7000 do c[1] = {} c = c[1] end "
                       "local r = {t} r['1'] = 2 return r");
  json_object *j = nullptr;
  onSmallStack("lua_to_json, deep member replaced", [&] { j = lua_to_json(lua.L, -1); });
  EXPECT_STREQ("{\"1\":2}", json_object_to_json_string_ext(j, JSON_C_TO_STRING_PLAIN));
  json_object_put(j);
  // {"": 512 arrays, "": 1}
  std::vector<uint8_t> bytes = rk::test::Hex("02000000"), deep = blobChain(511, true);
  bytes.insert(bytes.end(), deep.begin(), deep.end());
  for (uint8_t b : rk::test::Hex("8500000c 00000000 00000001")) bytes.push_back(b);
  const uint32_t word = htobe32(0x02000000u | uint32_t(bytes.size()));
  memcpy(&bytes[0], &word, 4);
  onSmallStack("blob_to_json, deep member replaced", [&] { j = blob_to_json((blob_attr *)bytes.data()); });
  EXPECT_STREQ("{\"\":1}", json_object_to_json_string_ext(j, JSON_C_TO_STRING_PLAIN));
  json_object_put(j);
}

TEST(DeepValues, DnsNamesAndUciWalksOnASmallStack) {
  // The longest name the decoder reads: 127 labels of one letter.
  std::vector<uint8_t> datagram = rk::test::Hex("1234 8180 0001 0001 0000 0000");
  for (int i = 0; i < 127; ++i) datagram.insert(datagram.end(), {1, 'a'});
  for (uint8_t b : rk::test::Hex("00 0001 0001 c00c 0001 0001 0000003c 0004 0a000001")) datagram.push_back(b);
  char name[rk::dns::kNameBufferSize];
  onSmallStack("ChangeLabelsToDnsName 254 bytes", [&] {
    rk::dns::ChangeLabelsToDnsName(name, rk::dns::WireView(&datagram[12], datagram.size() - 12));
  });
  EXPECT_EQ(253u, strlen(name));
  static int answers = 0;
  AsyncDnsContext *ctx = asyncDns_create([](AsyncDnsContext *, const char *, DnsResult *r) { return answers += r->count, 0; });
  ctx->id = htons(0x1234);
  sockaddr_storage from{};
  from.ss_family = AF_INET;
  onSmallStack("processDatagram, longest name", [&] {
    rk::dns::processDatagram(ctx, datagram.data(), datagram.size(), &from);
  });
  asyncDns_destroy(ctx);
  EXPECT_EQ(1, answers);

  rk::test::TempDir dir;
  std::string text;
  for (int i = 0; i < 2000; ++i) text += "config item 's" + std::to_string(i) + "'\n\toption name 'n'\n\tlist l 'a'\n\n";
  ASSERT_TRUE(rk::test::WriteFile(dir / "pkg", text + "config last 'end'\n\toption x 'found'\n"));
  const std::string pkg = dir / "pkg";
  char out[16] = "";
  int got = -1;
  onSmallStack("uciGetOptionString 2001 sections", [&] {
    got = uciGetOptionString(pkg.c_str(), "last", nullptr, "x", out, sizeof out);
  });
  EXPECT_EQ(0, got);
  EXPECT_STREQ("found", out);
}

// Deeper than the inline frames, with no memory for more: each conversion
// gives its failure result and leaves nothing behind (the sanitizer build
// checks the leaks).
TEST(DeepValues, WorkStackThatCannotGrow) {
  LuaChain lua(100, "[1]");
  json_object *j = jsonChain(100, false);
  std::vector<uint8_t> bytes = blobChain(100, true);
  Buf buf;
  failGrowth = true;
  json_object *fromLua = lua_to_json(lua.L, 1);
  const int toBlob = lua_to_blob(lua.L, 1, &buf.b);
  json_to_blob(&buf.b, j);
  json_object *fromBlob = blob_to_json((blob_attr *)&bytes[8]);
  json_to_lua(lua.L, j);
  const int toLua = blob_to_lua(lua.L, (blob_attr *)bytes.data(), uint32_t(bytes.size()));
  failGrowth = false;
  EXPECT_EQ(nullptr, fromLua);
  EXPECT_EQ(0, toBlob);
  EXPECT_EQ(0u, buf.len());
  EXPECT_EQ(nullptr, fromBlob);
  EXPECT_EQ(0, toLua);
  EXPECT_EQ(3, lua_gettop(lua.L));
  EXPECT_TRUE(lua_isnil(lua.L, 2) && lua_isnil(lua.L, 3));
  release(j);
}

// A last attribute that claims one byte more than its buffer holds, in
// buffers of the exact size: it is not read, and nothing behind the buffer is.
TEST(HostileBlobs, AttributeOneBytePastItsBuffer) {
  const struct {
    const char *bytes;
    const char *json;  // blob_to_json of the whole; NULL: read as a run by blob_to_lua
  } rows[] = {
      {"02000014 8500000c 00016100 00000007 03000005", "{\"a\":7}"},
      {"01000010 05000008 00000007 03000005", "[7]"},
      {"01000014 05000008 00000007 03000009 61626364", "[7]"},
      {"8500000c 00016100 00000007 8300000c 00016200 616263", nullptr},
      {"8500000c 00016100 00000007 8500000d 00016200 00000008", nullptr},
  };
  for (auto &r : rows) {
    const std::vector<uint8_t> hex = rk::test::Hex(r.bytes);
    std::vector<uint8_t> bytes(hex);  // a copy holds no spare capacity behind its bytes
    if (r.json) {
      json_object *j = blob_to_json((blob_attr *)bytes.data());
      EXPECT_STREQ(r.json, json_object_to_json_string_ext(j, JSON_C_TO_STRING_PLAIN)) << r.bytes;
      json_object_put(j);
      continue;
    }
    LuaChain lua(1, "");
    EXPECT_EQ(0, blob_to_lua(lua.L, (blob_attr *)bytes.data(), uint32_t(bytes.size())));
    lua_getfield(lua.L, -1, "a");
    lua_getfield(lua.L, -2, "b");
    EXPECT_EQ(7, lua_tointeger(lua.L, -2)) << r.bytes;
    EXPECT_TRUE(lua_isnil(lua.L, -1)) << r.bytes;
  }
}

}  // namespace
