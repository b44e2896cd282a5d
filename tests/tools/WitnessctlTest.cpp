// witnessctl against a real daemon: commands found through the CLI metadata,
// file inputs, tables and JSON, exit statuses, tokens it mints itself, the
// configuration round trip through files, and a command that exists only
// because the metadata file names it.
#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/Jwt.h"
#include "tests/support/DaemonProcess.h"
#include "tests/trusted/ImgdbFixture.h"
#include "tools/BootLog.h"
#include "tools/HttpClient.h"

namespace Witnessd::Testing {
namespace {

constexpr const char* kServing = "HTTP endpoint listening on TCP port";
constexpr const char* kIssuers = "/etc/quarro/cpservices/witnessd/trusted_issuers.pem";
constexpr const char* kMetadata = "/usr/lib/quarro/lumen/attest_lumen_metadata.json";

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void Shell(const std::string& command) { ASSERT_EQ(0, std::system(command.c_str())) << command; }

struct CtlRun {
  int status = -1;
  std::string out;
  std::string err;
};

class WitnessctlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new std::string(MakeTempDir("witnessctl"));
    std::string d = *dir_;
    // Two issuers (P-256 and RSA), two EK public keys, a CA chain of a root
    // and an intermediate in one file.
    Shell("cd " + d +
          " && openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.key 2>/dev/null"
          " && openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out rsa.key 2>/dev/null"
          " && openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 2>/dev/null | openssl pkey -pubout > ek.pem"
          " && openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 2>/dev/null | openssl pkey -pubout > ek2.pem"
          " && printf 'basicConstraints=critical,CA:TRUE\\nkeyUsage=critical,keyCertSign,cRLSign\\n' > ca.ext"
          " && openssl req -x509 -newkey rsa:2048 -nodes -keyout root.key -out root.pem -subj /CN=root -days 30"
          "    -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign 2>/dev/null"
          " && openssl req -newkey rsa:2048 -nodes -keyout int.key -out int.csr -subj /CN=intermediate 2>/dev/null"
          " && openssl x509 -req -in int.csr -CA root.pem -CAkey root.key -CAcreateserial -out int.pem -days 30"
          "    -extfile ca.ext 2>/dev/null"
          " && cat root.pem int.pem > chain.pem");
    sysroot_ = new std::string(d + "/sysroot");
    PrepareSysroot(*sysroot_);
    Shell("cd " + d + " && openssl pkey -in ec.key -pubout > " + *sysroot_ + kIssuers +
          " && openssl pkey -in rsa.key -pubout >> " + *sysroot_ + kIssuers);
    daemon_ = new DaemonProcess(*sysroot_, FreePort());
    ASSERT_TRUE(daemon_->Start());
    ASSERT_TRUE(daemon_->WaitForLog(kServing)) << daemon_->Log();
    CtlRun minted = Ctl("token create --issuer-key " + d +
                     "/ec.key --subject admin --entitlement Attestation.Administer --entitlement Attestation.Read");
    ASSERT_EQ(0, minted.status) << minted.err;
    admin_token_ = new std::string(minted.out.substr(0, minted.out.find('\n')));
  }
  static void TearDownTestSuite() {
    delete daemon_;
    std::system(("rm -rf " + *dir_).c_str());
    delete dir_;
    delete sysroot_;
    delete admin_token_;
  }

  // Ctl runs witnessctl with |args| (shell words) against the suite's
  // daemon; |token| goes in WITNESSD_TOKEN when not empty.
  static CtlRun Ctl(const std::string& args, const std::string& token = "", uint16_t port = 0) {
    static int n = 0;
    std::string base = *dir_ + "/run" + std::to_string(++n);
    std::string command = "cd " + *dir_ + " && env -u WITNESSD_TOKEN XDG_CACHE_HOME=" + *dir_ + "/cache WITNESSD_PORT=" +
                          std::to_string(port != 0 ? port : daemon_->Port()) +
                          (token.empty() ? "" : " WITNESSD_TOKEN=" + token) + " " + WITNESSCTL_PATH + " " + args +
                          " > " + base + ".out 2> " + base + ".err";
    int rc = std::system(command.c_str());
    CtlRun r;
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    r.out = ReadAll(base + ".out");
    r.err = ReadAll(base + ".err");
    return r;
  }
  static CtlRun Admin(const std::string& args) { return Ctl(args, *admin_token_); }

