#include "tools/HttpClient.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace Witnessd::Agent {
namespace {

constexpr size_t kMaxReplyBytes = 16 * 1024 * 1024;

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

}  // namespace

HttpClient::~HttpClient() { Close(); }

void HttpClient::Close() {
  if (fd_ >= 0) {
    close(fd_);
    fd_ = -1;
  }
  buf_.clear();
}

bool HttpClient::Connect(std::string* error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* list = nullptr;
  std::string port = std::to_string(port_);
  if (getaddrinfo(host_.c_str(), port.c_str(), &hints, &list) != 0) {
    *error = "cannot resolve " + host_;
    return false;
  }
  for (addrinfo* a = list; a != nullptr && fd_ < 0; a = a->ai_next) {
    int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) {
      continue;
    }
    if (connect(fd, a->ai_addr, a->ai_addrlen) == 0) {
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
      fd_ = fd;
    } else {
      close(fd);
    }
  }
  freeaddrinfo(list);
  if (fd_ < 0) {
    *error = "cannot connect to " + host_ + ":" + port + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

bool HttpClient::SendAll(const std::string& data) {
  // Sent in slices so that a large upload can report its progress.
  constexpr size_t kSlice = 256 * 1024;
  size_t sent = 0;
  while (sent < data.size()) {
    ssize_t n = send(fd_, data.data() + sent, std::min(kSlice, data.size() - sent), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    sent += static_cast<size_t>(n);
    if (progress_) {
      progress_(sent, data.size());
    }
  }
  return true;
}

bool HttpClient::Fill() {
  char chunk[16384];
  for (;;) {
    ssize_t n = recv(fd_, chunk, sizeof(chunk), 0);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0 || buf_.size() + static_cast<size_t>(n) > kMaxReplyBytes) {
      return false;
    }
    buf_.append(chunk, static_cast<size_t>(n));
    return true;
  }
}

bool HttpClient::ReadReply(int* out_status, std::string* out_body, bool* out_close, std::string* error) {
  size_t header_end;
  while ((header_end = buf_.find("\r\n\r\n")) == std::string::npos) {
    if (!Fill()) {
      *error = "connection closed before the reply headers";
      return false;
    }
  }
  std::string head = buf_.substr(0, header_end);
  buf_.erase(0, header_end + 4);
  if (head.rfind("HTTP/1.", 0) != 0 || head.size() < 12) {
    *error = "not an HTTP reply";
    return false;
  }
  *out_status = std::atoi(head.c_str() + 9);
  if (*out_status == 100) {  // interim reply: the real one follows
    return ReadReply(out_status, out_body, out_close, error);
  }
  long content_length = -1;
  bool chunked = false;
  *out_close = false;
  size_t pos = head.find("\r\n");
  while (pos != std::string::npos) {
    size_t next = head.find("\r\n", pos + 2);
    std::string line = head.substr(pos + 2, next == std::string::npos ? std::string::npos : next - pos - 2);
    size_t colon = line.find(':');
    if (colon != std::string::npos) {
      std::string name = Lower(line.substr(0, colon));
      std::string value = line.substr(colon + 1);
      value.erase(0, value.find_first_not_of(" \t"));
      if (name == "content-length") {
        content_length = std::strtol(value.c_str(), nullptr, 10);
      } else if (name == "transfer-encoding" && Lower(value).find("chunked") != std::string::npos) {
        chunked = true;
      } else if (name == "connection" && Lower(value).find("close") != std::string::npos) {
        *out_close = true;
      }
    }
    pos = next;
  }
  out_body->clear();
  if (chunked) {
    for (;;) {
      size_t line_end;
      while ((line_end = buf_.find("\r\n")) == std::string::npos) {
        if (!Fill()) {
          *error = "connection closed inside a chunk header";
          return false;
        }
      }
      size_t size = std::strtoul(buf_.c_str(), nullptr, 16);
      buf_.erase(0, line_end + 2);
      while (buf_.size() < size + 2) {
        if (!Fill()) {
          *error = "connection closed inside a chunk";
          return false;
        }
      }
      out_body->append(buf_, 0, size);
      buf_.erase(0, size + 2);
      if (size == 0) {
        return true;  // no trailers expected
      }
    }
  }
  if (content_length < 0) {
    while (Fill()) {
    }
    *out_body = std::move(buf_);
    buf_.clear();
    *out_close = true;
    return true;
  }
  while (buf_.size() < static_cast<size_t>(content_length)) {
    if (!Fill()) {
      *error = "connection closed inside the reply body";
      return false;
    }
  }
  out_body->assign(buf_, 0, static_cast<size_t>(content_length));
  buf_.erase(0, static_cast<size_t>(content_length));
  return true;
}

bool HttpClient::Post(const std::string& path, const std::string& content_type, const std::string& body,
                      int* out_status, std::string* out_body, std::string* error) {
  return Exchange("POST " + path + " HTTP/1.1\r\nHost: " + host_ + ":" + std::to_string(port_) +
                      "\r\nContent-Type: " + content_type + "\r\nContent-Length: " + std::to_string(body.size()) +
                      "\r\nConnection: keep-alive\r\n\r\n" + body,
                  out_status, out_body, error);
}

bool HttpClient::Get(const std::string& path, int* out_status, std::string* out_body, std::string* error) {
  return Exchange("GET " + path + " HTTP/1.1\r\nHost: " + host_ + ":" + std::to_string(port_) +
                      "\r\nConnection: keep-alive\r\n\r\n",
                  out_status, out_body, error);
}

bool HttpClient::Exchange(const std::string& request, int* out_status, std::string* out_body, std::string* error) {
  // A kept-alive connection may have been closed by the server meanwhile;
  // one retry on a fresh connection covers that.
  for (int attempt = 0; attempt < 2; ++attempt) {
    bool fresh = fd_ < 0;
    if (fresh && !Connect(error)) {
      return false;
    }
    bool close_after = false;
    bool sent = SendAll(request);
    // A server may answer before it has read the whole request (a body over
    // its size limit) and then close: its reply is still worth reading.
    if (ReadReply(out_status, out_body, &close_after, error)) {
      if (close_after || !sent) {
        Close();
      }
      return true;
    }
    Close();
    if (!sent) {
      *error = "connection lost while sending the request";
    }
    if (fresh) {
      return false;
    }
  }
  return false;
}

}  // namespace Witnessd::Agent
