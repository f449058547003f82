// Nesting as deep as each conversion accepts, and deeper, on a thread with
// the 128 KiB of stack a daemon's thread gets on musl; the DNS name decoder
// and a UCI walk at their longest beside them. Each row prints the stack it
// touched; an optimised build without sanitizers keeps it within 64 KiB.
// Also: conversions whose work stack cannot grow, and blob attributes that
// run one byte past their buffer.
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <json-c/json.h>
#include <lua.hpp>

#include "common/deps.h"
#include "dns/answer.h"
#include "rk_test.h"

#include <routerkit/async_dns.h>
#include <routerkit/data_bridge.h>
#include <routerkit/uci_access.h>

// The work stacks grow with reallocarray, which this program defines for
// itself (a static link takes it before the C library's): it fails while
// failGrowth is set.
static bool failGrowth = false;
extern "C" void *reallocarray(void *ptr, size_t n, size_t size) {
  if (failGrowth || (size && n > SIZE_MAX / size)) return errno = ENOMEM, nullptr;
  return realloc(ptr, n * size);
}

namespace {

constexpr size_t kThreadStack = 128 * 1024;
#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__)
constexpr size_t kStackGoal = 64 * 1024;
#else
constexpr size_t kStackGoal = kThreadStack;  // sanitizers make frames larger
#endif
constexpr uint8_t kPaint = 0xa5;

// Runs `job` on a painted stack of kThreadStack bytes with a guard page
// below it; the bytes of it the job touched (read behind ASan's back).
__attribute__((no_sanitize_address)) size_t touched(const std::function<void()> &job) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE)), size = page + kThreadStack;
  auto *base = static_cast<uint8_t *>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  EXPECT_EQ(0, mprotect(base, page, PROT_NONE));
  memset(base + page, kPaint, kThreadStack);
  pthread_attr_t attr;
  pthread_t thread;
  pthread_attr_init(&attr);
  pthread_attr_setstack(&attr, base + page, kThreadStack);
  auto run = [](void *j) -> void * { return (*static_cast<const std::function<void()> *>(j))(), nullptr; };
  EXPECT_EQ(0, pthread_create(&thread, &attr, run, const_cast<std::function<void()> *>(&job)));
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  size_t untouched = 0;
  while (untouched < kThreadStack && base[page + untouched] == kPaint) ++untouched;
  munmap(base, size);
  return kThreadStack - untouched;
}

// The stack `job` needs beyond a thread that does nothing, reported.
void onSmallStack(const std::string &what, const std::function<void()> &job) {
  static const size_t idle = touched([] {});
  const size_t all = touched(job), used = all > idle ? all - idle : 0;
  printf("[  stack   ] %-34s %6zu bytes\n", what.c_str(), used);
  EXPECT_LE(used, kStackGoal) << what;
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
  // Levels of tables of the value on top, which the count replaces.
  int depth() {
    lua_setglobal(L, "v");
    luaL_dostring(L, "local d, v = 0, v while type(v) == 'table' do d = d + 1 v = v[1] or v.k or v[''] end return d");
    return static_cast<int>(lua_tointeger(L, -1));
  }
};

// Levels of containers in a chain of them, released one by one, which
// json_object_put would do with one C frame per level.
int release(json_object *j) {
  int levels = 0;
  for (json_object *next; j != nullptr; j = next) {
    const bool array = json_object_is_type(j, json_type_array);
    if (array || json_object_is_type(j, json_type_object)) levels++;
    next = json_object_get(array ? json_object_array_get_idx(j, 0) : json_object_object_get(j, "k"));
    json_object_put(j);
  }
  return levels;
}

// Its plain text; released.
std::string plain(json_object *j) {
  const std::string text = json_object_to_json_string_ext(j, JSON_C_TO_STRING_PLAIN);
  json_object_put(j);
  return text;
}

json_object *jsonChain(int levels, bool objects) {
  json_object *j = json_object_new_int(1);
  for (json_object *outer; levels-- > 0; j = outer) {
    outer = objects ? json_object_new_object() : json_object_new_array();
    objects ? json_object_object_add(outer, "k", j) : json_object_array_add(outer, j);
  }
  return j;
}

struct Buf {
  blob_buf b{};
  explicit Buf(int id = 0) { blob_buf_init(&b, id); }
  ~Buf() { blob_buf_free(&b); }
  uint32_t len() const { return blob_len(b.head); }
  blob_attr *data() const { return static_cast<blob_attr *>(blob_data(b.head)); }  // its first attribute
  // `levels` arrays in one another, each named "" (blobmsg names array members too).
  void nest(size_t levels) {
    std::vector<void *> open(levels);
    for (void *&o : open) o = blobmsg_open_array(&b, "");
    for (size_t i = levels; i-- > 0;) blobmsg_close_array(&b, open[i]);
  }
};