  static inline std::string* dir_ = nullptr;
  static inline std::string* sysroot_ = nullptr;
  static inline std::string* admin_token_ = nullptr;
  static inline DaemonProcess* daemon_ = nullptr;
};

// One command line after another against one daemon: each row's exit status
// and what its output must hold. Rows build on earlier ones.
TEST_F(WitnessctlTest, CommandsInOrder) {
  struct Row {
    const char* args;
    int status;
    const char* out;  // substring of standard output ("" for none)
    const char* err;  // substring of standard error
  };
  const Row rows[] = {
      // Status and settings of a fresh store; EKs are required.
      {"status get", 0, "No TPM Endorsement Keys are configured.", ""},
      {"tpm2 settings get", 0, "require_endorsement_keys:       true", ""},
      {"settings update --require-endorsement-keys maybe", 2, "", "expected true or false, got 'maybe'"},
      {"settings update --require-certificate-validation=yes", 0, "", ""},
      {"settings get", 0, "require_certificate_validation: true", ""},
      {"settings update --require-certificate-validation off", 0, "", ""},
      // Endorsement keys: from a file, a missing file, listed, read; a service error is shown as such.
      {"tpm2 endorsement-keys create --name ek1 --public-key @ek.pem", 0, "", ""},
      {"endorsement-keys create --name ek3 --public-key @missing.pem", 2, "", "cannot read missing.pem"},
      {"endorsement-keys list", 0, "NAME\nek1\n", ""},
      {"endorsement-keys get --name ek1", 0, "public_key:\n  -----BEGIN PUBLIC KEY-----", ""},
      {"endorsement-keys get --name nope", 1, "", "NOT_FOUND"},
      {"endorsement-keys get", 2, "", "missing required option --name"},
      {"endorsement-keys get --name a --name b", 2, "", "--name given more than once"},
      {"endorsement-keys get --name ek1 --colour red", 2, "", "unknown option --colour"},
      // A chain file of two PEM blocks becomes two list elements.
      {"ca-certificates create --name chain --certificates @chain.pem", 0, "", ""},
      {"ca-certificates list --json", 0, "\"name\": \"chain\"", ""},
      {"ca-certificates delete --name chain", 0, "", ""},
      // Words: aliases, tails, ambiguity, unknown commands.
      {"config export --info-type bogus", 2, "", "expected one of COMPRESSED, PLAIN"},
      {"get", 2, "", "names several commands"},
      {"frobnicate now", 2, "", "no command 'frobnicate now'"},
      {"endorsement-keys", 2, "", "endorsement-keys delete"},
      {"endorsement-keys create --help", 0, "usage: witnessctl endorsement-keys create --name VALUE", ""},
      {"certificate get --output cert.bin", 2, "", "answers no bytes to write"},
      {"--port 0 status get", 2, "", "not a port"},
      {"", 2, "", "usage: witnessctl"},
      // token create refuses incomplete requests and keys it cannot use.
      {"token create --issuer-key ec.key --subject admin", 2, "", "at least one --entitlement"},
      {"token create --issuer-key ek.pem --subject a --entitlement X", 2, "", "not a PEM private key"},
      {"token create --issuer-key ec.key --subject a --entitlement X --validity 0", 2, "", "--validity"},
  };
  for (const Row& row : rows) {
    CtlRun r = Admin(row.args);
    EXPECT_EQ(row.status, r.status) << row.args << "\n" << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find(row.out)) << row.args << "\n" << r.out;
    EXPECT_NE(std::string::npos, r.err.find(row.err)) << row.args << "\n" << r.err;
  }
  // The chain was sent as two certificates, each one whole PEM block.
  ASSERT_EQ(0, Admin("ca-certificates create --name chain --certificates @chain.pem").status);
  nlohmann::json chain = nlohmann::json::parse(Admin("ca-certificates get --name chain --json").out);
  ASSERT_EQ(2u, chain["certificates"].size());
  EXPECT_EQ(ReadAll(*dir_ + "/root.pem"), chain["certificates"][0].get<std::string>());
}

