#include "rk_test.h"

#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
  std::smatch m;
  if (!std::regex_search(raw, m, head, std::regex_constants::match_continuous)) return {-1, -1, "", raw};
  const int pri = std::stoi(m[1]);
  return {pri & 7, pri >> 3, m[2], m.suffix()};
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
  std::error_code ignored;
  const std::filesystem::directory_iterator fds("/proc/self/fd", ignored);
  return std::max(0, static_cast<int>(std::distance(begin(fds), end(fds))) - 1);  // less the listing's own
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
  for (std::string word; words >> word;) {
    if (word[0] == '\'') out.insert(out.end(), word.begin() + 1, word.end());
    for (size_t i = 0; word[0] != '\'' && i + 1 < word.size(); i += 2)
      out.push_back(static_cast<uint8_t>(std::stoul(word.substr(i, 2), nullptr, 16)));
  }
  return out;
}

std::string ToHex(const void *data, size_t len) {
  std::string out;
  for (size_t i = 0; i < len; i++) {
    const uint8_t byte = static_cast<const uint8_t *>(data)[i];
    out.append(i ? " " : "").append(1, "0123456789abcdef"[byte >> 4]).append(1, "0123456789abcdef"[byte & 15]);
  }
  return out;
}

std::string LogLine::Normalized() const {
  static const std::regex place(R"(\[(\w+):\d+\])");
  const char letter = severity >= 0 && severity < 8 ? "F??EWTID"[severity] : '?';
  return std::string(1, letter) + " " +
         std::regex_replace(text, place, "[$1:N]", std::regex_constants::format_first_only | std::regex_constants::match_continuous);
}

SyslogCapture::SyslogCapture() {
  sockaddr_un addr{AF_UNIX, "/dev/log"};
  if (!InTestNamespace() || (fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) < 0) return;
  unlink(kDevLog);
  const int big = 1 << 20;
  if (bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) close(fd_), fd_ = -1;
  else setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
}

SyslogCapture::~SyslogCapture() {
  if (fd_ >= 0) close(fd_), unlink(kDevLog);
}

std::vector<LogLine> SyslogCapture::Take() {
  std::vector<LogLine> out;
  char buf[65536];  // none without a socket: recv fails
  for (ssize_t n; (n = recv(fd_, buf, sizeof buf, 0)) >= 0;) {
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

bool SilenceSyslog() { return InTestNamespace() && (unlink(kDevLog), access(kDevLog, F_OK) != 0); }

StderrCapture::StderrCapture(int fd) : fd_(fd) {
  fflush(nullptr);
  saved_ = dup(fd_);
  mem_ = memfd_create("capture", MFD_CLOEXEC);
  dup2(mem_, fd_);
}

std::string StderrCapture::Stop() {
  if (saved_ < 0) return text_;
  fflush(nullptr);
  dup2(saved_, fd_), close(saved_), saved_ = -1;
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
  if (pid_ > 0) kill(pid_, SIGTERM), waitpid(pid_, nullptr, 0);
}

pid_t StartChild(const std::function<int()> &body) {
  fflush(nullptr);
  if (const pid_t pid = fork(); pid != 0) return pid;
  const int code = body();
  fflush(nullptr);
#ifdef RK_GCOV_DUMP
  __gcov_dump();
#endif
  _exit(code);
}

int WaitChild(pid_t pid) {
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace rk::test
