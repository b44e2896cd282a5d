#include "tests/tpm2/InProcessReport.h"

#include <cstdio>

#include "config/Configuration.h"

namespace Witnessd::Testing {

using AttestApi::ReportSvc;

bool PutBaseImage(Trusted::BaseImageStore& images, const Agent::BootPlan& plan, const std::string& version) {
  using namespace Trusted;
  PakEntry base{"hyv-base", version, "Quarro", "bootbank", "base", {}};
  base.payloads.push_back(
      {"k", "k.b00", {{Hex(Agent::PayloadDigest(plan, Agent::kKernelPayload)), "sha-256", "gunzip"}}});
  base.payloads.push_back({"b", "b.b00", {{Hex(Agent::LaunchDigest(plan)), "sha-256", "txt-mle"}}});
  for (const char* name : {Agent::kSystemPayload, Agent::kSystemBootPayload, Agent::kUpdatePayload}) {
    base.payloads.push_back({name, name, {{Hex(Agent::PayloadDigest(plan, name)), "sha-256", "gunzip"}}});
  }
  HyvConfig::ConfigStoreObject image(Config::MakeId(Config::kKeyBaseImages, version));
  image.SetValue("version", version);
  if (!AddPakToBaseImage(image, base)) {
    return false;
  }
  images.Write([&](HyvConfig::HyvConfigStore& store) {
    int status = 0;
    store.SetObject(image, status);
  });
  return true;
}

Agent::ReportTransport InProcessTransport(ReportSvc* report, std::function<void(const std::function<void()>&)> timed) {
  return [report, timed](const Agent::ReportCall& call, Agent::ReportAnswer* out, std::string* failure) {
    ReportSvc::Request request;
    request.type = ReportSvc::RequestType::kTpm2;
    ReportSvc::Tpm tpm;
    for (const std::string& t : call.document_types) {
      tpm.document_types.push_back(t == "KMS_AUTH_JWT"    ? ReportSvc::DocumentType::kKmsAuthJwt
                                   : t == "REPORTING_JWT" ? ReportSvc::DocumentType::kReportingJwt
                                                          : ReportSvc::DocumentType::kUnknown);
    }
    tpm.contexts = call.contexts;
    if (!call.ek_certificate_pem.empty()) {
      tpm.ek.certificate = call.ek_certificate_pem;
    }
    if (!call.ek_public_pem.empty()) {
      tpm.ek.public_key = call.ek_public_pem;
    }
    request.tpm2 = std::move(tpm);
    int answers = 0;
    auto create = [&] {
      report->Create(request, [&](Lumen::Outcome<ReportSvc::Result> outcome) {
        answers++;
        if (auto* error = std::get_if<Lumen::StdError>(&outcome)) {
          out->error_type = Com::Quarro::Lumen::Std::Errors::KindName(error->kind);
          out->error_id = error->messages.empty() ? "" : error->messages[0].id;
          return;
        }
        auto& result = std::get<ReportSvc::Result>(outcome);
        if (result.documents) {
          out->done = true;
          for (const auto& d : *result.documents) {
            out->documents.emplace_back(ReportSvc::DocumentTypeName(d.type), d.document);
          }
        } else if (result.contexts && result.contexts->size() == 1) {
          out->context = (*result.contexts)[0];
        }
      });
    };
    if (timed) {
      timed(create);
    } else {
      create();
    }
    if (answers != 1) {
      *failure = "Report answered " + std::to_string(answers) + " times";
      return false;
    }
    return true;
  };
}

}  // namespace Witnessd::Testing
