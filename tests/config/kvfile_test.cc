// Values from key/value files and from the factory tool. The file cases use
// files in a temp dir; the cases that look at the error log (a socket bound
// at /dev/log) or install a /usr/bin/factory run in the private namespaces.
#include <routerkit/config.h>

#include <syslog.h>

#include <tuple>

#include "rk_test.h"

namespace rk::test {
namespace {

constexpr char kFill = '#';
constexpr int kOutCapacity = 128;

// A caller's buffer, pre-filled so that "not written" can be seen, behind a
// blank that no reader may trim into.
struct Out {
  Out() { memset(bytes, kFill, sizeof bytes); }
  char before = ' ';
  bool untouched() const { return std::string(bytes, sizeof bytes) == std::string(sizeof bytes, kFill); }
  // The string written, if a terminator was written.
  std::string text() const { return std::string(bytes, strnlen(bytes, sizeof bytes)); }
  char bytes[kOutCapacity];
};

class KvTest : public ::testing::Test {
 protected:
  void SetUp() override { fds_ = OpenFdCount(); }
  // Every path out of the readers closes what they opened.
  void TearDown() override { EXPECT_EQ(OpenFdCount(), fds_); }
  int fds_ = 0;
};

// "<result> <text written>", the text "<untouched>" when nothing was.
constexpr const char *kUntouched = "<untouched>";
std::string Written(int result, const Out &out) {
  return std::to_string(result) + " " + (out.untouched() ? kUntouched : out.text());
}

// What, file content, key, size, result, text
const std::tuple<const char *, std::string, std::string, int, int, std::string> kFileCases[] = {
    {"tabs around :, trailing blanks", "a\t:\t1 \t \t\n", "a", 64, 1, "1"},
    {"blanks inside stay", "a=b c  d  \n", "a", 64, 6, "b c  d"},
    {"second =", "a==x\n", "a", 64, 2, "=x"},
    {"CR mid-line", "a=x\ry\n", "a", 64, 1, "x"},
    {"last line without LF", "b=1\na=last", "a", 64, 4, "last"},
    {"blank value", "a=   \n", "a", 64, 0, ""},
    {"key not at first byte", "  a=1\n", "a", 64, 0, kUntouched},
    {"first match wins, even empty", "a=\na=2\n", "a", 64, 0, ""},
    {"longer key", "snmp=1\n", "sn", 64, 0, kUntouched},
    {"size 1, found", "a=1\n", "a", 1, 0, ""},
    {"cut, then trimmed", "a=ab   cd\n", "a", 5, 2, "ab"},
    {"long value behind a 1-byte key", "a=" + std::string(70, 'v') + "\n", "a", 128, 61, std::string(61, 'v')},
    {"rest of a long line is a line", std::string(63, 'z') + "sn=tail\n", "sn", 64, 4, "tail"},
    {"62-byte key: separator ends the piece", std::string(62, 'k') + "=value\n", std::string(62, 'k'), 64, 0, ""},
    {"63-byte key never matches", std::string(63, 'k') + "=value\n", std::string(63, 'k'), 64, 0, kUntouched},
    {"empty key, blanks and colon", "b=1\n \t: y\n", "", 64, 1, "y"},
};

TEST_F(KvTest, FileLineFormsAndEdges) {
  TempDir dir;
  const std::string path = dir / "values";
  for (const auto &[what, content, key, size, result, text] : kFileCases) {
    ASSERT_TRUE(WriteFile(path, content));
    Out out;
    const int rc = getValueFromFile(path.c_str(), key.c_str(), out.bytes, size);
    EXPECT_EQ(Written(rc, out), std::to_string(result) + " " + text) << what;
    EXPECT_EQ(out.before, ' ');
  }
}

TEST_F(KvTest, FileBadArgumentsAndUnreadableFilesAreLoggedAndRefused) {
  RK_REQUIRE_NAMESPACE();
  SyslogCapture sink;
  ASSERT_TRUE(sink.ok());
  TempDir dir;
  const std::string path = dir / "values";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  const std::string null_value = "E [getValueFromFile:N]getVersionInfoFromFile value is NULL";
  const struct { const char *path, *key; bool out; int size; std::string log; } cases[] = {
      {nullptr, "a", true, 64, null_value}, {path.c_str(), nullptr, true, 64, null_value},
      {path.c_str(), "a", false, 64, null_value}, {path.c_str(), "a", true, 0, null_value},
      {"/etc/no-such-file", "serial", true, 64, "E [getValueFromFile:N]open /etc/no-such-file for read key=serial ERROR"}};
  for (const auto &c : cases) {
    Out out;
    EXPECT_EQ(getValueFromFile(c.path, c.key, c.out ? out.bytes : nullptr, c.size), -1);
    EXPECT_TRUE(out.untouched());
    const std::vector<LogLine> lines = sink.Take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(std::to_string(lines[0].facility) + " " + lines[0].Normalized(), "16 " + c.log);  // LOG_LOCAL0
  }
  closelog();  // syslog's own connection is not the reader's to keep
}

// Installs a /usr/bin/factory that prints `output` and records its arguments
// in /tmp/factory.args. It exits with 1: the status is not looked at.
void InstallTool(const std::string &output) {
  ASSERT_TRUE(WriteFile("/tmp/factory.out", output));
  unlink("/tmp/factory.args");
  ASSERT_TRUE(WriteFile("/usr/bin/factory",
                        "#!/bin/sh\nprintf '%s' \"$*\" > /tmp/factory.args\ncat /tmp/factory.out\nexit 1\n", 0755));
}

// What, the tool's output, size, result, text
const std::tuple<const char *, std::string, int, int, std::string> kToolCases[] = {
    {"trailing blanks, tab, CR LF", "sn=ABC  \t\r\n", 64, 0, "ABC"},
    {"first = of the output, one line only", "junk\nsn=A=B\nnext=1\n", 64, 0, "A=B"},
    {"a single LF stays", "sn=\n", 64, 0, "\n"},
    {"trimmed down to index 1", "sn=  \n", 64, 0, " "},
    {"= at the very end", "sn=", 64, -1, kUntouched},
    {"size 1, no output", "", 1, 0, ""},
    {"size 5", "sn=ABCDEFGH\n", 5, 0, "ABCD"},
};

class FactoryTest : public KvTest {
 protected:
  void SetUp() override {
    RK_REQUIRE_NAMESPACE();
    KvTest::SetUp();
  }
  // The tool's own complaints (sh: not found) stay out of the test output.
  StderrCapture err_;
};

TEST_F(FactoryTest, OutputFormsAndEdges) {
  for (const auto &[what, output, size, result, text] : kToolCases) {
    InstallTool(output);
    Out out;
    EXPECT_EQ(Written(getFactoryValue("sn", out.bytes, size), out), std::to_string(result) + " " + text) << what;
    EXPECT_EQ(ReadFile("/tmp/factory.args"), "show sn");
  }
}

TEST_F(FactoryTest, BadArgumentsDoNotRunTheTool) {
  InstallTool("sn=ABC\n");
  SyslogCapture sink;  // and log nothing
  Out out;
  EXPECT_EQ(std::vector<int>({getFactoryValue(nullptr, out.bytes, 64), getFactoryValue("", out.bytes, 64),
                              getFactoryValue("sn", nullptr, 64), getFactoryValue("sn", out.bytes, 0)}),
            std::vector<int>(4, -1));
  EXPECT_TRUE(out.untouched());
  EXPECT_FALSE(FileExists("/tmp/factory.args"));
  EXPECT_TRUE(sink.Take().empty());
}

TEST_F(FactoryTest, LongKeyIsCutWithTheCommandAt255Bytes) {
  InstallTool("k=v\n");
  const std::string key(300, 'k');
  Out out;
  EXPECT_EQ(getFactoryValue(key.c_str(), out.bytes, 64), 0);
  EXPECT_EQ(ReadFile("/tmp/factory.args"), "show " + key.substr(0, 255 - strlen("/usr/bin/factory show ")));
}

TEST_F(FactoryTest, ProvinceCode) {
  InstallTool("provinceCode=31\n");
  Out out;
  EXPECT_EQ(Written(getTheProvinceCode(out.bytes, 64), out), "0 31");
  EXPECT_EQ(ReadFile("/tmp/factory.args"), "show provinceCode");

  InstallTool("no value here\n");  // every failure leaves an empty string
  Out failed;
  EXPECT_EQ(getTheProvinceCode(failed.bytes, 64), -1);
  EXPECT_EQ(std::string(failed.bytes, 2), std::string("\0", 1) + kFill);
}

}  // namespace
}  // namespace rk::test
