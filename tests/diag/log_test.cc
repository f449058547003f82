// The leveled family and the process's own log file, seen from outside: what
// reaches syslog (a socket bound at /dev/log), its copy on standard error,
// /tmp/log and the ".debug" switch in /etc. Every case starts with fresh
// logging state, in its own process and private namespaces.
#include <routerkit/log.h>

#include <sys/syscall.h>
#include <syslog.h>

#include <regex>
#include <thread>
#include <utility>

#include "rk_test.h"

namespace rk::test {
namespace {

// Name, function, the level it needs to be above to emit, the priority sent at.
const struct { const char *name; int (*fn)(const char *, ...); uint32_t threshold; int severity; } kLeveled[] = {
    {"log_debug", log_debug, 5, LOG_DEBUG}, {"log_trace", log_trace, 4, LOG_NOTICE},
    {"log_info", log_info, 3, LOG_INFO},    {"log_warn", log_warn, 2, LOG_WARNING},
    {"log_error", log_error, 1, LOG_ERR},   {"log_fatal", log_fatal, 0, LOG_EMERG},
};

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RK_REQUIRE_NAMESPACE();
    // Logging keeps process-wide state that cannot be reset, so each case
    // must be the first in its process (ctest runs every case alone).
    static bool claimed = false;
    if (std::exchange(claimed, true)) GTEST_SKIP() << "needs fresh logging state: run one case per process";
    ASSERT_TRUE(sink_.ok()) << strerror(errno);
    const std::string own = OwnPath();
    name_ = own.substr(own.rfind('/') + 1).substr(0, 63);  // as the library cuts it
    ASSERT_FALSE(name_.empty());
  }
  std::string DebugFile() const { return "/etc/" + name_ + ".debug"; }
  std::string OwnLogFile() const { return "/tmp/log/" + name_ + ".log"; }
  std::string Pid() const { return std::to_string(getpid()); }
  // What LOG_PERROR puts on standard error for one message.
  std::string StderrCopy(const std::string &text) const { return name_ + "[" + Pid() + "]: " + text + "\n"; }
  std::vector<LogLine> Received() { return sink_.Take(); }
  // Expects exactly one message since the last look, from this process's own
  // syslog set-up (facility LOCAL0, ident = the executable's name).
  void ExpectOne(int severity, const std::string &text, std::string ident = "") {
    if (ident.empty()) ident = name_;
    std::vector<std::string> got;
    for (const LogLine &l : Received())
      got.push_back(std::to_string(l.facility) + "." + std::to_string(l.severity) + " " + l.ident + ": " + l.text);
    EXPECT_EQ(got, std::vector<std::string>{std::to_string(LOG_LOCAL0 >> 3) + "." + std::to_string(severity) + " " +
                                            ident + ": " + text});
  }

  SyslogCapture sink_;
  std::string name_;
};

TEST_F(LogTest, QuietCallsAtTheInitialLevelSetNothingUp) {
  // Even with the switch file there, a call below the level neither probes
  // it nor opens syslog nor makes the log directory.
  ASSERT_TRUE(WriteFile(DebugFile(), ""));
  EXPECT_EQ(log_debug("debug %d", 1), 0);
  EXPECT_EQ(log_trace("trace %d", 2), 0);
  EXPECT_TRUE(Received().empty());
  EXPECT_FALSE(FileExists("/tmp/log"));
  EXPECT_EQ(log_isLevelEnabled(4) * 100 + log_isLevelEnabled(5) * 10 + log_isLevelEnabled(6), 100);
}

TEST_F(LogTest, FirstPassingCallSetsUpSyslogAndTheLogDirectory) {
  StderrCapture err;
  EXPECT_EQ(log_info("hello %s %d", "world", 1), 0);
  ExpectOne(LOG_INFO, "hello world 1");
  EXPECT_EQ(err.Stop(), "");  // no copy on stderr at the initial level
  struct stat st;
  ASSERT_EQ(stat("/tmp/log", &st), 0);
  EXPECT_EQ(st.st_mode, S_IFDIR | 0755u);
  EXPECT_FALSE(FileExists(OwnLogFile()));  // the file waits for the first file message
}

