// The audit log: one JSON line per entry, and its defences against callers who
// control what it records: the text sanitizer, the refusal cap with its count of
// suppressed entries, and the pacing of the daemon's own error lines.
#include "platform/lumen/Audit.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/LogCapture.h"

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

std::string Repeat(const std::string& unit, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += unit;
  }
  return out;
}

TEST(QrwAuditSanitizeText, BoundsEscapesAndKeepsCharactersWhole) {
  const std::string e_acute = "\xc3\xa9";      // U+00E9, two bytes
  const std::string snowman = "\xe2\x98\x83";  // U+2603, three bytes
  const struct {
    const char* name;
    std::string in;
    std::string want;
  } kCases[] = {
      {"plain", "alice", "alice"},
      {"exactly the limit", Repeat("a", 128), Repeat("a", 128)},
      {"one byte over the limit", Repeat("a", 129), Repeat("a", 125) + "..."},
      {"one megabyte", Repeat("a", 1 << 20), Repeat("a", 125) + "..."},
      {"newline and carriage return", "alice\r\nadmin", "alice\\u000d\\u000aadmin"},
      {"nul, escape, delete", std::string("a\0b\x1b\x7f", 5), "a\\u0000b\\u001b\\u007f"},
      {"C1 control", "a\xc2\x85z", "a\\u0085z"},
      {"bidirectional override", "a\xe2\x80\xaez", "a\\u202ez"},
      {"line separator", "a\xe2\x80\xa8z", "a\\u2028z"},
      {"backslash", "a\\u000ab", "a\\\\u000ab"},
      {"multi-byte kept", "caf" + e_acute + snowman, "caf" + e_acute + snowman},
      // 1 + 62 * 2 = 125 bytes fit before "...".
      {"two-byte characters at the cut", "a" + Repeat(e_acute, 100), "a" + Repeat(e_acute, 62) + "..."},
      // 2 + 61 * 2 = 124; the next character would end at 126, past room for "...".
      {"cut not inside a character", "aa" + Repeat(e_acute, 100), "aa" + Repeat(e_acute, 61) + "..."},
      {"three-byte characters at the cut", Repeat(snowman, 50), Repeat(snowman, 41) + "..."},
      {"cut not inside an escape", Repeat("a", 124) + "\n", Repeat("a", 124) + "..."},
      {"escape that fits", Repeat("a", 122) + "\n", Repeat("a", 122) + "\\u000a"},
      {"stray continuation byte", "a\x80z", "a\\x80z"},
      {"truncated sequence", "a\xc3", "a\\xc3"},
      {"overlong slash", "\xc0\xaf", "\\xc0\\xaf"},
      {"surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
      {"past U+10FFFF", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::string got = QrwAudit_SanitizeText(c.in);
    EXPECT_EQ(c.want, got);
    EXPECT_LE(got.size(), kQrwAuditMaxTextBytes);
  }
}

TEST(QrwAuditUnverifiedSubject, MarksTheSanitizedClaim) {
  EXPECT_EQ("unverified:mallory", QrwAudit_UnverifiedSubject("mallory"));
  EXPECT_EQ("unverified:a\\u000ab", QrwAudit_UnverifiedSubject("a\nb"));
  EXPECT_EQ(std::string("unverified:") + Repeat("x", 125) + "...", QrwAudit_UnverifiedSubject(Repeat("x", 4096)));
  EXPECT_EQ("", QrwAudit_UnverifiedSubject(""));  // no claim, no subject
}

class AuditLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("lumen-audit-" + std::to_string(getpid()) + "-" +
                                        ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    QrwAudit_SetLogPath((dir_ / "audit.log").string());
  }
  void TearDown() override {
    QrwAudit_SetLogPath("");
    QrwAudit_SetClock(nullptr);
    fs::remove_all(dir_);
  }
  std::vector<json> Lines() {
    std::vector<json> lines;
    std::ifstream in(dir_ / "audit.log");
    std::string line;
    while (std::getline(in, line)) {
      lines.push_back(json::parse(line));
    }
    return lines;
  }

  fs::path dir_;
  int64_t now_ = 1000;
};

TEST_F(AuditLogTest, WritesOneJsonLinePerEntry) {
  ASSERT_TRUE(QrwAudit_LogList("api.call", "alice", "s.get", true, nullptr, 0));
  QrwAuditItem items[] = {{"reason", "expired \"token\"\n"}};
  ASSERT_TRUE(QrwAudit_LogList("authentication.failed", "", "s.put", false, items, 1));
  std::vector<json> lines = Lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("api.call", lines[0]["eventID"]);
  EXPECT_EQ("alice", lines[0]["subject"]);
  EXPECT_EQ("s.get", lines[0]["object"]);
  EXPECT_EQ(true, lines[0]["result"]);
  EXPECT_FALSE(lines[0].contains("items"));
  EXPECT_EQ(false, lines[1]["result"]);
  EXPECT_EQ("expired \"token\"\n", lines[1]["items"]["reason"]);
}

// Refusals beyond the cap are counted and the count lands in one entry, at
// whichever comes first after their second: the next refusal, a flush, or
// the end of the log.
TEST_F(AuditLogTest, RefusalsOverTheCapBecomeOneCountingEntry) {
  enum class Then { kRefusal, kFlush, kDestroy };
  const struct {
    const char* name;
    int refusals;
    bool next_second;
    Then then;
    size_t want_refusal_entries;
    uint64_t want_count;  // 0: no counting entry
  } kCases[] = {
      {"100 then a refusal in the next second", 100, true, Then::kRefusal, 11, 90},
      {"100 then a flush in the same second", 100, false, Then::kFlush, 10, 0},
      {"100 then a flush in the next second", 100, true, Then::kFlush, 10, 90},
      {"15 then the end of the log", 15, false, Then::kDestroy, 10, 5},
      {"at the cap", 10, true, Then::kFlush, 10, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    fs::remove(dir_ / "audit.log");
    now_ = 1000;
    auto log = std::make_unique<QrwAuditRefusalLog>([this] { return now_; });
    QrwAuditItem items[] = {{"reason", "bad signature"}};
    int written = 0;
    for (int i = 0; i < c.refusals; ++i) {
      written += log->LogList("authentication.failed", "unverified:mallory", "s.get", false, items, 1);
    }
    EXPECT_EQ(static_cast<int>(QrwAuditRefusalLog::kMaxEntriesPerSecond), written);
    now_ += c.next_second ? 1 : 0;
    if (c.then == Then::kRefusal) {
      EXPECT_TRUE(log->LogList("authentication.failed", "unverified:mallory", "s.get", false, items, 1));
    } else if (c.then == Then::kFlush) {
      log->Flush();
    } else {
      log.reset();
    }
    size_t refusal_entries = 0;
    json counting;
    for (json& l : Lines()) {
      if (l["eventID"] == "authentication.failed") {
        ++refusal_entries;
        continue;
      }
      EXPECT_TRUE(counting.is_null()) << "two counting entries";
      EXPECT_EQ(10u, refusal_entries) << "written before any entry of the next second";
      l.erase("time");
      counting = l;
    }
    EXPECT_EQ(c.want_refusal_entries, refusal_entries);
    json want = {{"eventID", kQrwAuditSuppressedEvent}, {"subject", "witnessd"}, {"object", "hyv"}, {"result", false},
                 {"items", {{"count", std::to_string(c.want_count)}, {"second", "1970-01-01T00:16:40Z"}}}};
    EXPECT_EQ(c.want_count == 0 ? json() : want, counting);
  }
}

TEST_F(AuditLogTest, AnUnopenableLogIsReportedOnceASecond) {
  std::string path = (dir_ / "missing" / "audit.log").string();
  QrwAudit_SetLogPath(path);
  QrwAudit_SetClock([this] { return now_; });
  std::string logged = Witnessd::Testing::Capture([&] {
    for (int i = 0; i < 100; ++i) {
      EXPECT_FALSE(QrwAudit_LogList("api.call", "alice", "s.get", true, nullptr, 0));
    }
    now_ = 1001;
    EXPECT_FALSE(QrwAudit_LogList("api.call", "alice", "s.get", true, nullptr, 0));
  });
  std::string line = "Cannot open audit log " + path + "\n";
  size_t count = 0;
  for (size_t at = logged.find(line); at != std::string::npos; at = logged.find(line, at + 1)) {
    ++count;
  }
  EXPECT_EQ(2u, count) << logged;
}

}  // namespace
