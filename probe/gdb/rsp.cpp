// Packet layer of the GDB remote serial protocol (see rsp.h).
#include "rsp.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace vorden {

namespace {

// A reply larger than this is garbage, whatever the server claims.
constexpr size_t MAX_FRAME = 1u << 20;
constexpr int MAX_RETRANSMIT = 5;

using Clock = std::chrono::steady_clock;

int MsLeft(Clock::time_point Deadline) {
  auto d = std::chrono::duration_cast<std::chrono::milliseconds>(Deadline - Clock::now()).count();
  return d < 0 ? 0 : (int)d;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

CRspLink::CRspLink(LogFn Log) : m_log(std::move(Log)) {}

CRspLink::~CRspLink() { Close(); }

void CRspLink::MarkLost(const char* sWhy) {
  if (!m_lost && m_log) m_log(2, std::string("GDB server connection lost: ") + sWhy);
  m_lost = true;
}

bool CRspLink::ConnectTcp(const std::string& sHost, int Port, int TimeoutMs, std::string& sError) {
  Close();
  addrinfo hints{}, *res = nullptr;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  std::string port = std::to_string(Port);
  int e = getaddrinfo(sHost.c_str(), port.c_str(), &hints, &res);
  if (e != 0 || !res) {
    sError = "cannot resolve \"" + sHost + "\": " + gai_strerror(e);
    return false;
  }
  int fd = -1;
  sError = "cannot connect to " + sHost + ":" + port;
  for (addrinfo* a = res; a; a = a->ai_next) {
    fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) continue;
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    int r = connect(fd, a->ai_addr, a->ai_addrlen);
    if (r != 0 && errno == EINPROGRESS) {
      pollfd p{fd, POLLOUT, 0};
      if (poll(&p, 1, TimeoutMs) == 1) {
        int err = 0;
        socklen_t len = sizeof err;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        r = err == 0 ? 0 : -1;
        if (err) sError += std::string(": ") + strerror(err);
      } else {
        sError += ": time-out";
      }
    } else if (r != 0) {
      sError += std::string(": ") + strerror(errno);
    }
    if (r == 0) break;
    close(fd);
    fd = -1;
  }
  freeaddrinfo(res);
  if (fd < 0) return false;
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  // A server host that vanishes without closing the connection is noticed
  // within a few seconds even while the target runs and nothing is sent.
  int idle = 2, intvl = 1, cnt = 3;
  setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &intvl, sizeof intvl);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &cnt, sizeof cnt);
  Adopt(fd);
  sError.clear();
  return true;
}

void CRspLink::Adopt(int Fd) {
  Close();
  fcntl(Fd, F_SETFL, fcntl(Fd, F_GETFL) | O_NONBLOCK);
  m_fd = Fd;
  m_lost = false;
  m_ack = true;
  m_in.clear();
}

void CRspLink::Close() {
  if (m_fd >= 0) close(m_fd);
  m_fd = -1;
  m_in.clear();
}

bool CRspLink::WriteAll(const char* p, size_t n) {
  if (m_fd < 0 || m_lost) return false;
  auto deadline = Clock::now() + std::chrono::milliseconds(m_ackTimeoutMs);
  while (n > 0) {
    ssize_t w = send(m_fd, p, n, MSG_NOSIGNAL);
    if (w > 0) {
      p += w;
      n -= (size_t)w;
      continue;
    }
    if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
      pollfd pf{m_fd, POLLOUT, 0};
      int left = MsLeft(deadline);
      if (left == 0 || poll(&pf, 1, left) <= 0) {
        MarkLost("send time-out");
        return false;
      }
      continue;
    }
    MarkLost(w == 0 ? "closed" : strerror(errno));
    return false;
  }
  return true;
}

bool CRspLink::Fill(int TimeoutMs) {
  if (m_fd < 0 || m_lost) return false;
  pollfd p{m_fd, POLLIN, 0};
  int r = poll(&p, 1, TimeoutMs);
  if (r < 0) {
    if (errno == EINTR) return true;
    MarkLost(strerror(errno));
    return false;
  }
  if (r == 0) return true;
  char buf[8192];
  for (int reads = 0; reads < 64; ++reads) {
    ssize_t n = recv(m_fd, buf, sizeof buf, 0);
    if (n > 0) {
      m_in.append(buf, (size_t)n);
      if ((size_t)n < sizeof buf) return true;
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return true;
    MarkLost(n == 0 ? "closed by the server" : strerror(errno));
    return false;
  }
  return true;
}

std::string CRspLink::Frame(const std::string& sPayload) {
  std::string out;
  out.reserve(sPayload.size() + 8);
  out += '$';
  U8 sum = 0;
  for (char c : sPayload) {
    if (c == '$' || c == '#' || c == '}' || c == '*') {
      out += '}';
      sum += (U8)'}';
      c = (char)(c ^ 0x20);
    }
    out += c;
    sum += (U8)c;
  }
  static const char* hex = "0123456789abcdef";
  out += '#';
  out += hex[sum >> 4];
  out += hex[sum & 15];
  return out;
}

std::string CRspLink::Unescape(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '}' && i + 1 < s.size()) {
      out += (char)(s[++i] ^ 0x20);
    } else {
      out += s[i];
    }
  }
  return out;
}

