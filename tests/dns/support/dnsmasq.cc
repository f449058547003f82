#include "dnsmasq.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "dns_packet.h"
#include "syslog_capture.h"

namespace rk {
namespace test {
namespace {

// One blocking query with a short receive timeout; true when an answer
// with our identifier came back.
bool answers(int family, const char *address, const Bytes &query) {
  int fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  timeval tv{0, 100 * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  sockaddr_storage ss{};
  socklen_t len;
  if (family == AF_INET) {
    auto &s = reinterpret_cast<sockaddr_in &>(ss);
    s.sin_family = AF_INET;
    s.sin_port = htons(53);
    inet_pton(AF_INET, address, &s.sin_addr);
    len = sizeof s;
  } else {
    auto &s = reinterpret_cast<sockaddr_in6 &>(ss);
    s.sin6_family = AF_INET6;
    s.sin6_port = htons(53);
    inet_pton(AF_INET6, address, &s.sin6_addr);
    len = sizeof s;
  }
  bool ok = false;
  if (sendto(fd, query.data(), query.size(), 0, reinterpret_cast<sockaddr *>(&ss), len) ==
      static_cast<ssize_t>(query.size())) {
    uint8_t buf[1500];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    ok = n >= 12 && buf[0] == query[0] && buf[1] == query[1];
  }
  close(fd);
  return ok;
}

}  // namespace

const char *Dnsmasq::binary() {
  static const char *const kCandidates[] = {"/usr/sbin/dnsmasq", "/sbin/dnsmasq", "/usr/bin/dnsmasq"};
  for (const char *path : kCandidates) {
    if (access(path, X_OK) == 0) return path;
  }
  return nullptr;
}

Dnsmasq::Dnsmasq(const std::vector<std::string> &records, const std::string &probeName) {
  if (!insideTestNamespace()) {
    error_ = "not inside the test namespace";
    return;
  }
  const char *bin = binary();
  if (!bin) {
    error_ = "dnsmasq not installed";
    return;
  }
  std::vector<std::string> args = {bin,
                                   "--no-resolv",
                                   "--no-hosts",
                                   "--keep-in-foreground",
                                   "--port=53",
                                   "--listen-address=127.0.0.1,::1",
                                   "--bind-interfaces",
                                   "--user=root",
                                   "--pid-file=",
                                   "--conf-file=/dev/null",
                                   // Its own messages go to its stderr, not into a
                                   // test's capture of /dev/log.
                                   "--log-facility=-"};
  args.insert(args.end(), records.begin(), records.end());
  std::vector<char *> argv;
  for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);

  pid_ = fork();
  if (pid_ < 0) {
    error_ = "fork failed";
    return;
  }
  if (pid_ == 0) {
    int devnull = open("/dev/null", O_RDWR);
    if (devnull >= 0) {
      dup2(devnull, 0);
      dup2(devnull, 1);
    }
    execv(bin, argv.data());
    _exit(127);
  }
  Bytes probe = DnsPacket().id(0x5151).flags(0x0100).question(probeName).build();
  // Wait for it to listen: up to 10 s of 100 ms probes. This bounds start-up,
  // it measures nothing.
  for (int i = 0; i < 100; ++i) {
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      error_ = "dnsmasq exited at start";
      return;
    }
    if (answers(AF_INET, "127.0.0.1", probe) && answers(AF_INET6, "::1", probe)) {
      ready_ = true;
      return;
    }
    usleep(i < 10 ? 20 * 1000 : 100 * 1000);
  }
  error_ = "dnsmasq did not answer";
}

Dnsmasq::~Dnsmasq() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status;
    waitpid(pid_, &status, 0);
  }
}

}  // namespace test
}  // namespace rk