// Who may call what: no token, a token without the privilege, an RSA-signed
// token, and a daemon that does not answer. Which tokens the daemon refuses
// is for its own token tests.
TEST_F(WitnessctlTest, TokensAndReachability) {
  CtlRun reader = Ctl("token create --issuer-key rsa.key --subject auditor --entitlement Attestation.Read");
  ASSERT_EQ(0, reader.status) << reader.err;
  std::string read_token = reader.out.substr(0, reader.out.find('\n'));
  std::ofstream(*dir_ + "/token.txt") << *admin_token_ << "\n";

  struct Row {
    std::string args;
    std::string token;
    uint16_t port;
    int status;
    const char* err;
  };
  const Row rows[] = {
      {"certificate get", "", 0, 0, ""},  // open to anonymous callers
      {"status get", "", 0, 1, "UNAUTHENTICATED"},
      {"status get", read_token, 0, 0, ""},
      {"endorsement-keys delete --name ek-none", read_token, 0, 1, "UNAUTHORIZED"},
      {"--token-file token.txt status get", "", 0, 0, ""},
      {"--token-file nowhere.txt status get", "", 0, 2, "cannot read the token file"},
      {"status get", *admin_token_, FreePort(), 1, "cannot connect"},
  };
  for (const Row& row : rows) {
    CtlRun r = Ctl(row.args, row.token, row.port);
    EXPECT_EQ(row.status, r.status) << row.args << "\n" << r.err;
    EXPECT_NE(std::string::npos, r.err.find(row.err)) << row.args << "\n" << r.err;
  }
}

