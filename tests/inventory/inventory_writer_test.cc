// Replacing the saved inventory: its exact bytes, its limit, and that a
// failed save leaves the old file as it was.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "inventory/inventory.h"
#include "paths/failure.h"
#include "support/scene.h"

namespace qv {
namespace {

using test::MakeDirs;
using test::ReadFile;
using test::WriteFile;

class InventoryWriterTest : public test::PrefixCase {
 protected:
  std::string InventoryHost() const { return Host("local/Quorvane/Installation.ini"); }
  std::string TemporaryHost() const { return InventoryHost() + "." + std::to_string(::getpid()) + ".tmp"; }
};

// `count` records with distinct paths, the index in both.
FusionInstallationList Records(std::size_t count) {
  FusionInstallationList records;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string n = std::to_string(i);
    records.push_back({test::WinPath("Fusion/" + n + "/Fusion360.exe"), test::WinPath("users/u" + n + "/Roaming")});
  }
  return records;
}

// The file's text as the reader's side expects it, byte order mark included.
std::string ExpectedBytes(const FusionInstallationList& records) {
  std::u16string text = u"[Fusion]\r\nCount=" + AsciiToWide(std::to_string(records.size())) + u"\r\n";
  for (std::size_t i = 0; i < records.size(); ++i) {
    const std::u16string n = AsciiToWide(std::to_string(i));
    text += u"Executable" + n + u"=" + records[i].executable + u"\r\nAppData" + n + u"=" + records[i].appData + u"\r\n";
  }
  return test::Utf16LeWithBom(text);
}

void ExpectSameRecords(const FusionInstallationList& actual, const FusionInstallationList& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(actual[i].executable, expected[i].executable) << i;
    EXPECT_EQ(actual[i].appData, expected[i].appData) << i;
  }
}

TEST_F(InventoryWriterTest, WritesExactlyTheTextAndMakesItsFolder) {
  ASSERT_FALSE(test::Exists(Host("local")));
  ASSERT_TRUE(SaveInventory(Win("local"), {}));
  const std::string bytes = ReadFile(InventoryHost());
  EXPECT_EQ(bytes, std::string("\xFF\xFE[\0F\0u\0s\0i\0o\0n\0]\0\r\0\n\0C\0o\0u\0n\0t\0=\0" "0\0\r\0\n\0", 40));
  EXPECT_FALSE(test::Exists(TemporaryHost()));

  FusionInstallationList saved;
  WString error = u"untouched";
  ASSERT_TRUE(LoadInventory(Win("local"), saved, error));
  EXPECT_TRUE(saved.empty());
}

TEST_F(InventoryWriterTest, HoldsUpToTheLimitAndReadsBackFreshEachTime) {
  EXPECT_FALSE(SaveInventory(Win("local"), Records(129)));
  EXPECT_FALSE(test::Exists(Host("local/Quorvane")));

  const FusionInstallationList full = Records(128);
  ASSERT_TRUE(SaveInventory(Win("local"), full));
  EXPECT_EQ(ReadFile(InventoryHost()), ExpectedBytes(full));
  FusionInstallationList saved;
  WString error;
  ASSERT_TRUE(LoadInventory(Win("local"), saved, error));
  ExpectSameRecords(saved, full);

  // A shorter list replaces the file whole, and the next read in this
  // process sees it.
  const FusionInstallationList one = {{u"C:\\Other\\Fusion360.exe", u"C:\\users\\other\\Roaming"}};
  ASSERT_TRUE(SaveInventory(Win("local"), one));
  EXPECT_EQ(ReadFile(InventoryHost()), ExpectedBytes(one));
  saved.clear();
  ASSERT_TRUE(LoadInventory(Win("local"), saved, error));
  ExpectSameRecords(saved, one);

  // Over the limit the file stays as it was.
  EXPECT_FALSE(SaveInventory(Win("local"), Records(129)));
  EXPECT_EQ(ReadFile(InventoryHost()), ExpectedBytes(one));
}

TEST_F(InventoryWriterTest, TextOutsideAsciiGoesOutAsItsCodeUnits) {
  // An accented name, a CJK name and a character outside the Basic
  // Multilingual Plane (a surrogate pair).
  const FusionInstallationList records = {
      {u"C:\\Programme\\Gr\u00FC\u00DFe\\Fusion360.exe", u"C:\\users\\\u5C71\u7530\\AppData\\Roaming"},
      {u"C:\\F\U0001F600\\Fusion360.exe", u"C:\\users\\\U0001F600\\Roaming"},
  };
  MakeDirs(Host("users"));
  ASSERT_TRUE(SaveInventory(Win("local"), records));
  const std::string bytes = ReadFile(InventoryHost());
  EXPECT_EQ(bytes, ExpectedBytes(records));
  EXPECT_NE(bytes.find(std::string("\x3D\xD8\x00\xDE", 4)), std::string::npos);

  FusionInstallationList saved;
  WString error;
  ASSERT_TRUE(LoadInventory(Win("local"), saved, error));
  ExpectSameRecords(saved, records);
}

TEST_F(InventoryWriterTest, FailuresLeaveTheOldFileAsItWas) {
  const FusionInstallationList old = Records(2);
  ASSERT_TRUE(SaveInventory(Win("local"), old));

  // A leftover temporary file of this process's name is not opened.
  WriteFile(TemporaryHost(), "leftover");
  EXPECT_FALSE(SaveInventory(Win("local"), Records(1)));
  EXPECT_EQ(ReadFile(TemporaryHost()), "leftover");
  EXPECT_EQ(ReadFile(InventoryHost()), ExpectedBytes(old));
  std::filesystem::remove(TemporaryHost());

  // A file where the folder belongs is raised.
  WriteFile(Host("blocked/Quorvane"), "file");
  try {
    SaveInventory(Win("blocked"), {});
    ADD_FAILURE() << "no failure raised";
  } catch (const FilesystemFailure& failure) {
    EXPECT_EQ(failure.operation(), "create_directories");
    EXPECT_EQ(failure.code(), 183u);
    EXPECT_EQ(failure.path(), u"C:\\blocked\\Quorvane");
  }
}

#if defined(QUORVANE_FAULT_INJECTION)

// Saves two records over one in a fresh process whose calls fail as
// `faults` says; 0 when the save failed and left the old file and no
// temporary file behind.
int SaveOverOldWithFaults(const test::FixturePrefix& prefix) {
  const std::string inventory = prefix.C("local/Quorvane/Installation.ini");
  const FusionInstallationList old = Records(1);
  WriteFile(inventory, ExpectedBytes(old));
  if (SaveInventory(test::WinPath("local"), Records(2))) return 1;
  if (ReadFile(inventory) != ExpectedBytes(old)) return 2;
  if (test::Exists(inventory + "." + std::to_string(::getpid()) + ".tmp")) return 3;
  return 0;
}

TEST(InventoryWriterFaultTest, FailedWriteFlushOrRenameRemovesTheTemporaryFile) {
  test::FreshProcessDeathTests fresh;
  EXPECT_EXIT(test::RunWithFaults("MoveFileExW@1=5", SaveOverOldWithFaults), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(test::RunWithFaults("WriteFile@1=112", SaveOverOldWithFaults), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(test::RunWithFaults("FlushFileBuffers@1=29", SaveOverOldWithFaults), ::testing::ExitedWithCode(0), "");
}

#endif

}  // namespace
}  // namespace qv
