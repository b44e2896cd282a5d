#include "verify/EventLog.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/Hex.h"
#include "tests/verify/VerifyTestUtil.h"

namespace v = Witnessd::Verify;

namespace {

using Bytes = std::vector<uint8_t>;
using Witnessd::VerifyTest::Pair;

Bytes Sha256Of(const std::string& text) {
  Bytes out(32);
  unsigned int len = 0;
  EVP_Digest(text.data(), text.size(), out.data(), &len, EVP_sha256(), nullptr);
  return out;
}

// One event as the test describes it; the builder turns it into records.
struct Event {
  uint32_t pcr;
  uint32_t hvk_event_id;
  std::string payload;            // written with its NUL unless |raw_payload|
  uint32_t type = v::kEvEventTag;
  int sha256_digests = 1;         // how many SHA-256 digests it carries
  bool raw_payload = false;       // payload bytes exactly as given
  int32_t length_delta = 0;       // added to the payload length field
  Bytes digest = {};              // default: SHA-256 of the payload text
};

// A host log with its checksum table and a quote whose SHA256 bank holds
// the values an honest TPM would have, replayed here independently.
struct LogBuilder {
  std::vector<Event> events;
  v::HostClaims claims{0};
  std::string txt_digest = Hearth::HexString(Sha256Of("mle").data(), 32);
  v::PayloadChecksumTable checksums;

  // Outputs.
  std::vector<Bytes> data;
  std::vector<std::vector<v::TcgDigest>> digests;
  std::vector<Bytes> digest_bytes;
  std::vector<v::TcgEventRecord> records;
  std::unique_ptr<v::QuoteEvidence> evidence = std::make_unique<v::QuoteEvidence>();

  static LogBuilder Good(bool txt) {
    LogBuilder b;
    uint32_t core = txt ? 19 : 12;
    b.claims.txtEnabled = txt;
    b.events = {
        {0, 0, "firmware", 1},  // not tagged: skipped below PCR 8
        {4, 1, "bootloader"},   // tagged, replayed, never compared
        {10, 5, "uefiSecureBootEnabled = TRUE"},
        {core, 1, "k.b00"},
        {core, 1, "s.v00"},
        {core, 2, "sb.v00"},
        {11, 2, "hyvupdt.v00"},
        {14, 7, "anything"},
    };
    if (txt) {
      b.events.push_back({17, 2, "b", v::kEvEventTag, 1, false, 0, Sha256Of("mle")});
    }
    for (const char* name : {"k.b00", "s.v00", "sb.v00", "hyvupdt.v00"}) {
      b.checksums[name] = Hearth::HexString(Sha256Of(name).data(), 32);
    }
    return b;
  }

  void Build() {
    size_t n = events.size();
    data.assign(n, {});
    digests.assign(n, {});
    digest_bytes.assign(n, {});
    records.assign(n, {});
    uint8_t replay[24][32];
    std::memset(replay, 0, sizeof(replay));
    if (!claims.txtEnabled) std::memset(replay[17], 0xff, 6 * 32);
    for (size_t i = 0; i < n; ++i) {
      const Event& e = events[i];
      Bytes payload(e.payload.begin(), e.payload.end());
      if (!e.raw_payload) payload.push_back(0);
      uint32_t len = static_cast<uint32_t>(payload.size() + e.length_delta);
      Bytes& d = data[i];
      for (uint32_t x : {e.hvk_event_id, len}) {
        for (int k = 0; k < 4; ++k) d.push_back(static_cast<uint8_t>(x >> (8 * k)));
      }
      d.insert(d.end(), payload.begin(), payload.end());
      digest_bytes[i] = e.digest.empty() ? Sha256Of(e.payload) : e.digest;
      digests[i].push_back({v::kTpmAlgSha1, digest_bytes[i].data(), 20});
      for (int k = 0; k < e.sha256_digests; ++k) {
        digests[i].push_back({v::kTpmAlgSha256, digest_bytes[i].data(), 32});
      }
      records[i] = {e.pcr, e.type, static_cast<uint8_t>(digests[i].size()), digests[i].data(), d.data(),
                    static_cast<uint16_t>(d.size())};
      if (e.pcr < 24) {  // as the TPM extends it, whatever the event
        Bytes input(replay[e.pcr], replay[e.pcr] + 32);
        input.insert(input.end(), digest_bytes[i].begin(), digest_bytes[i].begin() + 32);
        unsigned int out_len;
        EVP_Digest(input.data(), 64, replay[e.pcr], &out_len, EVP_sha256(), nullptr);
      }
    }
    std::memset(evidence.get(), 0, sizeof(*evidence));
    for (int pcr = 0; pcr < 24; ++pcr) std::memcpy(evidence->pcrs[1][pcr], replay[pcr], 32);
  }