TEST_F(LogTest, DebugFileRaisesTheLevelAtSetUpAndCopiesToStderr) {
  ASSERT_TRUE(WriteFile(DebugFile(), "content is never read"));
  StderrCapture err;
  log_debug("first");  // tested against the level before set-up: dropped
  EXPECT_TRUE(Received().empty());
  EXPECT_EQ(log_isLevelEnabled(6), 0);
  log_info("second");
  ExpectOne(LOG_INFO, "second");
  EXPECT_EQ(log_isLevelEnabled(6), 1);
  log_debug("third");
  ExpectOne(LOG_DEBUG, "third");
  EXPECT_EQ(err.Stop(), StderrCopy("second") + StderrCopy("third"));
}

TEST_F(LogTest, StoredLevelDecidesWhoEmits) {
  for (uint32_t level : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 100u, UINT32_MAX}) {
    ASSERT_EQ(log_setLevel(level), 0);
    for (const auto &l : kLeveled) {
      SCOPED_TRACE(std::string(l.name) + " at level " + std::to_string(level));
      EXPECT_EQ(l.fn("%s says %d", l.name, 42), 0);  // log_fatal returns, too
      const std::vector<LogLine> got = Received();
      ASSERT_EQ(got.size(), level > l.threshold ? 1u : 0u);
      for (const LogLine &line : got)
        EXPECT_EQ(std::to_string(line.severity) + " " + line.text, std::to_string(l.severity) + " " + l.name + " says 42");
    }
    // Compared unsigned: the largest value is not -1, it enables everything.
    for (uint32_t asked : {0u, 1u, 4u, 5u, 6u, 7u, 100u, UINT32_MAX})
      EXPECT_EQ(log_isLevelEnabled(asked), level >= asked ? 1 : 0) << level << " vs " << asked;
  }
}

TEST_F(LogTest, ANewNameChangesTheIdentOnlyAndAnEmptyOneStartsOver) {
  log_info("first");
  ExpectOne(LOG_INFO, "first");
  // At most 63 bytes are stored, null is refused; the file keeps the old name.
  const std::string cut(63, 'n');
  ASSERT_EQ(log_setName(std::string(70, 'n').c_str()), 0);
  EXPECT_EQ(log_setName(nullptr), -1);
  log_info("second");
  ExpectOne(LOG_INFO, "second", cut.substr(0, kSyslogIdentKept));
  log_printf_to_flash("to the old file\n");
  EXPECT_NE(ReadFile(OwnLogFile()).find("to the old file\n"), std::string::npos);
  EXPECT_FALSE(FileExists("/tmp/log/" + cut + ".log"));
  // An empty name means "not set up": the next call takes the executable's
  // name again and remakes the directory.
  ASSERT_EQ(unlink(OwnLogFile().c_str()), 0);
  ASSERT_EQ(rmdir("/tmp/log"), 0);
  ASSERT_EQ(log_setName(""), 0);
  log_info("third");
  ExpectOne(LOG_INFO, "third");
  EXPECT_TRUE(FileExists("/tmp/log"));
  log_printf_to_flash("after %s\n", "restart");
  EXPECT_TRUE(std::regex_match(ReadFile(OwnLogFile()), std::regex(kLogStamp + Pid() + " after restart\n")));
}

TEST_F(LogTest, FlashWritesTheOwnFileWhateverTheLevel) {
  ASSERT_EQ(log_setLevel(0), 0);
  log_printf_to_flash("main %d\n", 1);
  pid_t worker_tid = 0;
  std::thread worker([&] {
    worker_tid = static_cast<pid_t>(syscall(SYS_gettid));
    log_printf_to_flash("worker %s\n", "two");
  });
  worker.join();
  const std::string content = ReadFile(OwnLogFile());
  EXPECT_TRUE(std::regex_match(content, std::regex(kLogStamp + Pid() + " main 1\n" + kLogStamp + Pid() + "\\(" +
                                                   std::to_string(worker_tid) + "\\) worker two\n")))
      << content;
  struct stat st;
  ASSERT_EQ(stat(OwnLogFile().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_TRUE(Received().empty());  // the file family never goes to syslog
}

}  // namespace
}  // namespace rk::test
