// Binding of the report service "com.quarro.hyv.attestation.report".
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "api/services/ServiceBinding.h"

namespace Witnessd::AttestApi {

class ReportSvc {
 public:
  static constexpr const char* kServiceId = "com.quarro.hyv.attestation.report";

  // Request type: only "TPM2" is supported; any other string is kUnknown.
  enum class RequestType { kTpm2, kUnknown };
  // Document types; any other string is kUnknown.
  enum class DocumentType { kKmsAuthJwt, kReportingJwt, kUnknown };

  struct Ek {
    std::optional<std::string> certificate;  // PEM
    std::optional<std::string> public_key;   // PEM
  };
  struct Tpm {
    std::vector<DocumentType> document_types;
    std::vector<std::vector<uint8_t>> contexts;  // serialized Context messages
    Ek ek;
  };
  struct Request {
    RequestType type = RequestType::kUnknown;
    std::optional<Tpm> tpm2;  // always present when type is kTpm2
  };
  struct Document {
    DocumentType type = DocumentType::kKmsAuthJwt;
    std::string document;  // compact JWT
  };
  // Result: the contexts to send back while the conversation goes on, or
  // the documents when it is done.
  struct Result {
    std::optional<std::vector<std::vector<uint8_t>>> contexts;
    std::optional<std::vector<Document>> documents;
  };

  virtual ~ReportSvc() = default;
  virtual void Create(const Request& request, Callback<Result> done) = 0;

  struct AsyncServiceBinder {
    static void BindImplementation(std::shared_ptr<ReportSvc> impl, Lumen::Provider::InterfaceList* interfaces);
  };

  static const char* DocumentTypeName(DocumentType type);
};

nlohmann::json Encode(const ReportSvc::Document& document);
nlohmann::json Encode(const ReportSvc::Result& result);

}  // namespace Witnessd::AttestApi
