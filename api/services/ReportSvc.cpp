#include "api/services/ReportSvc.h"

namespace Witnessd::AttestApi {

namespace {

ReportSvc::DocumentType ParseDocumentType(const std::string& text) {
  if (text == "KMS_AUTH_JWT") {
    return ReportSvc::DocumentType::kKmsAuthJwt;
  }
  if (text == "REPORTING_JWT") {
    return ReportSvc::DocumentType::kReportingJwt;
  }
  return ReportSvc::DocumentType::kUnknown;
}

ReportSvc::Request DecodeRequest(Binding::InputReader& input) {
  ReportSvc::Request request;
  Binding::InputReader r = input.Object("request");
  std::string type = r.String("type");
  if (type != "TPM2") {
    input.Merge(r);
    return request;
  }
  request.type = ReportSvc::RequestType::kTpm2;
  Binding::InputReader tpm = r.Object("tpm2");
  ReportSvc::Tpm out;
  for (const auto& t : tpm.StringList("document_types")) {
    out.document_types.push_back(ParseDocumentType(t));
  }
  out.contexts = tpm.BinaryList("contexts");
  Binding::InputReader ek = tpm.Object("ek");
  out.ek.certificate = ek.OptString("certificate");
  out.ek.public_key = ek.OptString("public_key");
  tpm.Merge(ek);
  r.Merge(tpm);
  input.Merge(r);
  request.tpm2 = std::move(out);
  return request;
}

}  // namespace

const char* ReportSvc::DocumentTypeName(DocumentType type) {
  switch (type) {
    case DocumentType::kKmsAuthJwt: return "KMS_AUTH_JWT";
    case DocumentType::kReportingJwt: return "REPORTING_JWT";
    case DocumentType::kUnknown: break;
  }
  return "UNKNOWN";
}

nlohmann::json Encode(const ReportSvc::Document& document) {
  return {{"type", ReportSvc::DocumentTypeName(document.type)}, {"document", document.document}};
}

nlohmann::json Encode(const ReportSvc::Result& result) {
  nlohmann::json out = nlohmann::json::object();
  if (result.contexts) {
    nlohmann::json contexts = nlohmann::json::array();
    for (const auto& c : *result.contexts) {
      contexts.push_back(Lumen::Json::Base64Encode(c));
    }
    out["contexts"] = std::move(contexts);
  }
  if (result.documents) {
    out["documents"] = Binding::Encode(*result.documents);
  }
  return out;
}

void ReportSvc::AsyncServiceBinder::BindImplementation(std::shared_ptr<ReportSvc> impl,
                                                       Lumen::Provider::InterfaceList* interfaces) {
  auto iface = std::make_shared<Lumen::Provider::ApiInterface>();
  iface->service_id = kServiceId;
  iface->operations["create"] = Binding::MakeOperation<Request, Result>(
      DecodeRequest, [impl](const Request& request, Callback<Result> done) { impl->Create(request, std::move(done)); });
  interfaces->push_back(iface);
}

}  // namespace Witnessd::AttestApi