  v::VerifyStatus Validate() {
    return v::ValidateEventLog(records.data(), static_cast<uint32_t>(records.size()), &claims, txt_digest.c_str(),
                               &checksums, evidence.get());
  }
};

Event* Find(LogBuilder* b, const std::string& payload) {
  for (Event& e : b->events) {
    if (e.payload == payload) return &e;
  }
  return nullptr;
}

TEST(ValidateEventLog, Rules) {
  // Each row changes one thing of a good log (or a good TXT log).
  const struct {
    const char* name;
    bool txt;
    void (*mutate)(LogBuilder*);
    v::VerifyStatus expected;
  } kRows[] = {
      {"good", false, [](LogBuilder*) {}, v::kVerifyOk},
      {"good with TXT", true, [](LogBuilder*) {}, v::kVerifyOk},
      {"only PCRs 0-7", false, [](LogBuilder* b) { b->events.resize(2); }, v::kChecksumMissing},
      {"TXT claimed, kernel in PCR 12", true, [](LogBuilder* b) { Find(b, "k.b00")->pcr = 12; },
       v::kChecksumMissing},
      {"TXT event without the claim", false,
       [](LogBuilder* b) { b->events.push_back({17, 2, "b", v::kEvEventTag, 1, false, 0, Sha256Of("mle")}); },
       v::kTxtClaimMismatch},
      {"TXT claimed, no TXT event", true, [](LogBuilder* b) { b->events.pop_back(); }, v::kTxtClaimMismatch},
      {"second TXT event", true, [](LogBuilder* b) { b->events.push_back(b->events.back()); }, v::kTxtEventInvalid},
      {"TXT digest differs", true, [](LogBuilder* b) { b->events.back().digest = Sha256Of("other mle"); },
       v::kTxtEventInvalid},
      {"other PCR 17 events pass", true, [](LogBuilder* b) { b->events.push_back({17, 3, "b"}); }, v::kVerifyOk},
      {"payload without NUL becomes Unknown", false,
       [](LogBuilder* b) { Find(b, "s.v00")->raw_payload = true; }, v::kChecksumMissing},
      {"payload with an inner NUL becomes Unknown", false,
       [](LogBuilder* b) { Find(b, "s.v00")->payload = std::string("s.v00\0x", 7); }, v::kChecksumMissing},
      {"hvkEventId 3 in core PCR", false, [](LogBuilder* b) { Find(b, "k.b00")->hvk_event_id = 3; },
       v::kUnexpectedHvkEventId},
      {"hvkEventId 5 in PCR 11", false, [](LogBuilder* b) { Find(b, "hyvupdt.v00")->hvk_event_id = 5; },
       v::kUnexpectedHvkEventId},
      {"payload not trusted", false, [](LogBuilder* b) { b->checksums.erase("sb.v00"); }, v::kChecksumMissing},
      {"payload digest differs", false, [](LogBuilder* b) { Find(b, "sb.v00")->digest = Sha256Of("evil"); },
       v::kChecksumMismatch},
      {"checksum text upper case", false,
       [](LogBuilder* b) {
         for (char& c : b->checksums["k.b00"]) c = static_cast<char>(toupper(c));
       },
       v::kChecksumMismatch},
      {"no SHA-256 digest", false, [](LogBuilder* b) { Find(b, "k.b00")->sha256_digests = 0; }, v::kNoSha256Digest},
      {"no SHA-256 digest in an unchecked PCR", false,
       [](LogBuilder* b) { Find(b, "anything")->sha256_digests = 0; }, v::kNoSha256Digest},
      {"no secure boot event", false, [](LogBuilder* b) { Find(b, "uefiSecureBootEnabled = TRUE")->pcr = 9; },
       v::kNoSecureBoot},
      {"secure boot with hvkEventId 4", false,
       [](LogBuilder* b) { Find(b, "uefiSecureBootEnabled = TRUE")->hvk_event_id = 4; }, v::kNoSecureBoot},
      {"secure boot FALSE", false,
       [](LogBuilder* b) { Find(b, "uefiSecureBootEnabled = TRUE")->payload = "uefiSecureBootEnabled = FALSE"; },
       v::kNoSecureBoot},
      {"same payload twice", false, [](LogBuilder* b) { b->events.push_back(*Find(b, "k.b00")); }, v::kVerifyOk},
      {"untagged event in PCR 12", false, [](LogBuilder* b) { Find(b, "k.b00")->type = 13; },
       v::kEventInvalidInput},
      {"short event data in PCR 3 skipped", false,
       [](LogBuilder* b) { b->events.push_back({3, 1, "x", v::kEvEventTag, 1, false, 100}); }, v::kVerifyOk},
      {"short event data in PCR 8", false,
       [](LogBuilder* b) { b->events.push_back({8, 1, "x", v::kEvEventTag, 1, false, 1}); }, v::kEventInvalidInput},
      {"payload length 0", false, [](LogBuilder* b) { b->events.push_back({4, 1, "", v::kEvEventTag, 1, true}); },
       v::kEventInvalidInput},
      {"PCR 24", false, [](LogBuilder* b) { b->events.push_back({24, 1, "x"}); }, v::kEventInvalidInput},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    LogBuilder b = LogBuilder::Good(row.txt);
    row.mutate(&b);
    b.Build();
    EXPECT_EQ(Pair(row.expected), Pair(b.Validate()));
  }
}

TEST(ValidateAndReplayEventLog, ComparePcrs8To22Except16) {
  for (uint32_t pcr = 0; pcr < 24; ++pcr) {
    SCOPED_TRACE(pcr);
    LogBuilder b = LogBuilder::Good(false);
    b.Build();
    b.evidence->pcrs[1][pcr][31] ^= 1;
    v::VerifyStatus want = pcr >= 8 && pcr <= 22 && pcr != 16 ? v::kReplayMismatch : v::kVerifyOk;
    EXPECT_EQ(Pair(want), Pair(b.Validate()));
    uint32_t n = static_cast<uint32_t>(b.records.size()), replayed = 0;
    EXPECT_EQ(Pair(want), Pair(v::ReplayEventLog(b.records.data(), n, b.evidence.get(), &replayed)));
  }
}

TEST(ValidateEventLog, RepairsPayloadInPlace) {
  LogBuilder b = LogBuilder::Good(false);
  Event* kernel = Find(&b, "k.b00");
  kernel->payload = "k.b00x";
  kernel->raw_payload = true;  // 6 bytes, no NUL
  b.Build();
  EXPECT_EQ(Pair(v::kChecksumMissing), Pair(b.Validate()));
  // "Unknown" cut to the 6-byte payload, whose last byte becomes the NUL.
  EXPECT_EQ(0, memcmp(b.data[3].data() + 8, "Unkno\0", 6));
  // Absent inputs.
  EXPECT_EQ(Pair(v::kEventInvalidInput), Pair(v::ValidateEventLog(nullptr, 3, &b.claims, "", &b.checksums,
                                                                    b.evidence.get())));
  EXPECT_EQ(Pair(v::kEventInvalidInput), Pair(v::ValidateEventLog(b.records.data(), 0, &b.claims, "", &b.checksums,
                                                                    b.evidence.get())));
  EXPECT_EQ(Pair(v::kEventInvalidInput), Pair(v::ValidateEventLog(b.records.data(), 3, &b.claims, "", nullptr,
                                                                    b.evidence.get())));
}

// Facts come from replayed PCRs only: TXT is the boot-module tag "b" in PCR 17, the Hvkernel
// digest that of the first boot-module tag "k.b00" in the kernel PCR, 12, or 19 after TXT.
TEST(ReplayEventLog, BootFactsComeFromReplayedPcrsOnly) {
  auto tag = [](uint32_t pcr, uint32_t id, const std::string& text, const Bytes& digest) {
    return Event{pcr, id, text, v::kEvEventTag, 1, false, 0, digest};
  };
  const Bytes kernel = Sha256Of("kernel"), later = Sha256Of("later");
  auto kb = [&](uint32_t pcr, const Bytes& digest) { return tag(pcr, 2, "k.b00", digest); };
  const std::string k = Hearth::HexString(kernel.data(), 32), l = Hearth::HexString(later.data(), 32);
  const Event txt = tag(17, 2, "b", Sha256Of("mle"));
  const struct {
    const char* name;
    std::vector<Event> events;
    bool launch;  // the quoted boot was a TXT launch
    std::string digest;
    bool txt = false;
    v::VerifyStatus status = v::kVerifyOk;
  } kRows[] = {
      {"first of two wins", {kb(12, kernel), kb(12, later)}, false, k},
      {"kernel in PCR 19 after TXT", {txt, kb(19, kernel)}, true, k, true},
      {"TXT moves the search off PCR 12", {txt, kb(12, kernel)}, true, "", true},
      {"kernel in PCR 19 without TXT", {kb(19, kernel)}, false, ""},
      {"one character more", {tag(12, 2, "k.b00x", kernel), kb(12, later)}, false, l},
      {"shorter text", {tag(12, 2, "k.b0", kernel)}, false, ""},
      {"setting tag id", {tag(12, 5, "k.b00", kernel)}, false, ""},
      {"TXT tag in the wrong PCR", {tag(18, 2, "b", kernel), kb(12, later)}, false, l},
      {"untagged events replay too", {{12, 0, "x", 13}, kb(12, kernel)}, false, k},
      {"no SHA-256 digest: PCR left out", {{12, 2, "k.b00", v::kEvEventTag, 0, false, 0, kernel}}, false, ""},
      {"TXT tag without a TXT launch", {txt, kb(19, kernel)}, false, "", false, v::kReplayMismatch},
      {"TXT launch the log leaves out", {kb(12, kernel)}, true, "", false, v::kReplayMismatch},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    LogBuilder b;
    b.events = row.events;
    b.claims.txtEnabled = row.launch;
    b.Build();
    uint32_t n = static_cast<uint32_t>(b.records.size()), replayed = 0;
    EXPECT_EQ(Pair(row.status), Pair(v::ReplayEventLog(b.records.data(), n, b.evidence.get(), &replayed)));
    v::BootFacts f = v::ReadBootFacts(b.records.data(), n, replayed);
    EXPECT_EQ(std::make_pair(row.txt, row.digest), std::make_pair(f.txt, f.hvkernel_digest));
  }
}

TEST(FindSha256Digest, CountsOnlySha256Of32Bytes) {
  const uint8_t bytes[64] = {};
  const struct {
    const char* name;
    std::vector<v::TcgDigest> digests;
    v::VerifyStatus expected;
  } kRows[] = {
      {"one", {{v::kTpmAlgSha1, bytes, 20}, {v::kTpmAlgSha256, bytes, 32}}, v::kVerifyOk},
      {"wrong size", {{v::kTpmAlgSha256, bytes, 20}}, v::kNoSha256Digest},
      {"two", {{v::kTpmAlgSha256, bytes, 32}, {v::kTpmAlgSha384, bytes, 48}, {v::kTpmAlgSha256, bytes, 32}},
       v::kDuplicateSha256Digest},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    const v::TcgDigest* out = nullptr;
    EXPECT_EQ(Pair(row.expected),
              Pair(v::FindSha256Digest(row.digests.data(), static_cast<uint32_t>(row.digests.size()), &out)));
  }
}

TEST(DigestMatchesHex, EndsExactly) {
  const uint8_t d[2] = {0xab, 0x01};
  EXPECT_FALSE(v::DigestMatchesHex(d, 2, "ab0"));
  EXPECT_FALSE(v::DigestMatchesHex(d, 2, "ab01 "));
}

}  // namespace
