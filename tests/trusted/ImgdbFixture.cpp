#include "tests/trusted/ImgdbFixture.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>

namespace Witnessd::Testing {
namespace fs = std::filesystem;

namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// One CA directory per test process: making the keys is the slow part.
const std::string& SharedCaDir() {
  static std::string dir = [] {
    std::string d = (fs::temp_directory_path() / ("witnessd-imgdb-ca-" + std::to_string(getpid()))).string();
    fs::remove_all(d);
    std::atexit([] { fs::remove_all(fs::temp_directory_path() / ("witnessd-imgdb-ca-" + std::to_string(getpid()))); });
    return d;
  }();
  return dir;
}

}  // namespace

ImgdbFixture::ImgdbFixture(std::string sysroot)
    : sysroot_(std::move(sysroot)),
      certs_dir_(sysroot_ + "/usr/share/certs"),
      ca_dir_(SharedCaDir()),
      work_dir_(sysroot_ + "/imgdb-work") {
  fs::create_directories(certs_dir_);
  fs::create_directories(work_dir_);
  InstallCerts();
}

void ImgdbFixture::InstallCerts(const std::string& flags) {
  fs::remove(certs_dir_ + "/quarro.crl");
  fs::remove(certs_dir_ + "/quarropartner.crl");
  std::string cmd = "python3 " WITNESSD_SOURCE_DIR "/tests/trusted/make_imgdb.py --ca-dir " + ca_dir_ +
                    " --certs-out " + certs_dir_ + " " + flags;
  ASSERT_EQ(0, system(cmd.c_str())) << cmd;
}

std::vector<uint8_t> ImgdbFixture::Make(const std::string& flags) {
  std::string out = work_dir_ + "/imgdb";
  fs::remove(out);
  std::string cmd =
      "python3 " WITNESSD_SOURCE_DIR "/tests/trusted/make_imgdb.py --ca-dir " + ca_dir_ + " --out " + out + " " + flags;
  EXPECT_EQ(0, system(cmd.c_str())) << cmd;
  std::string bytes = ReadAll(out);
  return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

std::string ImgdbFixture::MakerCertPem() const {
  return ReadAll(certs_dir_ + "/quarro.cert");
}

}  // namespace Witnessd::Testing
