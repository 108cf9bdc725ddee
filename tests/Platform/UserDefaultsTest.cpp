#include <KQVisitorCore/Platform/UserDefaults.h>

#include "tests/support/BackgroundChild.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

namespace kq {
namespace {

using Json = nlohmann::ordered_json;

std::vector<std::string> filesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The writer synchronizes, says so and is then killed: nothing after synchronize() saves.
TEST(UserDefaultsTest, SynchronizedValuesSurviveAProcessKilledRightAfterwards) {
  test::TemporaryDirectory folder;
  const std::string path = folder.file("nested/folder/defaults.json");
  const std::string value = "visitor \"record\" & more";
  {
    test::BackgroundChild writer({KQ_DEFAULTS_WRITER, path, "V_Inf:12", value});
    ASSERT_TRUE(writer.waitForOutput("synchronized\n")) << writer.output();
    EXPECT_EQ(writer.stop(), -1) << "killed, not exited";
  }
  EXPECT_EQ(UserDefaults(path).stringForKey("V_Inf:12"), value);
  EXPECT_EQ(filesIn(folder.file("nested/folder")), std::vector<std::string>{"defaults.json"})
      << "no temporary file is left behind";
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U) << "the settings hold visitor details: private to the user";
}

// Reads convert as the platform's do; storing null removes the key; what is not synchronized
// is written when the object goes.
TEST(UserDefaultsTest, TypedReadsFollowFoundationRulesAndChangesAreSavedOnDestruction) {
  test::TemporaryDirectory folder;
  const std::string path = folder.file("defaults.json");
  {
    UserDefaults defaults(path);
    defaults.setObject("12abc", "text");
    defaults.setObject(3.9, "fraction");
    defaults.setObject(Json::array({1}), "list");
    defaults.setObject(" yes", "yes");
    EXPECT_EQ(defaults.integerForKey("text"), 12);
    EXPECT_EQ(defaults.integerForKey("fraction"), 3);
    EXPECT_EQ(defaults.integerForKey("list"), 0);
    EXPECT_EQ(defaults.integerForKey("missing"), 0);
    EXPECT_EQ(defaults.stringForKey("fraction"), "3.9");
    EXPECT_FALSE(defaults.stringForKey("list"));
    EXPECT_FALSE(defaults.dictionaryForKey("text"));
    EXPECT_TRUE(defaults.boolForKey("yes"));
    EXPECT_TRUE(defaults.boolForKey("fraction"));
    EXPECT_FALSE(defaults.boolForKey("missing"));
    defaults.setObject(nullptr, "text");
    EXPECT_FALSE(defaults.objectForKey("text")) << "storing null removes the key";
    defaults.setObject(Json{{"V_I", "12"}, {"V_N", "Ann"}}, "V_Inf:3");
    defaults.setInteger(4, "kqroom7");
  }
  UserDefaults reopened(path);
  EXPECT_EQ(reopened.dictionaryForKey("V_Inf:3"), (Json{{"V_I", "12"}, {"V_N", "Ann"}}));
  EXPECT_EQ(reopened.integerForKey("kqroom7"), 4);
  EXPECT_EQ(reopened.stringForKey("fraction"), "3.9");
  EXPECT_FALSE(reopened.objectForKey("text"));
}

TEST(UserDefaultsTest, ADamagedFileIsSetAsideAndReported) {
  test::TemporaryDirectory folder;
  const std::string path = folder.file("defaults.json");
  for (const std::string& damaged :
       std::vector<std::string>{R"({"d_time": "2016-03-)", "[1, 2, 3]", std::string("\0\xff", 2)}) {
    test::writeFile(path, damaged);
    test::LogCapture log;
    UserDefaults defaults(path);
    EXPECT_FALSE(defaults.objectForKey("d_time"));
    EXPECT_TRUE(log.contains(path)) << "the log names the damaged file";
    EXPECT_TRUE(log.contains("moved it to " + path + ".damaged-"));
    EXPECT_FALSE(std::filesystem::exists(path));
    bool keptAside = false;
    for (const auto& name : filesIn(folder.path())) {
      if (name.starts_with("defaults.json.damaged-")) {
        keptAside = keptAside || test::readFile(folder.file(name)) == damaged;
        std::filesystem::remove(folder.file(name));
      }
    }
    EXPECT_TRUE(keptAside) << "the damaged contents are kept for inspection";
    defaults.setObject("x", "d_time");
    EXPECT_TRUE(defaults.synchronize()) << "a damaged file does not stop new settings";
  }
}

// A folder where the file should be is reported, and left as it is with its contents; a file
// where its folder should be fails each write, reported, until it is gone, and loses nothing.
TEST(UserDefaultsTest, AnUnusablePathIsReportedNotFatalAndAFailedWriteIsRetried) {
  test::TemporaryDirectory folder;
  const std::string path = folder.file("defaults.json");
  std::filesystem::create_directory(path);
  test::writeFile(folder.file("defaults.json/keep.txt"), "the user's own file");
  test::LogCapture log;
  UserDefaults defaults(path);
  EXPECT_TRUE(log.contains(path + " is not a regular file"));
  EXPECT_FALSE(defaults.objectForKey("anything"));
  defaults.setObject("x", "d_time");
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_TRUE(std::filesystem::is_directory(path));
  EXPECT_EQ(test::readFile(folder.file("defaults.json/keep.txt")), "the user's own file");
  EXPECT_EQ(filesIn(folder.path()), std::vector<std::string>{"defaults.json"});

  const std::string blocker = folder.file("not-a-folder");
  test::writeFile(blocker, "a file where the settings' folder should be");
  UserDefaults blocked(blocker + "/defaults.json");
  blocked.setObject("kept", "d_time");
  EXPECT_FALSE(blocked.synchronize());
  EXPECT_TRUE(log.contains("cannot create the folder " + blocker)) << "the log says what failed";
  EXPECT_EQ(blocked.stringForKey("d_time"), "kept") << "a failed write loses nothing";
  std::filesystem::remove(blocker);
  EXPECT_TRUE(blocked.synchronize()) << "the change is still unsaved, so it is written now";
  EXPECT_EQ(UserDefaults(blocker + "/defaults.json").stringForKey("d_time"), "kept");
}

}  // namespace
}  // namespace kq
