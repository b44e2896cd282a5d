#include "api/errors/ErrorCatalogue.h"

#include <set>

#include <gtest/gtest.h>

#include "platform/lumen/Localizer.h"

namespace {

using namespace Witnessd::AttestApi::Errors;
namespace StdErrors = Com::Quarro::Lumen::Std::Errors;

TEST(LookupMessage, ExactIdOrUnknown) {
  const struct {
    const char* id;
    const char* want;
  } kCases[] = {
      {"com.quarro.hyv.attestation.report.attest_failed", "Attestation failed."},
      {"", "Unknown message."},
      {"COM.quarro.hyv.attestation.report.attest_failed", "Unknown message."},
      {"com.quarro.hyv.attestation.report.attest_failed ", "Unknown message."},
      {"com.quarro.hyv.attestation.report", "Unknown message."},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.id);
    EXPECT_EQ(c.want, LookupMessage(c.id));
  }
}

TEST(Catalogue, IdsUniqueUnderOneRootWithAtMostOnePlaceholder) {
  size_t n = 0;
  const CatalogueEntry* entries = Catalogue(&n);
  std::set<std::string> ids;
  for (size_t i = 0; i < n; ++i) {
    std::string id = entries[i].id;
    std::string text = entries[i].default_message;
    SCOPED_TRACE(id);
    EXPECT_TRUE(ids.insert(id).second);
    EXPECT_EQ(0u, id.find("com.quarro.hyv.attestation."));
    EXPECT_LE(std::count(text.begin(), text.end(), '{'), 1);
    EXPECT_EQ(text, LookupMessage(id));  // the first entry with the id is the one found
  }
}

TEST(CatalogueErrors, CarryIdDefaultTextAndArguments) {
  Lumen::StdError e = AlreadyExists(kEndorsementKeysAlreadyExists, {"ek1"});
  EXPECT_EQ(StdErrors::Kind::kAlreadyExists, e.kind);
  ASSERT_EQ(1u, e.messages.size());
  EXPECT_EQ("A TPM Endorsement Key with name '{name}' already exists.", e.messages[0].default_message);
  EXPECT_EQ(std::vector<std::string>{"ek1"}, e.messages[0].args);
  Lumen::L10n::Localizer localizer("en_US", &LookupMessage);
  EXPECT_EQ("A TPM Endorsement Key with name 'ek1' already exists.", localizer.Format(e.messages[0], "de_DE"));
}

}  // namespace