// Deeper than each conversion goes: the Lua stack (8000 slots a C frame)
// holds 7998 levels of arrays, one slot each, or 2666 of objects, three
// each; the blob readers stop at RK_BLOB_MAX_DEPTH; json_to_blob has no
// limit but its buffer's. Arrays write 16 bytes a level to blobmsg, wrapper
// included, named objects 8, JSON arrays 8.
TEST(DeepValues, ConvertOnASmallStack) {
  for (bool objects : {false, true}) {
    const std::string shape = objects ? " objects" : " arrays";
    LuaChain lua(20000, objects ? ".k" : "[1]");
    json_object *fromLua = nullptr, *deep = jsonChain(100000, objects);
    Buf blobOfLua, blobOfJson;
    onSmallStack("lua_to_json 20000" + shape, [&] { fromLua = lua_to_json(lua.L, 1); });
    onSmallStack("lua_to_blob 20000" + shape, [&] { lua_to_blob(lua.L, 1, &blobOfLua.b); });
    onSmallStack("json_to_lua 100000" + shape, [&] { json_to_lua(lua.L, deep); });
    onSmallStack("json_to_blob 100000" + shape, [&] { json_to_blob(&blobOfJson.b, deep); });
    EXPECT_EQ(objects ? 2666 : 7998, release(fromLua));
    EXPECT_EQ(objects ? 2665u * 8 : 7998u * 16, blobOfLua.len());
    EXPECT_EQ(7999, lua.depth());
    EXPECT_EQ((objects ? 99999u : 100000u) * 8 + 12, blobOfJson.len());  // and the innermost 1
    release(deep);
  }
  Buf run;
  run.nest(100000);
  json_object *j = nullptr;
  LuaChain lua(1, "");
  onSmallStack("blob_to_json 100000 arrays", [&] { j = blob_to_json(run.data()); });
  onSmallStack("blob_to_lua 100000 arrays", [&] { blob_to_lua(lua.L, run.data(), run.len()); });
  EXPECT_EQ(RK_BLOB_MAX_DEPTH, release(j));
  EXPECT_EQ(RK_BLOB_MAX_DEPTH + 1, lua.depth());  // the run's own table
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
  EXPECT_EQ("{\"1\":2}", plain(j));
  Buf table(BLOBMSG_TYPE_TABLE);  // {"": 512 arrays, "": 1}
  table.nest(512);
  blobmsg_add_u32(&table.b, "", 1);
  onSmallStack("blob_to_json, deep member replaced", [&] { j = blob_to_json(table.b.head); });
  EXPECT_EQ("{\"\":1}", plain(j));
}

TEST(DeepValues, DnsNamesAndUciWalksOnASmallStack) {
  std::string labels;  // the longest name the decoder reads: 127 labels of one letter
  for (int i = 0; i < 127; ++i) labels += "01 'a ";
  const std::vector<uint8_t> dg =
      rk::test::Hex("1234 8180 0001 0001 0000 0000 " + labels + "00 0001 0001 c00c 0001 0001 0000003c 0004 0a000001");
  static std::string answered;
  AsyncDnsContext *ctx = asyncDns_create([](AsyncDnsContext *, const char *n, DnsResult *) { return answered = n, 0; });
  ctx->id = htons(0x1234);
  sockaddr_storage from{};
  from.ss_family = AF_INET;
  onSmallStack("processDatagram, longest name", [&] { rk::dns::processDatagram(ctx, dg.data(), dg.size(), &from); });
  asyncDns_destroy(ctx);
  EXPECT_EQ(253u, answered.size());

  rk::test::TempDir dir;
  std::string text;
  for (int i = 0; i < 2000; ++i) text += "config item 's" + std::to_string(i) + "'\n\toption n 'n'\n\tlist l 'a'\n\n";
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
  Buf buf, run;
  run.nest(100);
  failGrowth = true;
  EXPECT_EQ(nullptr, lua_to_json(lua.L, 1));
  EXPECT_EQ(0, lua_to_blob(lua.L, 1, &buf.b));
  json_to_blob(&buf.b, j);
  EXPECT_EQ(nullptr, blob_to_json(run.data()));
  json_to_lua(lua.L, j);
  EXPECT_EQ(0, blob_to_lua(lua.L, run.data(), run.len()));
  failGrowth = false;
  EXPECT_EQ(0u, buf.len());
  EXPECT_EQ(3, lua_gettop(lua.L));
  EXPECT_TRUE(lua_isnil(lua.L, 2) && lua_isnil(lua.L, 3));
  release(j);
}

// A last attribute that claims one byte more than its buffer holds, in
// buffers of the exact size: it is not read, and nothing behind the buffer is.
// A run (a table's members without the table) is read by blob_to_lua.
TEST(HostileBlobs, AttributeOneBytePastItsBuffer) {
  const struct { const char *bytes, *json; bool run; } rows[] = {
      {"02000014 8500000c 00016100 00000007 03000005", "{\"a\":7}", false},
      {"01000010 05000008 00000007 03000005", "[7]", false},
      {"01000014 05000008 00000007 03000009 61626364", "[7]", false},
      {"8500000c 00016100 00000007 8300000c 00016200 616263", "{\"a\":7}", true},
      {"8500000c 00016100 00000007 8500000d 00016200 00000008", "{\"a\":7}", true},
  };
  for (auto &r : rows) {
    const std::vector<uint8_t> hex = rk::test::Hex(r.bytes);
    std::vector<uint8_t> bytes(hex);  // a copy holds no spare capacity behind its bytes
    LuaChain lua(1, "");
    auto *attr = reinterpret_cast<blob_attr *>(bytes.data());
    EXPECT_TRUE(!r.run || blob_to_lua(lua.L, attr, uint32_t(bytes.size())) == 0);
    EXPECT_EQ(r.json, plain(r.run ? lua_to_json(lua.L, -1) : blob_to_json(attr))) << r.bytes;
  }
}

}  // namespace
