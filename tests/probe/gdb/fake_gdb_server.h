// A GDB server stand-in for tests: reads framed packets (and the raw 0x03
// interrupt) from one end of a socket pair on its own thread and answers with
// whatever the test's handler returns, byte for byte.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace gdbtest {

inline std::string Checksum(const std::string& s) {
  unsigned sum = 0;
  for (unsigned char c : s) sum += c;
  char b[3];
  snprintf(b, sizeof b, "%02x", sum & 0xFF);
  return b;
}

inline std::string Framed(const std::string& s) { return "$" + s + "#" + Checksum(s); }

class FakeServer {
 public:
  // The handler gets each packet payload ("\x03" for an interrupt) and returns
  // the raw bytes to send back (acknowledgement included when wanted).
  using Handler = std::function<std::string(const std::string& sPacket)>;

  explicit FakeServer(Handler H) : m_handler(std::move(H)) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) abort();
    m_clientFd = sv[0];
    m_fd = sv[1];
    m_thread = std::thread([this] { Run(); });
  }
  ~FakeServer() {
    m_quit = true;
    m_thread.join();
    if (m_fd >= 0) close(m_fd);
  }
  // The client end (the back end takes ownership).
  int ClientFd() const { return m_clientFd; }
  // Everything the client sent, for checks on the traffic.
  std::vector<std::string> Packets() {
    std::lock_guard<std::mutex> lk(m_mx);
    return m_packets;
  }
  void CloseNow() { m_closeReq = true; }
  // Sends bytes at any time (an asynchronous stop reply).
  void Push(const std::string& s) {
    std::lock_guard<std::mutex> lk(m_mx);
    m_push += s;
    ++m_pushed;
  }
  // Waits (at most 5 s) until everything pushed so far is on the socket.
  bool WaitPushed() {
    const int want = m_pushed.load();
    for (int i = 0; i < 5000 && m_written.load() < want; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return m_written.load() >= want;
  }

 private:
  void Run() {
    std::string in;
    while (!m_quit) {
      if (m_closeReq && m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
      }
      if (m_fd < 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        continue;
      }
      {
        std::string p;
        int n = 0;
        {
          std::lock_guard<std::mutex> lk(m_mx);
          p.swap(m_push);
          n = m_pushed.load();
        }
        if (!p.empty()) Write(p);
        m_written.store(n);
      }
      pollfd pf{m_fd, POLLIN, 0};
      if (poll(&pf, 1, 5) <= 0) continue;
      char buf[4096];
      ssize_t n = read(m_fd, buf, sizeof buf);
      if (n <= 0) {
        close(m_fd);
        m_fd = -1;
        continue;
      }
      in.append(buf, (size_t)n);
      for (;;) {
        size_t i = 0;
        while (i < in.size() && in[i] != '$' && in[i] != '\x03') ++i;
        in.erase(0, i);
        if (in.empty()) break;
        if (in[0] == '\x03') {
          in.erase(0, 1);
          Answer("\x03");
          continue;
        }
        size_t h = in.find('#');
        if (h == std::string::npos || in.size() < h + 3) break;
        std::string body = in.substr(1, h - 1);
        in.erase(0, h + 3);
        // Undo the binary escapes.
        std::string un;
        for (size_t k = 0; k < body.size(); ++k) {
          if (body[k] == '}' && k + 1 < body.size()) un += (char)(body[++k] ^ 0x20);
          else un += body[k];
        }
        Answer(un);
      }
    }
  }
  void Answer(const std::string& p) {
    {
      std::lock_guard<std::mutex> lk(m_mx);
      m_packets.push_back(p);
    }
    std::string out = m_handler(p);
    if (out == "<close>") {
      close(m_fd);
      m_fd = -1;
      return;
    }
    Write(out);
  }
  void Write(const std::string& s) {
    size_t off = 0;
    while (off < s.size() && m_fd >= 0) {
      ssize_t w = send(m_fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
      if (w <= 0) return;
      off += (size_t)w;
    }
  }

  Handler m_handler;
  int m_fd = -1, m_clientFd = -1;
  std::atomic<bool> m_quit{false}, m_closeReq{false};
  std::atomic<int> m_pushed{0}, m_written{0};
  std::mutex m_mx;
  std::vector<std::string> m_packets;
  std::string m_push;
  std::thread m_thread;
};

}  // namespace gdbtest
