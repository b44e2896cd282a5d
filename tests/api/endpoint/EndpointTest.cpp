// The endpoint over real loopback sockets: fixed replies byte for byte,
// 100-continue, the body limit, keep-alive, chunked bodies, content types,
// timeouts and the provider's answers.
#include "api/endpoint/Endpoint.h"

#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "platform/Hearth.h"
#include "platform/lumen/Json.h"
#include "tests/support/RawClient.h"

namespace {

using namespace Witnessd::AttestApi;
using Lumen::Provider::MethodResult;
using nlohmann::json;

class NullLogger : public Lumen::Log::Logger {
 public:
  std::unique_ptr<Lumen::Log::LogRecord> CreateRecord(int, const Lumen::Log::SourceContext&) override {
    return nullptr;
  }
};

void EnsureRuntime() {
  static std::once_flag once;
  std::call_once(once, [] {
    auto scratch = Hearth::Service::CreateScratchConfig();
    scratch->SetString("log/level", "error");
    scratch->SetInt("hearth/threadPool/ioThreads", 1);
    scratch->SetInt("hearth/threadPool/maxThreads", 12);
    Hearth::Service::SetAppInfo({"witnessd_endpoint_tests", "1.0.0", 1, 0});
    Hearth::Service::InitApp(scratch, "/nonexistent/config.xml");
  });
}

// FakeProvider answers "echo.*" operations:
//   get   -> {"input", "locale"}      drop  -> never answers
//   async -> answers from another thread
class FakeProvider : public Lumen::Provider::ApiProvider {
 public:
  FakeProvider()
      : types_(std::make_shared<Lumen::Json::TypeRegistry>(json::parse(R"({
          "structures": {"echo.info": {"fields": {}}},
          "services": {"echo": {"operations": {"get": {"output": {"structure": "echo.info"}}}}}})"))) {}

  void Invoke(Lumen::Provider::Request request, Lumen::Provider::ResultCallback done) override {
    const std::string& op = request.operation_id;
    if (request.service_id != "echo") {
      done(MethodResult::Failure(Com::Quarro::Lumen::Std::Errors::OperationNotFound(request.service_id, op)));
    } else if (op == "get") {
      done(MethodResult::Value({{"input", request.input}, {"locale", request.ctx->locale}}));
    } else if (op == "async") {
      std::thread([done, input = request.input] { done(MethodResult::Value(input)); }).detach();
    }
    // "drop": the callback is released unanswered.
  }
  std::shared_ptr<const Lumen::Json::TypeRegistry> Types() const override { return types_; }

 private:
  std::shared_ptr<const Lumen::Json::TypeRegistry> types_;
};

using Client = Witnessd::Testing::RawClient;

std::string Envelope(const std::string& service, const std::string& op, const json& input = json::object(),
                     const json& security_ctx = json::object()) {
  return json{{"jsonrpc", "2.0"},
              {"id", "7"},
              {"method", "invoke"},
              {"params", {{"serviceId", service}, {"operationId", op}, {"ctx", {{"securityCtx", security_ctx}}},
                          {"input", input}}}}
      .dump();
}

std::string Post(const std::string& body, const std::string& content_type = "application/vnd.quarro.lumen.cleanjson",
                 const std::string& extra_headers = "") {
  std::string head = "POST /api HTTP/1.1\r\nHost: localhost\r\n";
  if (!content_type.empty()) head += "Content-Type: " + content_type + "\r\n";
  return head + "Content-Length: " + std::to_string(body.size()) + "\r\n" + extra_headers + "\r\n" + body;
}

class EndpointTest : public ::testing::Test {
 protected:
  void SetUp() override {
    EnsureRuntime();
    Start(std::make_shared<FakeProvider>(), EndpointTimeouts{std::chrono::seconds(30), std::chrono::seconds(30)});
  }
  void TearDown() override { endpoint_.reset(); }

  void Start(std::shared_ptr<Lumen::Provider::ApiProvider> provider, EndpointTimeouts timeouts) {
    endpoint_.reset();
    io_ = std::make_shared<boost::asio::io_context>();
    endpoint_ = std::make_unique<Endpoint>(0, io_, std::move(provider), nullptr, nullptr,
                                           std::make_shared<NullLogger>(), timeouts);
    ASSERT_TRUE(endpoint_->Start());
    port_ = endpoint_->BoundPort4();
    ASSERT_NE(0, port_);
  }

  Client::Response Exchange(const std::string& request) {
    Client c(port_);
    c.Send(request);
    Client::Response r;
    EXPECT_TRUE(c.ReadResponse(&r));
    return r;
  }

