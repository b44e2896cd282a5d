#include "api/errors/ErrorCatalogue.h"

#include <cstring>
#include <iterator>

namespace Witnessd::AttestApi::Errors {

namespace {

namespace StdErrors = Com::Quarro::Lumen::Std::Errors;

// The two odd texts are intended and kept: "Invalid TPM settings" has no full
// stop, and an unknown session is reported to clients as a timed-out one.
constexpr CatalogueEntry kCatalogue[] = {
    {kBaseImagesAlreadyExists, "The base image version '{version}' already exists."},
    {kBaseImagesInvalidArgument, "A specified parameter was not correct: '{argument}'."},
    {kCaCertificatesAlreadyExists,
     "A TPM Certificate Authority certificate with name '{name}' already exists."},
    {kCaCertificatesEmptyCerts, "No TPM Certificate Authority certificates were specified."},
    {kCaCertificatesEmptyName, "The TPM Certificate Authority certificate name must be specified."},
    {kCaCertificatesInvalidChain, "The TPM Certificate Authority certificate chain cannot be validated."},
    {kCaCertificatesInvalidData, "The TPM Certificate Authority certificate contains invalid data."},
    {kEndorsementKeysAlreadyExists, "A TPM Endorsement Key with name '{name}' already exists."},
    {kEndorsementKeysAlreadyExistsEk, "The TPM Endorsement Key is already configured."},
    {kEndorsementKeysEmptyEk, "No TPM Endorsement Key was specified."},
    {kEndorsementKeysEmptyName, "The TPM Endorsement Key name must be specified."},
    {kEndorsementKeysInvalidCert,
     "The TPM Endorsement Key certificate could not be verified against the configured Certificate "
     "Authorities."},
    {kEndorsementKeysInvalidData, "The TPM Endorsement Key contains invalid data."},
    {kEndorsementKeysInvalidKey, "The TPM Endorsement Key is not a valid public key."},
    {kEndorsementKeysMismatchedEk, "The TPM Endorsement Key certificate does not match the public key."},
    {kEndorsementKeysNoEk, "A TPM Endorsement Key requires a public key or certificate."},
    {kCertificateInvalidPair, "The signing certificate and private key cannot be used: {reason}."},
    {kTpm2SettingsInvalidRequirements,
     "Endorsement Key certificate validation or public key validation is required."},
    {kRawConfigExportFailed, "Unable to export the Attestation Service configuration."},
    {kRawConfigImportFailed, "Unable to import the Attestation Service configuration."},
    {kRawConfigInvalidInfoType, "Unknown configuration information type requested."},
    {kReportAttestFailed, "Attestation failed."},
    {kReportAttestIncomplete, "Attestation failed due to incomplete data."},
    {kReportAttestInvalidInput, "Attestation failed due to invalid or corrupted inputs."},
    {kReportAttestInvalidState, "Attestation failed with an invalid message sequence."},
    {kReportAttestNoSecureBoot, "Attestation failed because Secure Boot is not enabled."},
    {kReportAttestSessionLimit, "Attestation active session limit reached."},
    {kReportAttestUnknownSession, "Attestation session has timed out."},
    {kReportAttestUnknownSoftware, "Attestation failed to identify the remote software version."},
    {kReportAttestVerifyFailed, "Attestation failed to verify software measurements."},
    {kReportInvalidDocType, "An unknown attestation document type was requested."},
    {kReportTpmCertRequired, "Attestation failed because a TPM certificate is required."},
    {kReportUnknownTpm, "Attestation failed due to an unknown TPM."},
    {kReportUnknownTpmCa, "Attestation failed due to an untrusted TPM certificate."},
    {kStatusInvalidTpm2Settings, "Invalid TPM settings"},
    {kStatusTpmCaUnset, "No TPM Certificate Authority certificates are configured."},
    {kStatusTpmEkUnset, "No TPM Endorsement Keys are configured."},
    {kStatusTpmDupCa, "Duplicate TPM Certificate Authority certificates present."},
    {kStatusTrustedSoftwareUnset, "No trusted software is configured."},
    {kStatusHyvBaseImagesLoadError, "Failed to load trusted HYV software."},
};

Lumen::StdError WithMessage(Lumen::StdError e, const std::string& id, std::vector<std::string> args) {
  e.messages.push_back(MakeMessage(id, std::move(args)));
  return e;
}

}  // namespace

const CatalogueEntry* Catalogue(size_t* num_entries) {
  *num_entries = std::size(kCatalogue);
  return kCatalogue;
}

std::string LookupMessage(const std::string& id) {
  for (const auto& entry : kCatalogue) {
    if (id == entry.id) {
      return entry.default_message;
    }
  }
  return "Unknown message.";
}

Lumen::LocalizableMessage MakeMessage(const std::string& id, std::vector<std::string> args) {
  return {id, LookupMessage(id), std::move(args)};
}

Lumen::StdError InvalidArgument(const std::string& id, std::vector<std::string> args) {
  return WithMessage(StdErrors::InvalidArgument({}), id, std::move(args));
}

Lumen::StdError AlreadyExists(const std::string& id, std::vector<std::string> args) {
  return WithMessage(StdErrors::AlreadyExists({}), id, std::move(args));
}

Lumen::StdError NotFound(const std::string& id, std::vector<std::string> args) {
  return WithMessage(StdErrors::NotFound({}), id, std::move(args));
}

Lumen::StdError Error(const std::string& id, std::vector<std::string> args) {
  return WithMessage(StdErrors::Error({}), id, std::move(args));
}

}  // namespace Witnessd::AttestApi::Errors
