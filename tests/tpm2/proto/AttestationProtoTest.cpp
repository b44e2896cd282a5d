#include <gtest/gtest.h>

#include <string>

#include "tpm2/proto/attestation.pb.h"

namespace {

using attestation::proto::Context;
using attestation::proto::EventLogResponse;

std::string Hex(const std::string& s) {
  static const char* kDigits = "0123456789abcdef";
  std::string out;
  for (unsigned char c : s) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out;
}

TEST(AttestationProto, TypeNamesAreTheWireContract) {
  EXPECT_EQ("attestation.proto.Context", Context().GetTypeName());
  EXPECT_EQ("attestation.proto.Context.Message", Context::Message().GetTypeName());
  EXPECT_EQ("attestation.proto.QuoteResponse.PcrReadResult",
            attestation::proto::QuoteResponse::PcrReadResult().GetTypeName());
  EXPECT_EQ("attestation.proto.EventLogRequest", attestation::proto::EventLogRequest().GetTypeName());
}

TEST(AttestationProto, WireBytes) {
  // Each row: a message built in code and its exact encoding, field by field.
  Context with_requests;
  with_requests.set_session_id(1);
  auto* m = with_requests.add_messages();
  m->mutable_quote_request()->set_qualifying_data("n");
  m->mutable_event_log_request();  // empty, still written
  Context empty_holder;
  empty_holder.set_session_id(0x80);
  empty_holder.add_messages();
  Context log;
  auto* response = log.add_messages()->mutable_event_log_response();
  response->set_complete(false);
  response->set_event_log("L");
  const struct {
    const char* name;
    const Context& context;
    const char* hex;
  } kRows[] = {
      // 08 01: session_id 1; 12 07: messages; 32 03 0a 01 6e: quote_request{1:"n"}; 42 00: event_log_request
      {"requests", with_requests, "0801" "1207" "3203" "0a016e" "4200"},
      // 08 80 01: session_id 128 as varint; 12 00: an empty holder
      {"empty holder", empty_holder, "088001" "1200"},
      // 4a 05: event_log_response{1: false, 2: "L"}
      {"complete false", log, "1207" "4a05" "0800" "12014c"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.hex, Hex(row.context.SerializeAsString()));
  }
}

TEST(AttestationProto, ParsingSkipsUnknownAndKeepsPresence) {
  // A holder with field 1 (unassigned) and an event log response without
  // "complete": both parse; field 1 is unknown data, "complete" is absent.
  const std::string wire("\x12\x07\x0a\x01x\x4a\x02\x12\x00", 9);
  Context context;
  ASSERT_TRUE(context.ParseFromString(wire));
  ASSERT_EQ(1, context.messages_size());
  const auto& message = context.messages(0);
  EXPECT_FALSE(message.has_quote_response());
  ASSERT_TRUE(message.has_event_log_response());
  EXPECT_FALSE(message.event_log_response().has_complete());
  EXPECT_TRUE(message.event_log_response().has_event_log());
  EXPECT_FALSE(context.has_session_id());

  // Every strict prefix that cuts a field fails to parse.
  for (size_t n : {1u, 2u, 5u, 8u}) {
    Context cut;
    EXPECT_FALSE(cut.ParseFromString(wire.substr(0, n))) << n;
  }
}

}  // namespace