  std::shared_ptr<boost::asio::io_context> io_;
  std::unique_ptr<Endpoint> endpoint_;
  uint16_t port_ = 0;
};

TEST_F(EndpointTest, FixedBadRequestReplyThenClose) {
  const struct {
    const char* name;
    std::string request;
  } kCases[] = {
      {"garbage", "GARBAGE\r\n\r\n"},
      {"bad version", "POST /api HTTP/9\r\n\r\n"},
      {"GET", "GET /api HTTP/1.1\r\nHost: x\r\n\r\n"},
      {"framed", Post(Envelope("echo", "get"), "application/vnd.quarro.lumen.framed")},
      {"cframed", Post(Envelope("echo", "get"), "application/vnd.quarro.lumen.cframed.cleanjson")},
      {"huge header", "POST /api HTTP/1.1\r\nX-Big: " + std::string(20000, 'a') + "\r\n\r\n"},
      {"bad chunk size", "POST /api HTTP/1.1\r\nContent-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\nZZ\r\n"},
      {"two lengths", "POST /api HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nab"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Client client(port_);
    client.Send(c.request);
    EXPECT_EQ(kBadRequestReply, client.ReadUntilClose());
  }
}

TEST_F(EndpointTest, ExpectOtherThanContinueGetsFixed417) {
  Client c(port_);
  std::string body = Envelope("echo", "get");
  c.Send("POST /api HTTP/1.1\r\nContent-Type: application/json\r\nExpect: 200-ok\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n");
  EXPECT_EQ(kExpectationFailedReply, c.ReadUntilClose());
}

TEST_F(EndpointTest, ContinueIsSentBeforeTheBodyIsRead) {
  Client c(port_);
  std::string body = Envelope("echo", "get", {{"a", 1}});
  c.Send("POST /api HTTP/1.1\r\nContent-Type: application/vnd.quarro.lumen.cleanjson\r\nExpect: 100-continue\r\n"
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n");
  ASSERT_TRUE(c.Fill(kContinueReply.size()));
  EXPECT_EQ(kContinueReply, c.Take(kContinueReply.size()));
  c.Send(body);
  Client::Response r;
  ASSERT_TRUE(c.ReadResponse(&r));
  EXPECT_EQ(200, r.status);
  EXPECT_EQ(json({{"a", 1}}), json::parse(r.body)["result"]["output"]["input"]);
}

// Body of |size| bytes that is a valid call: the input's padding fills it.
std::string BodyOfSize(size_t size) {
  std::string skeleton = Envelope("echo", "get", {{"pad", ""}});
  return Envelope("echo", "get", {{"pad", std::string(size - skeleton.size(), 'x')}});
}

TEST_F(EndpointTest, BodyLimitIsExactly2500000Bytes) {
  std::string body = BodyOfSize(kHttpBodySizeLimitInBytes);
  ASSERT_EQ(2500000u, body.size());
  Client::Response ok = Exchange(Post(body));
  EXPECT_EQ(200, ok.status);
  // The echo, as large as the request, arrives whole.
  EXPECT_EQ(json::parse(body)["params"]["input"], json::parse(ok.body)["result"]["output"]["input"]);

  Client c(port_);
  // Only the head: the length alone is refused, before any body byte.
  c.Send("POST /api HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: 2500001\r\n\r\n");
  Client::Response big;
  ASSERT_TRUE(c.ReadResponse(&big));
  EXPECT_EQ(413, big.status);
  EXPECT_EQ("request_exceeds_max_size", big.headers["lumen-error"]);
  EXPECT_EQ("close", big.headers["connection"]);
  EXPECT_EQ("lumen.request.exceeds.max.size", json::parse(big.body)["error"]["message"]);
  EXPECT_EQ("", c.ReadUntilClose());
}

TEST_F(EndpointTest, KeepAliveUntilConnectionClose) {
  Client c(port_);
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    c.Send(Post(Envelope("echo", "get", {{"i", i}})));
    Client::Response r;
    ASSERT_TRUE(c.ReadResponse(&r));
    EXPECT_EQ(200, r.status);
    EXPECT_EQ("Keep-Alive", r.headers["connection"]);
    EXPECT_EQ("Lumen-PicoHttp", r.headers["server"]);
    EXPECT_EQ(i, json::parse(r.body)["result"]["output"]["input"]["i"]);
  }
  c.Send(Post(Envelope("echo", "get"), "application/json", "Connection: close\r\n"));
  Client::Response last;
  ASSERT_TRUE(c.ReadResponse(&last));
  EXPECT_EQ("close", last.headers["connection"]);
  EXPECT_EQ("", c.ReadUntilClose());
}

TEST_F(EndpointTest, ContentTypeMatrix) {
  const struct {
    const char* content_type;
    const char* accept;
    int status;
    bool chunked;
    bool decorated;
  } kCases[] = {
      {"application/json", nullptr, 200, false, true},
      {"application/json; charset=utf-8", nullptr, 200, false, true},
      {"application/vnd.quarro.lumen.cleanjson", nullptr, 200, false, false},
      {"application/vnd.quarro.lumen.stream.json", nullptr, 200, true, true},
      {"application/vnd.quarro.lumen.clean.stream.json", nullptr, 200, true, false},
      {"application/vnd.quarro.lumen.cleanjson", "application/vnd.quarro.lumen.clean.stream.json", 200, true, false},
      {"text/plain", nullptr, 415, false, false},
      {"", nullptr, 415, false, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.content_type);
    std::string extra = c.accept ? std::string("Accept: ") + c.accept + "\r\n" : "";
    Client::Response r = Exchange(Post(Envelope("echo", "get", {{"x", 1}}), c.content_type, extra));
    EXPECT_EQ(c.status, r.status);
    EXPECT_EQ(c.chunked, r.chunked);
    EXPECT_EQ("Keep-Alive", r.headers["connection"]);
    if (c.status != 200) {
      EXPECT_EQ("invalid_content_type", r.headers["lumen-error"]);
      EXPECT_EQ("lumen.invalid.content.type", json::parse(r.body)["error"]["message"]);
      continue;
    }
    EXPECT_EQ(std::string(c.content_type).substr(0, std::string(c.content_type).find(';')), r.headers["content-type"]);
    json output = json::parse(r.body)["result"]["output"];
    EXPECT_EQ(c.decorated, output.contains("STRUCTURE"));
    EXPECT_EQ(json({{"x", 1}}), Lumen::Json::Undecorate(output)["input"]);
  }
}

TEST_F(EndpointTest, DecoratedInputIsUnwrapped) {
  json input = {{"request", {{"STRUCTURE", {{"echo.request", {{"a", 1}}}}}}}};
  Client::Response r = Exchange(Post(Envelope("echo", "get", input), "application/json"));
  EXPECT_EQ(json({{"request", {{"a", 1}}}}), json::parse(r.body)["result"]["output"]["STRUCTURE"]["echo.info"]["input"]);
}

TEST_F(EndpointTest, FrameworkErrors) {
  const struct {
    const char* name;
    std::string request;
    int status;
    const char* lumen_error;
  } kCases[] = {
      {"not json", Post("{\"jsonrpc\":"), 400, "invalid_request"},
      {"not invoke", Post(R"({"jsonrpc":"2.0","method":"list","params":{}})"), 400, "invalid_request"},
      {"bad accept-language", Post(Envelope("echo", "get"), "application/json", "Accept-Language: e n\r\n"), 400,
       "invalid_request"},
      {"other path", "POST /other HTTP/1.1\r\nContent-Length: 0\r\n\r\n", 404, nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Client::Response r = Exchange(c.request);
    EXPECT_EQ(c.status, r.status);
    if (c.lumen_error) {
      EXPECT_EQ(c.lumen_error, r.headers["lumen-error"]);
      EXPECT_EQ("text/plain", r.headers["content-type"]);
      EXPECT_EQ("lumen.invalid.request", json::parse(r.body)["error"]["message"]);  // the body is JsonRpc's
    }
  }
}

TEST_F(EndpointTest, LocaleHeaderReachesTheProvider) {
  Client::Response a = Exchange(Post(Envelope("echo", "get"), "application/json", "lumen-ctx-format-locale: de-DE\r\n"));
  EXPECT_EQ("de_DE", Lumen::Json::Undecorate(json::parse(a.body)["result"]["output"])["locale"]);
  Client::Response b = Exchange(Post(Envelope("echo", "get"), "application/json", "Accept-Language: fr, en;q=0.5\r\n"));
  EXPECT_EQ("fr", Lumen::Json::Undecorate(json::parse(b.body)["result"]["output"])["locale"]);
}

TEST_F(EndpointTest, ChunkedRequestBody) {
  std::string body = Envelope("echo", "get", {{"chunked", true}});
  std::string request = "POST /api HTTP/1.1\r\nContent-Type: application/vnd.quarro.lumen.cleanjson\r\n"
                        "Transfer-Encoding: chunked\r\n\r\n";
  for (size_t pos = 0; pos < body.size(); pos += 10) {
    std::string part = body.substr(pos, 10);
    char size[16];
    snprintf(size, sizeof(size), "%zx\r\n", part.size());
    request += size + part + "\r\n";
  }
  request += "0\r\n\r\n";
  Client::Response r = Exchange(request);
  EXPECT_EQ(200, r.status);
  EXPECT_EQ(json({{"chunked", true}}), json::parse(r.body)["result"]["output"]["input"]);
}

TEST_F(EndpointTest, EveryCallGetsExactlyOneAnswer) {
  Client::Response dropped = Exchange(Post(Envelope("echo", "drop")));
  EXPECT_EQ(200, dropped.status);
  EXPECT_EQ("INTERNAL_SERVER_ERROR", json::parse(dropped.body)["result"]["error"]["error_type"]);
  Client::Response async = Exchange(Post(Envelope("echo", "async", {{"a", 2}})));
  EXPECT_EQ(json({{"a", 2}}), json::parse(async.body)["result"]["output"]);
  Client::Response missing = Exchange(Post(Envelope("nothing", "get")));
  EXPECT_EQ("OPERATION_NOT_FOUND", json::parse(missing.body)["result"]["error"]["error_type"]);
  EXPECT_EQ("7", json::parse(missing.body)["id"]);
}

TEST_F(EndpointTest, ServesIPv6Loopback) {
  if (endpoint_->BoundPort6() == 0) {
    GTEST_SKIP() << "no IPv6 loopback on this host";
  }
  Client c(endpoint_->BoundPort6(), /*v6=*/true);
  c.Send(Post(Envelope("echo", "get")));
  Client::Response r;
  ASSERT_TRUE(c.ReadResponse(&r));
  EXPECT_EQ(200, r.status);
}

TEST_F(EndpointTest, StalledBodyIsClosedAfterTheReadTimeout) {
  Start(std::make_shared<FakeProvider>(), EndpointTimeouts{std::chrono::milliseconds(200), std::chrono::seconds(5)});
  Client stalled(port_);
  stalled.Send("POST /api HTTP/1.1\r\nContent-Length: 100\r\n\r\n{");
  EXPECT_EQ("", stalled.ReadUntilClose());
}

TEST_F(EndpointTest, StopIsIdempotent) {
  endpoint_->Stop();
  endpoint_->Stop();
  EXPECT_FALSE(endpoint_->Start());
}

TEST(FormatDuration, LargestUnitsFirst) {
  const struct {
    std::chrono::nanoseconds d;
    const char* want;
  } kCases[] = {
      {std::chrono::seconds(90), "1 minutes and 30 seconds"},
      {std::chrono::nanoseconds(1001), "1 microseconds and 1 nanoseconds"},
      {std::chrono::nanoseconds(0), "0 nanoseconds"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, FormatDuration(c.d));
  }
}

std::string RawNewline(std::string body) {
  return body.replace(body.find("\\n"), 2, "\n");
}

json Nested(int depth) {
  json v = json::array();
  for (int i = 0; i < depth; ++i) {
    v = json::array({std::move(v)});
  }
  return v;
}

TEST(ClassifyHttpRequest, VerdictFromBytesAlone) {
  std::string good = Post(Envelope("echo", "get"));
  EXPECT_EQ(RequestVerdict::kServe, ClassifyHttpRequest(good));
  for (size_t n = 0; n < good.size(); ++n) {
    ASSERT_EQ(RequestVerdict::kIncomplete, ClassifyHttpRequest(good.substr(0, n))) << n;
  }
  const struct {
    const char* name;
    std::string bytes;
    RequestVerdict want;
  } kCases[] = {
      {"limit", Post(BodyOfSize(kHttpBodySizeLimitInBytes)), RequestVerdict::kServe},
      {"limit + 1", Post(BodyOfSize(kHttpBodySizeLimitInBytes + 1)), RequestVerdict::kTooLarge},
      {"expect", Post(Envelope("echo", "get"), "application/json", "Expect: x\r\n"), RequestVerdict::kExpectationFailed},
      {"continue", Post(Envelope("echo", "get"), "application/json", "Expect: 100-Continue\r\n"), RequestVerdict::kServe},
      {"garbage", "\x01\x02\r\n\r\n", RequestVerdict::kBadRequest},
      // A PEM's escaped line breaks are JSON; a raw control character in a
      // string is not, and a body nested past the depth limit is refused.
      {"escaped newline", Post(Envelope("echo", "get", {{"pem", "a\nb"}})), RequestVerdict::kServe},
      {"raw newline", Post(RawNewline(Envelope("echo", "get", {{"pem", "a\nb"}}))), RequestVerdict::kInvalidRequest},
      {"too deep", Post(Envelope("echo", "get", {{"x", Nested(600)}})), RequestVerdict::kInvalidRequest},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.want, ClassifyHttpRequest(c.bytes));
  }
}

}  // namespace
