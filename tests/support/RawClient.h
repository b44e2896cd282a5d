// A raw loopback HTTP client for tests that drive a server byte by byte.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace Witnessd::Testing {

// Connecting, sending and reading give up after 10 s, so that a server that
// never takes or answers the client fails the test rather than hangs it.
class RawClient {
 public:
  explicit RawClient(uint16_t port, bool v6 = false) {
    fd_ = socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
    timeval tv{10, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));  // bounds connect too
    int rc;
    if (v6) {
      sockaddr_in6 a{};
      a.sin6_family = AF_INET6;
      a.sin6_port = htons(port);
      a.sin6_addr = in6addr_loopback;
      rc = connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    } else {
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_port = htons(port);
      a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      rc = connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    }
    EXPECT_EQ(0, rc);
  }
  ~RawClient() { close(fd_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  // Send sends all of |bytes|; a failure fails the test and returns false.
  bool Send(std::string_view bytes) {
    while (!bytes.empty()) {
      ssize_t n = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n <= 0) {
        ADD_FAILURE() << "send failed";
        return false;
      }
      bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
  }

  // PeerClosed tells, without waiting, whether the server closed the connection.
  bool PeerClosed() const {
    char c;
    ssize_t n = recv(fd_, &c, 1, MSG_PEEK | MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
  }

  // Fill reads until |n| bytes are buffered; false when the peer closed.
  bool Fill(size_t n) {
    char chunk[65536];
    while (buf_.size() < n) {
      ssize_t got = recv(fd_, chunk, sizeof(chunk), 0);
      if (got <= 0) {
        return false;
      }
      buf_.append(chunk, static_cast<size_t>(got));
    }
    return true;
  }

  std::string Take(size_t n) {
    std::string out = buf_.substr(0, n);
    buf_.erase(0, n);
    return out;
  }

  // ReadUntilClose returns everything up to the server's close.
  std::string ReadUntilClose() {
    Fill(SIZE_MAX);
    return Take(buf_.size());
  }

  struct Response {
    int status = 0;
    std::string head;
    std::map<std::string, std::string> headers;  // lower-case names
    std::string body;
    bool chunked = false;
  };

  bool ReadResponse(Response* out) {
    size_t end;
    while ((end = buf_.find("\r\n\r\n")) == std::string::npos) {
      if (!Fill(buf_.size() + 1)) {
        return false;
      }
    }
    out->head = Take(end + 4);
    out->status = std::stoi(out->head.substr(9, 3));
    size_t pos = out->head.find("\r\n") + 2;
    while (pos < out->head.size() - 2) {
      size_t eol = out->head.find("\r\n", pos);
      std::string line = out->head.substr(pos, eol - pos);
      size_t colon = line.find(':');
      std::string name = line.substr(0, colon);
      for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      out->headers[name] = line.substr(colon + 2);
      pos = eol + 2;
    }
    if (out->headers.count("content-length")) {
      size_t len = std::stoul(out->headers["content-length"]);
      if (!Fill(len)) return false;
      out->body = Take(len);
    } else if (out->headers["transfer-encoding"] == "chunked") {
      out->chunked = true;
      for (;;) {
        size_t eol;
        while ((eol = buf_.find("\r\n")) == std::string::npos) {
          if (!Fill(buf_.size() + 1)) return false;
        }
        size_t size = std::stoul(Take(eol + 2), nullptr, 16);
        if (!Fill(size + 2)) return false;
        out->body += Take(size);
        Take(2);
        if (size == 0) break;
      }
    }
    return true;
  }

 private:
  int fd_ = -1;
  std::string buf_;
};

}  // namespace Witnessd::Testing
