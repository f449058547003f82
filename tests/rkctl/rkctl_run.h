// Running rkctl as a user does, for the tests of tests/rkctl: a row of
// arguments, expected exit code, standard output (compared as JSON when the
// row has --json) and a piece of standard error; dnsmasq as a DNS server.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json-c/json.h>

#include "rk_test.h"

namespace rk::test {

struct Result { int rc = -1; std::string out, err; };

// PROGRAM ARGS..., under the target's emulator in a cross build.
inline Result RunProgram(const std::string &program, std::vector<std::string> words) {
  TempDir dir;
  words.insert(words.begin(), program);
  if (const char *emulator = getenv("RK_EMULATED")) words.insert(words.begin(), emulator);
  std::vector<char *> argv;
  for (auto &w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, (dir / "out").c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(&fa, 2, (dir / "err").c_str(), O_WRONLY | O_CREAT, 0600);
  Result r;
  pid_t pid;
  int status = 0;
  if (posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ) == 0 && waitpid(pid, &status, 0) == pid)
    r.rc = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  posix_spawn_file_actions_destroy(&fa);
  r.out = ReadFile(dir / "out");
  r.err = ReadFile(dir / "err");
  return r;
}

inline Result Start(const std::vector<std::string> &args) { return RunProgram(RKCTL, args); }

// The cases write the fixed paths, so they run only in the namespace harness.
class InNamespace : public ::testing::Test {
 protected:
  void SetUp() override { RK_REQUIRE_NAMESPACE(); }
};

// `out` is exact (compared as JSON when the row has --json); `err` is a piece
// of standard error ("" for none at all).
struct Row { std::vector<std::string> args; int rc; std::string out, err; };

inline void Check(const std::vector<Row> &rows) {
  for (const Row &row : rows) {
    std::string line;
    for (const auto &a : row.args) line += " " + a;
    SCOPED_TRACE("rkctl" + line);
    Result r = Start(row.args);
    EXPECT_EQ(r.rc, row.rc) << r.err;
    if (line.find("--json") != std::string::npos) {
      json_object *got = json_tokener_parse(r.out.c_str()), *want = json_tokener_parse(row.out.c_str());
      EXPECT_TRUE(got && json_object_equal(got, want)) << r.out;
      json_object_put(got);
      json_object_put(want);
    } else {
      EXPECT_EQ(r.out, row.out);
    }
    EXPECT_TRUE(row.err.empty() ? r.err.empty() : r.err.find(row.err) != std::string::npos) << r.err;
  }
}

}  // namespace rk::test
