#include "api/errors/ErrorCatalogue.h"

#include <cstring>
#include <iterator>

namespace Witnessd::AttestApi::Errors {

namespace {

namespace StdErrors = Com::Quarro::Lumen::Std::Errors;

// The two odd texts are intended and kept: "Invalid TPM settings" has no full
// stop, and an unknown session is reported to clients as a timed-out one.
constexpr CatalogueEntry kCatalogue[] = {
    {"com.quarro.hyv.attestation.os.hyv.base_images.already_exists",
     "The base image version '{version}' already exists."},
    {"com.quarro.hyv.attestation.os.hyv.base_images.invalid_argument",
     "A specified parameter was not correct: '{argument}'."},
    {"com.quarro.hyv.attestation.tpm2.ca_certificates.already_exists",
     "A TPM Certificate Authority certificate with name '{name}' already exists."},
    {"com.quarro.hyv.attestation.tpm2.ca_certificates.empty_certs",
     "No TPM Certificate Authority certificates were specified."},
    {"com.quarro.hyv.attestation.tpm2.ca_certificates.empty_name",
     "The TPM Certificate Authority certificate name must be specified."},
    {"com.quarro.hyv.attestation.tpm2.ca_certificates.invalid_chain",
     "The TPM Certificate Authority certificate chain cannot be validated."},
    {"com.quarro.hyv.attestation.tpm2.ca_certificates.invalid_data",
     "The TPM Certificate Authority certificate contains invalid data."},
    {"com.quarro.hyv.attestation.tpm2.endorsement_keys.already_exists",
     "A TPM Endorsement Key with name '{name}' already exists."},
    {"com.quarro.hyv.attestation.tpm2.endorsement_keys.already_exists_ek",
     "The TPM Endorsement Key is already configured."},
    {"com.quarro.hyv.attestation.tpm2.endorsement_keys.empty_ek", "No TPM Endorsement Key was specified."},
    {"com.quarro.hyv.attestation.tpm2.endorsement_keys.empty_name",
     "The TPM Endorsement Key name must be specified."},
    {"com.quarro.hyv.attestation.tpm2.endorsement_keys.invalid_cert",
     "The TPM Endorsement Key certificate could not be verified against the configured Certificate "
     "Authorities."},
    {"com.quarro.hyv.attestation.tpm2.endorsement_keys.invalid_data",
     "The TPM Endorsement Key contains invalid data."},
    {"com.quarro.hyv.attestation.tpm2.endorsement_keys.invalid_key",
     "The TPM Endorsement Key is not a valid public key."},
    {"com.quarro.hyv.attestation.tpm2.endorsement_keys.mismatched_ek",
     "The TPM Endorsement Key certificate does not match the public key."},
    {"com.quarro.hyv.attestation.tpm2.endorsement_keys.no_ek",
     "A TPM Endorsement Key requires a public key or certificate."},
    {"com.quarro.hyv.attestation.tpm2.settings.invalid_requirements",
     "Endorsement Key certificate validation or public key validation is required."},
    {"com.quarro.hyv.attestation.raw_config.export_failed",
     "Unable to export the Attestation Service configuration."},
    {"com.quarro.hyv.attestation.raw_config.import_failed",
     "Unable to import the Attestation Service configuration."},
    {"com.quarro.hyv.attestation.raw_config.invalid_infotype",
     "Unknown configuration information type requested."},
    {"com.quarro.hyv.attestation.report.attest_failed", "Attestation failed."},
    {"com.quarro.hyv.attestation.report.attest_incomplete", "Attestation failed due to incomplete data."},
    {"com.quarro.hyv.attestation.report.attest_invalid_input",
     "Attestation failed due to invalid or corrupted inputs."},
    {"com.quarro.hyv.attestation.report.attest_invalid_state",
     "Attestation failed with an invalid message sequence."},
    {"com.quarro.hyv.attestation.report.attest_no_secure_boot",
     "Attestation failed because Secure Boot is not enabled."},
    {"com.quarro.hyv.attestation.report.attest_session_limit", "Attestation active session limit reached."},
    {"com.quarro.hyv.attestation.report.attest_unknown_session", "Attestation session has timed out."},
    {"com.quarro.hyv.attestation.report.attest_unknown_software",
     "Attestation failed to identify the remote software version."},
    {"com.quarro.hyv.attestation.report.attest_verify_failed",
     "Attestation failed to verify software measurements."},
    {"com.quarro.hyv.attestation.report.invalid_doctype", "An unknown attestation document type was requested."},
    {"com.quarro.hyv.attestation.report.tpm_cert_required",
     "Attestation failed because a TPM certificate is required."},
    {"com.quarro.hyv.attestation.report.unknown_tpm", "Attestation failed due to an unknown TPM."},
    {"com.quarro.hyv.attestation.report.unknown_tpm_ca", "Attestation failed due to an untrusted TPM certificate."},
    {"com.quarro.hyv.attestation.status.invalid_tpm2_settings", "Invalid TPM settings"},
    {"com.quarro.hyv.attestation.status.tpm_ca_unset", "No TPM Certificate Authority certificates are configured."},
    {"com.quarro.hyv.attestation.status.tpm_ek_unset", "No TPM Endorsement Keys are configured."},
    {"com.quarro.hyv.attestation.status.tpm_dup_ca", "Duplicate TPM Certificate Authority certificates present."},
    {"com.quarro.hyv.attestation.status.trusted_software_unset", "No trusted software is configured."},
    {"com.quarro.hyv.attestation.status.hyv_base_images_load_error", "Failed to load trusted HYV software."},
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