// token verify checks a token as a relying party does, against the daemon's
// JWK Set. The administrator gives the daemon a signing pair this test holds
// (certificate set), so that the test can sign tokens as the daemon would
// and forge them as a host would.
TEST_F(WitnessctlTest, TokenVerifyChecksSignatureKeyIdAndTime) {
  Shell("cd " + *dir_ +
        " && openssl req -x509 -newkey rsa:2048 -nodes -keyout sign.key -out sign.crt -subj /CN=sign -days 1"
        "    2>/dev/null && cat sign.crt sign.key > pair.pem"
        " && openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out forger.key 2>/dev/null");
  CtlRun set = Admin("certificate set --certificate @pair.pem");
  ASSERT_EQ(0, set.status) << set.err;
  Hearth::Jwt::KeyPtr key = Hearth::Jwt::PrivateKeyFromPem(ReadAll(*dir_ + "/sign.key"));
  Hearth::Jwt::KeyPtr forger = Hearth::Jwt::PrivateKeyFromPem(ReadAll(*dir_ + "/forger.key"));
  Hearth::Jwt::KeyPtr ec(EVP_EC_gen("P-256"));
  const std::string kid = *Hearth::Jwt::Thumbprint(key.get());
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  auto token = [&](EVP_PKEY* by, const std::string& with_kid, int64_t iat, int64_t exp) {
    Hearth::Jwt::Claims claims;
    EXPECT_TRUE(claims.SetInt("iat", iat) && claims.SetInt("exp", exp) && claims.SetString("sub", "host-ek"));
    Hearth::Jwt::Alg alg = *Hearth::Jwt::AlgFor(by);
    return Hearth::Jwt::Sign(by, alg, claims, Hearth::Jwt::KeyOrder::kAsSet, with_kid).value_or("");
  };
  const std::string good = token(key.get(), kid, now, now + 600);
  std::ofstream(*dir_ + "/good.jwt") << good << "\n";
  std::ofstream(*dir_ + "/unsigned.jwt") << "eyJhbGciOiJub25lIn0." << good.substr(good.find('.') + 1, good.rfind('.') -
                                                                                     good.find('.'));
  const struct {
    const char* name;
    std::string token;  // written to a file and given as "-" on standard input; empty: |args| as they are
    std::string args;
    int status;
    const char* text;  // in standard output when 0, else in standard error
  } kCases[] = {
      {"from a file", "", "token verify good.jwt", 0, "\"sub\": \"host-ek\""},
      {"from standard input", good, "", 0, "\"sub\": \"host-ek\""},
      {"no kid: any key of the set", token(key.get(), "", now, now + 600), "", 0, "host-ek"},
      {"expired", token(key.get(), kid, now - 700, now - 1), "", 1, "the token has expired"},
      {"issued two minutes ahead", token(key.get(), kid, now + 120, now + 600), "", 1, "not valid yet"},
      {"forged under the daemon's kid", token(forger.get(), kid, now, now + 600), "", 1, "does not verify"},
      {"forged without a kid", token(forger.get(), "", now, now + 600), "", 1, "does not verify"},
      {"unknown kid", token(forger.get(), *Hearth::Jwt::Thumbprint(forger.get()), now, now + 600), "", 1,
       "has the token's kid"},
      {"ES256", token(ec.get(), "", now, now + 600), "", 1, "not signed with RS256"},
      {"alg none", "", "token verify unsigned.jwt", 1, "not signed with RS256"},
      {"not a token", "hello", "", 1, "not a signed JSON Web Token"},
      {"no file", "", "token verify", 2, "one FILE"},
      {"missing file", "", "token verify nowhere.jwt", 2, "nowhere.jwt"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::string args = c.args;
    if (!c.token.empty()) {
      std::ofstream(*dir_ + "/case.jwt") << c.token;
      args = "token verify - < case.jwt";
    }
    CtlRun r = Ctl(args);
    EXPECT_EQ(c.status, r.status) << r.err;
    EXPECT_NE(std::string::npos, (c.status == 0 ? r.out : r.err).find(c.text)) << r.out << r.err;
  }
}

// Export to a file, change the store, import the file: the configuration
// and its hash are back. Base images go in from a file, with progress.
TEST_F(WitnessctlTest, FilesInAndOut) {
  ASSERT_EQ(0, Admin("endorsement-keys create --name keep --public-key @ek2.pem").status);
  CtlRun exported = Admin("config export --output saved.gz");
  ASSERT_EQ(0, exported.status) << exported.err;
  EXPECT_NE(std::string::npos, exported.out.find("config: <")) << exported.out;
  std::string saved = ReadAll(*dir_ + "/saved.gz");
  ASSERT_GT(saved.size(), 2u);
  EXPECT_EQ("\x1f\x8b", saved.substr(0, 2));  // COMPRESSED is the command's default
  std::string hash = nlohmann::json::parse(Admin("config export --json").out)["hash"];

  ASSERT_EQ(0, Admin("endorsement-keys delete --name keep").status);
  EXPECT_EQ(std::string::npos, Admin("endorsement-keys list").out.find("keep"));
  CtlRun imported = Admin("config import --config saved.gz --progress");
  ASSERT_EQ(0, imported.status) << imported.err;
  EXPECT_NE(std::string::npos, imported.err.find("uploading: 100%")) << imported.err;
  EXPECT_NE(std::string::npos, Admin("endorsement-keys list").out.find("keep"));
  EXPECT_EQ(hash, nlohmann::json::parse(Admin("config export --json").out)["hash"]);

  // A signed image database from a file; then list, get and delete.
  ImgdbFixture imgdb(*sysroot_);
  std::vector<uint8_t> bytes = imgdb.Make(Agent::ImageDatabaseFlags(Agent::BootPlan{}));
  std::ofstream(*dir_ + "/imgdb.tgz", std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                              static_cast<std::streamsize>(bytes.size()));
  CtlRun image = Admin("base-images import --imgdb imgdb.tgz");
  ASSERT_EQ(0, image.status) << image.err << daemon_->Log();
  EXPECT_EQ("8.0.1-12345\n", image.out);
  EXPECT_NE(std::string::npos, Admin("base-images list").out.find("8.0.1-12345  HYVi 8.0.1-12345  -")) << Admin("base-images list").out;
  EXPECT_NE(std::string::npos, Admin("os hyv base-images get --version 8.0.1-12345").out.find("packages:\n  NAME"));
  EXPECT_EQ(0, Admin("base-images delete --version 8.0.1-12345").status);
  EXPECT_EQ("(none)\n", Admin("base-images list").out);

  // Over the daemon's body limit: refused with its reason, after progress.
  std::ofstream(*dir_ + "/huge.bin", std::ios::binary) << std::string(2600000, 'x');
  CtlRun huge = Admin("base-images import --imgdb huge.bin --progress");
  EXPECT_EQ(1, huge.status);
  EXPECT_NE(std::string::npos, huge.err.find("uploading: ")) << huge.err;
  EXPECT_NE(std::string::npos, huge.err.find("larger than the daemon accepts")) << huge.err;
}

// A command again costs the checksum question and its own call: the
// catalogue comes from the cache. A damaged cache, or one of other metadata,
// is read afresh from the daemon and rewritten.
TEST_F(WitnessctlTest, CatalogueCachedByMetadataChecksum) {
  Agent::HttpClient http("127.0.0.1", daemon_->Port());
  auto calls = [&] {
    int status = 0;
    std::string body, error;
    EXPECT_TRUE(http.Get("/metrics", &status, &body, &error)) << error;
    std::istringstream lines(body);
    double total = 0;
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("witnessd_api_calls_total{", 0) == 0) {
        total += std::stod(line.substr(line.rfind(' ') + 1));
      }
    }
    return total;
  };
  ASSERT_EQ(0, Admin("status get").status);
  const struct {
    const char* damage;  // done to the cached file before the command
    bool cached;
  } rows[] = {
      {"true", true},
      {"printf '{' > $f", false},
      {"sed -i 's/\"checksum\":\"/&0/' $f", false},
      {"true", true},
  };
  for (const auto& row : rows) {
    Shell("for f in " + *dir_ + "/cache/witnessctl/catalog-*.json; do " + row.damage + "; done");
    double before = calls();
    CtlRun r = Admin("status get");
    EXPECT_EQ(0, r.status) << row.damage << "\n" << r.err;
    double made = calls() - before;
    EXPECT_TRUE(row.cached ? made == 2 : made > 2) << row.damage << ": " << made << " calls";
  }
}

