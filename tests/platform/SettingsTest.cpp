#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/Hearth.h"

namespace {

using Hearth::Service::Config;
namespace fs = std::filesystem;

class SettingsFile : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("witnessd-settings-" + std::to_string(getpid()) + "-" +
                                        ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir_);
    path_ = (dir_ / "config.xml").string();
  }
  void TearDown() override { fs::remove_all(dir_); }

  void Write(const std::string& text) { std::ofstream(path_) << text; }

  // The daemon's built-in defaults.
  static Config Defaults() {
    Config c;
    c.SetString("log/level", "info");
    c.SetInt("hearth/threadPool/ioThreads", 1);
    c.SetInt("hearth/threadPool/maxThreads", 9);
    return c;
  }

  fs::path dir_;
  std::string path_;
};

TEST_F(SettingsFile, MissingFileKeepsDefaults) {
  Config c = Defaults();
  c.LoadXmlFile(path_);
  EXPECT_EQ("info", c.GetString("log/level"));
  EXPECT_EQ(1, c.GetInt("hearth/threadPool/ioThreads", 0));
  EXPECT_EQ(9, c.GetInt("hearth/threadPool/maxThreads", 0));
  EXPECT_FALSE(c.Has("maxSessions"));
}

TEST_F(SettingsFile, FileValuesOverrideDefaults) {
  Write(
      "<?xml version='1.0'?>\n<config>\n <log><level> verbose </level></log>\n"
      " <hearth><threadPool><maxThreads>12</maxThreads></threadPool></hearth>\n"
      " <maxSessions>40</maxSessions>\n</config>\n");
  Config c = Defaults();
  c.LoadXmlFile(path_);
  EXPECT_EQ("verbose", c.GetString("log/level"));
  EXPECT_EQ(1, c.GetInt("hearth/threadPool/ioThreads", 0));  // untouched default
  EXPECT_EQ(12, c.GetInt("hearth/threadPool/maxThreads", 0));
  EXPECT_EQ(40, c.GetInt("maxSessions", 0));  // top-level key, read later by its user
}

TEST_F(SettingsFile, BadFilesAreRefusedWithFileAndProblemNamed) {
  std::string nested = "<c>";
  for (int i = 0; i < 1000; ++i) {
    nested += "<a>";
  }
  const struct {
    const char* name;
    const char* text;
    const char* problem;  // part of the message besides the path
  } kCases[] = {
      {"unclosed element", "<config><log><level>info</level></log>", "line"},
      {"not xml", "log/level = info", "line"},
      {"empty", "", "line"},
      {"integer key with text", "<c><hearth><threadPool><ioThreads>two</ioThreads></threadPool></hearth></c>",
       "hearth/threadPool/ioThreads"},
      {"integer key with suffix", "<c><hearth><threadPool><maxThreads>9x</maxThreads></threadPool></hearth></c>",
       "hearth/threadPool/maxThreads"},
      {"duplicate key", "<c><log><level>info</level><level>error</level></log></c>", "more than once"},
      // Entities would be expanded when leaves are read: no DTD at all.
      {"external entity", "<?xml version='1.0'?><!DOCTYPE c [<!ENTITY x SYSTEM 'file:///etc/hostname'>]>"
                          "<c><log><level>&x;</level></log></c>", "DTD"},
      {"internal entity", "<!DOCTYPE c [<!ENTITY l 'error'>]><c><log><level>&l;</level></log></c>", "DTD"},
      // The reader's recursion stays within the parser's own depth limit.
      {"nested past the parser's depth", nested.c_str(), "Excessive depth"},
  };
  for (const auto& tc : kCases) {
    SCOPED_TRACE(tc.name);
    Write(tc.text);
    Config c = Defaults();
    try {
      c.LoadXmlFile(path_);
      ADD_FAILURE() << "accepted";
    } catch (const Hearth::SettingsError& e) {
      std::string what = e.what();
      EXPECT_NE(std::string::npos, what.find(path_)) << what;
      EXPECT_NE(std::string::npos, what.find(tc.problem)) << what;
    }
    // A refused file changes nothing.
    EXPECT_EQ("info", c.GetString("log/level"));
    EXPECT_EQ(9, c.GetInt("hearth/threadPool/maxThreads", 0));
  }
}

TEST(SettingsTypes, GettersRejectValuesOfTheWrongType) {
  Config c;
  c.SetString("maxSessions", "many");
  c.SetString("flag", "yes");
  EXPECT_THROW(c.GetInt("maxSessions", 0), Hearth::SettingsError);
  EXPECT_THROW(c.GetBool("flag", false), Hearth::SettingsError);
  EXPECT_EQ(7, c.GetInt("absent", 7));
}

}  // namespace