bool CRspLink::ExpandRunLength(const std::string& sIn, std::string& sOut) {
  sOut.clear();
  sOut.reserve(sIn.size());
  for (size_t i = 0; i < sIn.size(); ++i) {
    char c = sIn[i];
    if (c != '*') {
      sOut += c;
      continue;
    }
    // '*' repeats the previous character (n - 29) more times.
    if (sOut.empty() || i + 1 >= sIn.size()) return false;
    int n = (U8)sIn[++i] - 29;
    if (n < 3 || n > 97) return false;
    if (sOut.size() + (size_t)n > MAX_FRAME * 2) return false;
    sOut.append((size_t)n, sOut.back());
  }
  return true;
}

std::string CRspLink::ToHex(const U8* p, size_t n) {
  static const char* hex = "0123456789abcdef";
  std::string s(n * 2, '0');
  for (size_t i = 0; i < n; ++i) {
    s[2 * i] = hex[p[i] >> 4];
    s[2 * i + 1] = hex[p[i] & 15];
  }
  return s;
}

bool CRspLink::FromHex(const std::string& s, std::string& sOut) {
  if (s.size() % 2) return false;
  sOut.resize(s.size() / 2);
  for (size_t i = 0; i < sOut.size(); ++i) {
    int h = HexDigit(s[2 * i]), l = HexDigit(s[2 * i + 1]);
    if (h < 0 || l < 0) return false;
    sOut[i] = (char)(h * 16 + l);
  }
  return true;
}

bool CRspLink::ParseHex(const std::string& s, U64& Value) {
  if (s.empty() || s.size() > 16) return false;
  Value = 0;
  for (char c : s) {
    int d = HexDigit(c);
    if (d < 0) return false;
    Value = Value * 16 + (U64)d;
  }
  return true;
}

int CRspLink::TakeFrame(std::string& sPayload) {
  size_t start = m_in.find('$');
  if (start == std::string::npos) {
    // Only acknowledgements and noise so far; keep nothing.
    m_in.clear();
    return 0;
  }
  if (start > 0) m_in.erase(0, start);
  size_t hash = m_in.find('#', 1);
  if (hash == std::string::npos) {
    if (m_in.size() > MAX_FRAME) {
      m_log(1, "GDB server sent an over-long packet; discarded");
      m_in.erase(0, 1);
      if (m_ack) WriteAll("-", 1);
      return -1;
    }
    return 0;
  }
  // A '$' inside the frame means the start of this one was lost.
  size_t inner = m_in.find('$', 1);
  if (inner != std::string::npos && inner < hash) {
    m_log(1, "GDB server packet truncated; discarded");
    m_in.erase(0, inner);
    return -1;
  }
  if (m_in.size() < hash + 3) return 0;
  std::string body = m_in.substr(1, hash - 1);
  int h = HexDigit(m_in[hash + 1]), l = HexDigit(m_in[hash + 2]);
  m_in.erase(0, hash + 3);
  U8 sum = 0;
  for (char c : body) sum += (U8)c;
  std::string expanded;
  bool encoded = body.find('*') == std::string::npos ? (expanded.swap(body), true) : ExpandRunLength(body, expanded);
  if (h < 0 || l < 0 || (U8)(h * 16 + l) != sum || !encoded) {
    ++m_csErrors;
    m_log(1, "GDB server packet with a checksum or encoding error; asked for it again");
    if (m_ack) WriteAll("-", 1);
    return -1;
  }
  if (m_ack && !WriteAll("+", 1)) return -1;
  sPayload.swap(expanded);
  return 1;
}

bool CRspLink::Send(const std::string& sPayload) {
  if (m_fd < 0 || m_lost) return false;
  std::string frame = Frame(sPayload);
  for (int attempt = 0; attempt <= MAX_RETRANSMIT; ++attempt) {
    if (attempt > 0) ++m_retrans;
    if (!WriteAll(frame.data(), frame.size())) return false;
    if (!m_ack) return true;
    auto deadline = Clock::now() + std::chrono::milliseconds(m_ackTimeoutMs);
    bool resend = false;
    for (;;) {
      size_t i = 0;
      while (i < m_in.size() && m_in[i] != '+' && m_in[i] != '-' && m_in[i] != '$') ++i;
      if (i < m_in.size()) {
        char c = m_in[i];
        if (c == '$') {
          // A reply without the acknowledgement: take it as acknowledged.
          m_in.erase(0, i);
          return true;
        }
        m_in.erase(0, i + 1);
        if (c == '+') return true;
        resend = true;
        break;
      }
      m_in.clear();
      int left = MsLeft(deadline);
      if (left == 0) {
        MarkLost("no acknowledgement");
        return false;
      }
      if (!Fill(left)) return false;
    }
    if (resend) {
      m_log(1, "GDB server refused a packet; sent it again");
      continue;
    }
  }
  MarkLost("packet refused repeatedly");
  return false;
}

bool CRspLink::SendRaw(const std::string& sBytes) { return WriteAll(sBytes.data(), sBytes.size()); }

int CRspLink::Receive(std::string& sPayload, int TimeoutMs) {
  if (m_fd < 0) return -1;
  auto deadline = Clock::now() + std::chrono::milliseconds(TimeoutMs < 0 ? 0 : TimeoutMs);
  bool first = true;
  for (;;) {
    int r;
    // Bad frames already buffered are refused one by one (the server sends
    // them again); the buffer is finite, so this ends.
    while ((r = TakeFrame(sPayload)) == -1) {
      if (m_lost) return -1;
    }
    if (r == 1) return 1;
    if (m_lost) return -1;
    int left = MsLeft(deadline);
    if (!first && left == 0) return 0;
    first = false;
    if (!Fill(left)) return -1;
  }
}

}  // namespace vorden
