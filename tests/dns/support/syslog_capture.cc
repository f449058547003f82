#include "syslog_capture.h"

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <regex>

namespace rk {
namespace test {
namespace {

constexpr char kDevLog[] = "/dev/log";

// "<134>Nov 23 04:51:00 ident[pid]: message": the priority, a 15-character
// timestamp and a space, the ident (and pid), ": ", the message.
LogLine parse(const std::string &raw) {
  LogLine line;
  size_t close = raw.find('>');
  if (raw.empty() || raw[0] != '<' || close == std::string::npos) {
    line.text = raw;
    return line;
  }
  line.severity = atoi(raw.c_str() + 1) & 7;
  size_t start = close + 1 + 16;
  size_t colon = start < raw.size() ? raw.find(": ", start) : std::string::npos;
  line.text = colon == std::string::npos ? raw.substr(std::min(close + 1, raw.size())) : raw.substr(colon + 2);
  return line;
}

}  // namespace

bool insideTestNamespace() {
  // rk-ns-run exports RK_NS_KEEP and keeps its work directory on the
  // namespace's own /run; outside, neither is there.
  return getenv("RK_NS_KEEP") != nullptr && access("/run/.rk-ns", F_OK) == 0;
}

std::string LogLine::normalized() const {
  static const std::regex place(R"(^\[([A-Za-z0-9_]+):[0-9]+\])");
  const char *letter = "?";
  switch (severity) {
    case 0: letter = "F"; break;
    case 3: letter = "E"; break;
    case 4: letter = "W"; break;
    case 5: letter = "T"; break;
    case 6: letter = "I"; break;
    case 7: letter = "D"; break;
    default: break;
  }
  return std::string(letter) + " " + std::regex_replace(text, place, "[$1:N]");
}

SyslogCapture::SyslogCapture() {
  if (!insideTestNamespace()) return;
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
  if (fd_ >= 0) {
    close(fd_);
    unlink(kDevLog);
  }
}

std::vector<LogLine> SyslogCapture::take() {
  std::vector<LogLine> out;
  if (fd_ < 0) return out;
  char buf[8192];
  for (;;) {
    ssize_t n = recv(fd_, buf, sizeof buf, 0);
    if (n < 0) break;
    std::string raw(buf, static_cast<size_t>(n));
    while (!raw.empty() && (raw.back() == '\n' || raw.back() == '\0')) raw.pop_back();
    out.push_back(parse(raw));
  }
  return out;
}

std::vector<std::string> SyslogCapture::takeNormalized() {
  std::vector<std::string> out;
  for (const auto &l : take()) out.push_back(l.normalized());
  return out;
}

bool silenceSyslog() {
  if (!insideTestNamespace()) return false;
  unlink(kDevLog);
  return access(kDevLog, F_OK) != 0;
}

}  // namespace test
}  // namespace rk
