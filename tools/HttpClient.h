// A minimal HTTP/1.1 client for the agent: POST over one kept-alive
// connection, reconnecting when the server closed it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace Witnessd::Agent {

class HttpClient {
 public:
  // Progress is told the bytes of a request sent so far and its total size.
  using Progress = std::function<void(size_t sent, size_t total)>;

  HttpClient(std::string host, uint16_t port) : host_(std::move(host)), port_(port) {}
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // Get sends a GET of |path| and reads the whole reply.
  bool Get(const std::string& path, int* out_status, std::string* out_body, std::string* error);
  // Post sends |body| and reads the whole reply (Content-Length or chunked).
  // Returns false with |error| set when no complete reply arrives.
  bool Post(const std::string& path, const std::string& content_type, const std::string& body, int* out_status,
            std::string* out_body, std::string* error);
  // SetProgress reports the sending of every later request; null stops it.
  void SetProgress(Progress progress) { progress_ = std::move(progress); }

 private:
  // Exchange sends one whole request and reads its reply.
  bool Exchange(const std::string& request, int* out_status, std::string* out_body, std::string* error);
  bool Connect(std::string* error);
  void Close();
  bool SendAll(const std::string& data);
  // Fill reads more bytes into buf_; false at end of stream or error.
  bool Fill();
  bool ReadReply(int* out_status, std::string* out_body, bool* out_close, std::string* error);

  std::string host_;
  uint16_t port_;
  int fd_ = -1;
  std::string buf_;
  Progress progress_;
};

}  // namespace Witnessd::Agent
