#include "rk_test.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

// In a build with gcov counters, a forked child that ends with _exit must
// write its counters itself.
#ifdef RK_GCOV_DUMP
extern "C" void __gcov_dump(void);
#endif

namespace rk::test {
namespace {

constexpr char kDevLog[] = "/dev/log";

// "<134>Nov 23 04:51:00 ident[pid]: message": the priority, a 15-character
// timestamp and a space, the ident (and pid), ": ", the message.
LogLine ParseSyslog(const std::string &raw) {
  // Only the head goes through the pattern: libstdc++ matches recursively,
  // and a long message would use up the stack.
  static const std::regex head(R"(<(\d+)>.{15} ([^:\[]*)(?:\[\d+\])?: )");
  LogLine line;
  std::smatch m;
  if (!std::regex_search(raw, m, head, std::regex_constants::match_continuous)) {
    line.text = raw;
    return line;
  }
  const int pri = std::stoi(m[1]);
  line.severity = pri & 7;
  line.facility = pri >> 3;
  line.ident = m[2];
  line.text = m.suffix();
  return line;
}

}  // namespace

bool InTestNamespace() {
  // rk-ns-run exports RK_NS_KEEP and keeps its work directory on the
  // namespace's own /run; outside, neither is there.
  return getenv("RK_NS_KEEP") != nullptr && access("/run/.rk-ns", F_OK) == 0;
}

bool WriteFile(const std::string &path, const std::string &content, int mode) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();  // fails, as the write did, when the file could not be opened
  return out && chmod(path.c_str(), static_cast<mode_t>(mode)) == 0;
}

std::string ReadFile(const std::string &path) {
  std::ostringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

bool FileExists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::string OwnPath() {
  char buf[4096] = {0};
  return readlink("/proc/self/exe", buf, sizeof buf - 1) > 0 ? buf : "";
}

int OpenFdCount() {
  int n = 0;
  if (DIR *d = opendir("/proc/self/fd")) {
    while (struct dirent *e = readdir(d))
      if (e->d_name[0] != '.') n++;
    closedir(d);
    n--;  // the descriptor of the listing itself
  }
  return n;
}

TempDir::TempDir() {
  char tmpl[] = "/tmp/rk-test.XXXXXX";
  if (mkdtemp(tmpl)) path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

std::vector<uint8_t> Hex(const std::string &text) {
  std::vector<uint8_t> out;
  std::istringstream words(text);
  std::string word;
  while (words >> word) {
    if (word[0] == '\'') {
      out.insert(out.end(), word.begin() + 1, word.end());
      continue;
    }
    for (size_t i = 0; i + 1 < word.size(); i += 2)
      out.push_back(static_cast<uint8_t>(std::stoul(word.substr(i, 2), nullptr, 16)));
  }
  return out;
}

std::string ToHex(const void *data, size_t len) {
  static const char digits[] = "0123456789abcdef";
  const auto *p = static_cast<const uint8_t *>(data);
  std::string out;
  for (size_t i = 0; i < len; i++) {
    if (i) out += ' ';
    out += digits[p[i] >> 4];
    out += digits[p[i] & 15];
  }
  return out;
}

std::string LogLine::Normalized() const {
  static const char letters[] = "F??EWTID";  // by severity
  static const std::regex place(R"(\[(\w+):\d+\])");
  const char letter = severity >= 0 && severity < 8 ? letters[severity] : '?';
  std::smatch m;
  if (!std::regex_search(text, m, place, std::regex_constants::match_continuous))
    return std::string(1, letter) + " " + text;
  return std::string(1, letter) + " [" + m[1].str() + ":N]" + m.suffix().str();
}

SyslogCapture::SyslogCapture() {
  if (!InTestNamespace()) return;
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, kDevLog, sizeof addr.sun_path - 1);
  unlink(kDevLog);
  if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
    close(fd);
    return;
  }
  int big = 1 << 20;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
  fd_ = fd;
}

SyslogCapture::~SyslogCapture() {
  if (fd_ < 0) return;
  close(fd_);
  unlink(kDevLog);
}

std::vector<LogLine> SyslogCapture::Take() {
  std::vector<LogLine> out;
  if (fd_ < 0) return out;
  char buf[65536];
  for (;;) {
    ssize_t n = recv(fd_, buf, sizeof buf, 0);
    if (n < 0) break;
    std::string raw(buf, static_cast<size_t>(n));
    while (!raw.empty() && (raw.back() == '\n' || raw.back() == '\0')) raw.pop_back();
    out.push_back(ParseSyslog(raw));
  }
  return out;
}

std::vector<std::string> SyslogCapture::TakeNormalized() {
  std::vector<std::string> out;
  for (const auto &l : Take()) out.push_back(l.Normalized());
  return out;
}

bool SilenceSyslog() {
  if (!InTestNamespace()) return false;
  unlink(kDevLog);
  return access(kDevLog, F_OK) != 0;
}

StderrCapture::StderrCapture(int fd) : fd_(fd) {
  fflush(nullptr);
  saved_ = dup(fd_);
  mem_ = memfd_create("capture", MFD_CLOEXEC);
  dup2(mem_, fd_);
}

std::string StderrCapture::Stop() {
  if (saved_ < 0) return text_;
  fflush(nullptr);
  dup2(saved_, fd_);
  close(saved_);
  saved_ = -1;
  char buf[4096];
  ssize_t n;
  for (off_t off = 0; (n = pread(mem_, buf, sizeof buf, off)) > 0; off += n) text_.append(buf, n);
  close(mem_);
  return text_;
}

Dnsmasq::Dnsmasq(std::vector<std::string> args) {
  args.insert(args.begin(), {"/usr/sbin/dnsmasq", "--no-resolv", "--no-hosts", "--keep-in-foreground", "--port=53",
                             "--listen-address=127.0.0.1,::1", "--bind-interfaces", "--user=root", "--pid-file=",
                             "--conf-file=/dev/null", "--log-facility=-"});
  if (access(args[0].c_str(), X_OK) != 0) return;
  std::vector<char *> argv;
  for (auto &a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  // posix_spawn rather than fork: it also works under user-mode emulation.
  if (posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) pid_ = -1;
}

Dnsmasq::~Dnsmasq() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

pid_t StartChild(const std::function<int()> &body) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int code = body();
    fflush(nullptr);
#ifdef RK_GCOV_DUMP
    __gcov_dump();
#endif
    _exit(code);
  }
  return pid;
}

int WaitChild(pid_t pid) {
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace rk::test
