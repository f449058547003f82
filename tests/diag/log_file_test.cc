// The file family on its own: logfile_printf and logfile_vprintf into files
// of a temp dir. They need no logging state, so these cases run anywhere.
#include <routerkit/log.h>

#include <stdarg.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "rk_test.h"

namespace rk::test {
namespace {

constexpr off_t kLimit = 1048576;

// How a daemon wraps the file writer in a printf-like function of its own.
__attribute__((format(printf, 2, 3))) void daemon_log(const char *path, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  logfile_vprintf(path, fmt, ap);
  va_end(ap);
}

class LogFileTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }
  // Every message opens and closes its file: nothing may stay open.
  void TearDown() override { EXPECT_EQ(OpenFdCount(), fds_); }
  std::string Pid() const { return std::to_string(getpid()); }

  int fds_ = OpenFdCount();
  TempDir dir_;
  std::string path_ = dir_ / "daemon.log";
};

TEST_F(LogFileTest, MessageIsStampedWithTimeAndPid) {
  const mode_t old_mask = umask(0);
  daemon_log(path_.c_str(), "value=%d %s\n", 7, "seven");
  umask(old_mask);
  const std::string content = ReadFile(path_);
  EXPECT_TRUE(std::regex_match(content, std::regex(kLogStamp + Pid() + " value=7 seven\n"))) << content;
  struct stat st;
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST_F(LogFileTest, FileStartsOverOnlyAboveOneMebibyte) {
  const std::regex message(kLogStamp + Pid() + " next\n");
  for (const auto &[size, starts_over] : {std::pair{kLimit - 1, false}, {kLimit, false}, {kLimit + 1, true}}) {
    ASSERT_TRUE(WriteFile(path_, "head\n"));
    ASSERT_EQ(truncate(path_.c_str(), size), 0);
    logfile_printf(path_.c_str(), "next\n");
    const std::string content = ReadFile(path_);
    const size_t kept = starts_over ? 0 : size;
    ASSERT_GE(content.size(), kept) << size;
    EXPECT_TRUE(std::regex_match(content.substr(kept), message)) << size;
    EXPECT_EQ(content.substr(0, std::min<size_t>(5, kept)), std::string("head\n").substr(0, kept)) << size;
  }
}

TEST_F(LogFileTest, MissingDirectoryIsReportedAndNotMade) {
  const std::string path = dir_ / "missing/daemon.log";
  StderrCapture err;
  logfile_printf(path.c_str(), "lost\n");
  EXPECT_EQ(err.Stop(), "open " + path + " fail, errno : No such file or directory\n");
  EXPECT_FALSE(FileExists(dir_ / "missing"));
}

TEST_F(LogFileTest, ConcurrentWritersKeepEachMessageWhole) {
  // Threads of this process and a second process: the lock keeps the three
  // writes of one message together.
  constexpr int kWriters = 4, kMessages = 150;
  const std::string pad(200, 'x');
  auto write_all = [&](int writer) {
    for (int i = 0; i < kMessages; ++i) logfile_printf(path_.c_str(), "w%d m%d %s\n", writer, i, pad.c_str());
    return 0;
  };
  const pid_t other = StartChild([&] { return write_all(kWriters); });
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) threads.emplace_back(write_all, w);
  for (auto &t : threads) t.join();
  ASSERT_EQ(WaitChild(other), 0);

  const std::regex line(std::string(kLogStamp) + R"(\d+(\(\d+\))? (w\d+ m\d+) x{200})");
  std::set<std::string> seen;
  std::istringstream in(ReadFile(path_));
  for (std::string l; std::getline(in, l);) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(l, m, line)) << l;
    EXPECT_TRUE(seen.insert(m[2]).second) << m[2];
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>((kWriters + 1) * kMessages));
}

}  // namespace
}  // namespace rk::test
