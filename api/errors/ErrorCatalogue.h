// The catalogue of API error messages: every message id the services report,
// with its English default text, and the helpers that build standard errors
// from it.
#pragma once

#include <string>
#include <vector>

#include "platform/lumen/Message.h"

namespace Witnessd::AttestApi::Errors {

// Message ids of the catalogue, one constant per entry; services raise and
// tests check errors through these names.
// Base images service.
inline constexpr char kBaseImagesAlreadyExists[] = "com.quarro.hyv.attestation.os.hyv.base_images.already_exists";
inline constexpr char kBaseImagesInvalidArgument[] = "com.quarro.hyv.attestation.os.hyv.base_images.invalid_argument";
// TPM CA certificates service.
inline constexpr char kCaCertificatesAlreadyExists[] = "com.quarro.hyv.attestation.tpm2.ca_certificates.already_exists";
inline constexpr char kCaCertificatesEmptyCerts[] = "com.quarro.hyv.attestation.tpm2.ca_certificates.empty_certs";
inline constexpr char kCaCertificatesEmptyName[] = "com.quarro.hyv.attestation.tpm2.ca_certificates.empty_name";
inline constexpr char kCaCertificatesInvalidChain[] = "com.quarro.hyv.attestation.tpm2.ca_certificates.invalid_chain";
inline constexpr char kCaCertificatesInvalidData[] = "com.quarro.hyv.attestation.tpm2.ca_certificates.invalid_data";
// TPM endorsement keys service.
inline constexpr char kEndorsementKeysAlreadyExists[] =
    "com.quarro.hyv.attestation.tpm2.endorsement_keys.already_exists";
inline constexpr char kEndorsementKeysAlreadyExistsEk[] =
    "com.quarro.hyv.attestation.tpm2.endorsement_keys.already_exists_ek";
inline constexpr char kEndorsementKeysEmptyEk[] = "com.quarro.hyv.attestation.tpm2.endorsement_keys.empty_ek";
inline constexpr char kEndorsementKeysEmptyName[] = "com.quarro.hyv.attestation.tpm2.endorsement_keys.empty_name";
inline constexpr char kEndorsementKeysInvalidCert[] = "com.quarro.hyv.attestation.tpm2.endorsement_keys.invalid_cert";
inline constexpr char kEndorsementKeysInvalidData[] = "com.quarro.hyv.attestation.tpm2.endorsement_keys.invalid_data";
inline constexpr char kEndorsementKeysInvalidKey[] = "com.quarro.hyv.attestation.tpm2.endorsement_keys.invalid_key";
inline constexpr char kEndorsementKeysMismatchedEk[] = "com.quarro.hyv.attestation.tpm2.endorsement_keys.mismatched_ek";
inline constexpr char kEndorsementKeysNoEk[] = "com.quarro.hyv.attestation.tpm2.endorsement_keys.no_ek";
// Signing certificate service.
inline constexpr char kCertificateInvalidPair[] = "com.quarro.hyv.attestation.certificate.invalid_pair";
// TPM settings service.
inline constexpr char kTpm2SettingsInvalidRequirements[] =
    "com.quarro.hyv.attestation.tpm2.settings.invalid_requirements";
// Raw configuration service.
inline constexpr char kRawConfigExportFailed[] = "com.quarro.hyv.attestation.raw_config.export_failed";
inline constexpr char kRawConfigImportFailed[] = "com.quarro.hyv.attestation.raw_config.import_failed";
inline constexpr char kRawConfigInvalidInfoType[] = "com.quarro.hyv.attestation.raw_config.invalid_infotype";
// Report service.
inline constexpr char kReportAttestFailed[] = "com.quarro.hyv.attestation.report.attest_failed";
inline constexpr char kReportAttestIncomplete[] = "com.quarro.hyv.attestation.report.attest_incomplete";
inline constexpr char kReportAttestInvalidInput[] = "com.quarro.hyv.attestation.report.attest_invalid_input";
inline constexpr char kReportAttestInvalidState[] = "com.quarro.hyv.attestation.report.attest_invalid_state";
inline constexpr char kReportAttestNoSecureBoot[] = "com.quarro.hyv.attestation.report.attest_no_secure_boot";
inline constexpr char kReportAttestSessionLimit[] = "com.quarro.hyv.attestation.report.attest_session_limit";
inline constexpr char kReportAttestUnknownSession[] = "com.quarro.hyv.attestation.report.attest_unknown_session";
inline constexpr char kReportAttestUnknownSoftware[] = "com.quarro.hyv.attestation.report.attest_unknown_software";
inline constexpr char kReportAttestVerifyFailed[] = "com.quarro.hyv.attestation.report.attest_verify_failed";
inline constexpr char kReportInvalidDocType[] = "com.quarro.hyv.attestation.report.invalid_doctype";
inline constexpr char kReportTpmCertRequired[] = "com.quarro.hyv.attestation.report.tpm_cert_required";
inline constexpr char kReportUnknownTpm[] = "com.quarro.hyv.attestation.report.unknown_tpm";
inline constexpr char kReportUnknownTpmCa[] = "com.quarro.hyv.attestation.report.unknown_tpm_ca";
// Status service health messages.
inline constexpr char kStatusInvalidTpm2Settings[] = "com.quarro.hyv.attestation.status.invalid_tpm2_settings";
inline constexpr char kStatusTpmCaUnset[] = "com.quarro.hyv.attestation.status.tpm_ca_unset";
inline constexpr char kStatusTpmEkUnset[] = "com.quarro.hyv.attestation.status.tpm_ek_unset";
inline constexpr char kStatusTpmDupCa[] = "com.quarro.hyv.attestation.status.tpm_dup_ca";
inline constexpr char kStatusTrustedSoftwareUnset[] = "com.quarro.hyv.attestation.status.trusted_software_unset";
inline constexpr char kStatusHyvBaseImagesLoadError[] = "com.quarro.hyv.attestation.status.hyv_base_images_load_error";

struct CatalogueEntry {
  const char* id;
  const char* default_message;
};

// Catalogue returns the fixed table, in lookup order; |num_entries| gets its
// length.
const CatalogueEntry* Catalogue(size_t* num_entries);

// LookupMessage returns the default text of the first entry whose id equals
// |id| exactly (case-sensitive), or "Unknown message.".
std::string LookupMessage(const std::string& id);

// MakeMessage builds the localizable message for |id| with its default text
// and |args| (the placeholder values, in order).
Lumen::LocalizableMessage MakeMessage(const std::string& id, std::vector<std::string> args = {});

// Standard errors carrying one catalogue message.
Lumen::StdError InvalidArgument(const std::string& id, std::vector<std::string> args = {});
Lumen::StdError AlreadyExists(const std::string& id, std::vector<std::string> args = {});
Lumen::StdError NotFound(const std::string& id, std::vector<std::string> args = {});
Lumen::StdError Error(const std::string& id, std::vector<std::string> args = {});

}  // namespace Witnessd::AttestApi::Errors