// A command and an alias that only the metadata file declares are callable
// with no change to the client.
TEST_F(WitnessctlTest, CommandsComeFromTheMetadata) {
  std::string root = MakeTempDir("witnessctl-meta");
  PrepareSysroot(root);
  Shell("cp " + *sysroot_ + kIssuers + " " + root + kIssuers);
  nlohmann::json meta = nlohmann::json::parse(ReadAll(root + kMetadata));
  nlohmann::json& cli = meta["attest_lumen_cli"];
  cli["commands"].push_back({{"path", "attestation.tpm2.settings"},
                             {"name", "show"},
                             {"description", "Shows the TPM settings."},
                             {"service_id", "com.quarro.hyv.attestation.tpm2.settings"},
                             {"operation_id", "get"},
                             {"input", nlohmann::json::array()}});
  // A command whose option names no input field of its operation.
  cli["commands"].push_back({{"path", "attestation.tpm2.settings"},
                             {"name", "broken"},
                             {"service_id", "com.quarro.hyv.attestation.tpm2.settings"},
                             {"operation_id", "update"},
                             {"input", {{{"name", "x"}, {"field", "no_such_field"}}}}});
  for (auto& n : cli["namespaces"]) {
    if (n["name"] == "endorsement_keys") {
      n["aliases"] = {"ek"};
    }
  }
  std::ofstream(root + kMetadata) << meta.dump(1);
  DaemonProcess other(root, FreePort());
  ASSERT_TRUE(other.Start());
  ASSERT_TRUE(other.WaitForLog(kServing)) << other.Log();

  CtlRun show = Ctl("settings show", *admin_token_, other.Port());
  EXPECT_EQ(0, show.status) << show.err;
  EXPECT_NE(std::string::npos, show.out.find("require_endorsement_keys:")) << show.out;
  CtlRun ek = Ctl("ek list", *admin_token_, other.Port());
  EXPECT_EQ(0, ek.status) << ek.err;
  CtlRun broken = Ctl("settings broken --x 1", *admin_token_, other.Port());
  EXPECT_EQ(1, broken.status);
  EXPECT_NE(std::string::npos, broken.err.find("names no input field no_such_field")) << broken.err;
  // The suite's daemon, with the shipped metadata, knows neither.
  EXPECT_EQ(2, Admin("settings show").status);
  EXPECT_EQ(2, Admin("ek list").status);
  std::system(("rm -rf " + root).c_str());
}

}  // namespace
}  // namespace Witnessd::Testing
