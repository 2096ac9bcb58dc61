// Reading the saved inventory from real UTF-16 files in a fixture prefix.
#include "inventory/inventory.h"

#include "discovery/fixture_prefix_test.h"
#include "paths/path_rules.h"

namespace qv::test {
namespace {

using Pairs = std::vector<std::pair<WString, WString>>;

constexpr char16_t kInvalid[] = u"Invalid saved Fusion installation list.";
constexpr char16_t kIncomplete[] = u"Incomplete saved Fusion installation list.";

class InventoryReaderTest : public FixturePrefixTest {
 protected:
  std::string File() const { return Host("Local/Quorvane/Installation.ini"); }
  void Write(const std::vector<std::string>& lines) { WriteFile(File(), InventoryText(lines)); }

  // Loads into a list that already holds one record, with `error` preset, so
  // that what the reader leaves alone can be seen.
  bool Load() {
    saved_ = {{u"C:\\before\\Fusion360.exe", u"C:\\before"}};
    error_ = u"untouched";
    return LoadInventory(Win("Local"), saved_, error_);
  }
  // The records that the last Load appended.
  Pairs Loaded() const {
    Pairs records = Records(saved_);
    records.erase(records.begin());
    return records;
  }

  FusionInstallationList saved_;
  WString error_;
};

// "Count=n" followed by n entries C:\F<i>\Fusion360.exe and C:\P<i>.
std::vector<std::string> Entries(const std::string& count, unsigned n) {
  std::vector<std::string> lines{"[Fusion]", "Count=" + count};
  for (unsigned i = 0; i < n; ++i) {
    lines.push_back("Executable" + std::to_string(i) + "=C:\\F" + std::to_string(i) + "\\Fusion360.exe");
    lines.push_back("AppData" + std::to_string(i) + "=C:\\P" + std::to_string(i));
  }
  return lines;
}

TEST_F(InventoryReaderTest, NoFileIsAnEmptyInventory) {
  EXPECT_TRUE(Load());
  EXPECT_TRUE(Loaded().empty());
  EXPECT_EQ(error_, u"untouched");

  MakeDirs(File());
  EXPECT_TRUE(Load());
  EXPECT_TRUE(Loaded().empty());
  EXPECT_EQ(error_, u"untouched");
}

TEST_F(InventoryReaderTest, CountMustBeAWholeNumberUpTo128) {
  const auto expectInvalid = [&](const std::string& what) {
    EXPECT_FALSE(Load()) << what;
    EXPECT_EQ(error_, kInvalid) << what;
    EXPECT_TRUE(Loaded().empty()) << what;
  };
  WriteFile(File(), "");
  expectInvalid("zero bytes");
  Write({"[Other]", "Count=1", "Executable0=C:\\F\\Fusion360.exe", "AppData0=C:\\P"});
  expectInvalid("no Fusion section");
  for (const std::string count : {"", "2x", "0x2", "-1", "+", "-", "x1", "99999999999", "4294967297", "129"}) {
    Write(Entries(count, 2));
    expectInvalid("Count=" + count);
  }
  // All 129 entries present make no difference.
  Write(Entries("129", 129));
  expectInvalid("129 with entries");
  // A count too long for the reader's buffer counts as cut; one character
  // less still converts.
  Write(Entries(std::string(32766, '0') + "1", 1));
  expectInvalid("count of 32767 characters");
  Write(Entries(std::string(32765, '0') + "1", 1));
  EXPECT_TRUE(Load());
  EXPECT_EQ(Loaded().size(), 1u);

  // A sign is accepted; a negative zero wraps to zero.
  Write(Entries("+2", 2));
  ASSERT_TRUE(Load()) << WideToUtf8(error_);
  EXPECT_EQ(Loaded(), (Pairs{{u"C:\\F0\\Fusion360.exe", u"C:\\P0"}, {u"C:\\F1\\Fusion360.exe", u"C:\\P1"}}));
  EXPECT_EQ(error_, u"untouched");
  Write(Entries("-0", 1));
  EXPECT_TRUE(Load());
  EXPECT_TRUE(Loaded().empty());
}

TEST_F(InventoryReaderTest, CountDecidesHowManyEntriesAreRead) {
  // Zero: no entry is looked at, not even an unusable one.
  Write({"[Fusion]", "Count=0", "Executable0=relative", "AppData0="});
  EXPECT_TRUE(Load());
  EXPECT_TRUE(Loaded().empty());

  Write(Entries("128", 128));
  ASSERT_TRUE(Load());
  ASSERT_EQ(Loaded().size(), 128u);
  EXPECT_EQ(Loaded()[10], std::make_pair(WString(u"C:\\F10\\Fusion360.exe"), WString(u"C:\\P10")));
  EXPECT_EQ(Loaded()[127], std::make_pair(WString(u"C:\\F127\\Fusion360.exe"), WString(u"C:\\P127")));

  // Entries behind the count are ignored.
  Write(Entries("1", 3));
  ASSERT_TRUE(Load());
  EXPECT_EQ(Loaded(), (Pairs{{u"C:\\F0\\Fusion360.exe", u"C:\\P0"}}));
}

TEST_F(InventoryReaderTest, MissingOrRefusedEntriesLeaveTheEarlierOnes) {
  const auto expectIncomplete = [&](const std::vector<std::string>& lines, std::size_t kept) {
    Write(lines);
    EXPECT_FALSE(Load()) << lines.back();
    EXPECT_EQ(error_, kIncomplete) << lines.back();
    EXPECT_EQ(Loaded().size(), kept) << lines.back();
  };
  expectIncomplete(Entries("2", 1), 1);
  std::vector<std::string> lines = Entries("2", 2);
  lines.back() = "AppData1=";
  expectIncomplete(lines, 1);
  expectIncomplete({"[Fusion]", "Count=1", "Executable0=Fusion360.exe", "AppData0=C:\\P"}, 0);
  expectIncomplete({"[Fusion]", "Count=1", "Executable0=\\\\server\\share\\Fusion360.exe", "AppData0=C:\\P"}, 0);
  expectIncomplete({"[Fusion]", "Count=1", "Executable0=C:\\F\\Fusion360.exe", "AppData0=\\Users\\x"}, 0);
  expectIncomplete({"[Fusion]", "Count=1", "Executable0=C:\\F\\Fusion360.exe"}, 0);
  // A value too long for the buffer is never handed on cut.
  expectIncomplete({"[Fusion]", "Count=1", "Executable0=C:\\" + std::string(32764, 'a'), "AppData0=C:\\P"}, 0);
}

TEST_F(InventoryReaderTest, ValuesComeBackCanonicalAndUnchecked) {
  // Keys in other case are found; the paths need not exist.
  Write({"[fusion]", "COUNT=2", "executable0=C:\\Apps\\x\\..\\Fusion\\Fusion360.exe", "APPDATA0=C:\\Users\\u\\",
         "Executable1=C:\\Gr\xC3\xBC\xC3\x9F\\\xF0\x9F\x98\x80\\Fusion360.exe", "AppData1=C:\\\xE4\xB8\xAD\xF0\x9D\x84\x9E"});
  ASSERT_TRUE(Load()) << WideToUtf8(error_);
  EXPECT_EQ(Loaded(), (Pairs{{u"C:\\Apps\\Fusion\\Fusion360.exe", u"C:\\Users\\u"},
                             {u"C:\\Gr\u00FC\u00DF\\\U0001F600\\Fusion360.exe", u"C:\\\u4E2D\U0001D11E"}}));
  // The same executable twice is no error at this level.
  Write({"[Fusion]", "Count=2", "Executable0=C:\\F\\Fusion360.exe", "AppData0=C:\\A", "Executable1=c:\\f\\FUSION360.EXE",
         "AppData1=C:\\B"});
  ASSERT_TRUE(Load());
  EXPECT_EQ(Loaded().size(), 2u);
}

TEST_F(InventoryReaderTest, ReadIniValueRefusesWhatMayHaveBeenCut) {
  const WString path = Win("Local/Quorvane/Installation.ini");
  Write({"[Fusion]", "Fits=" + std::string(32766, 'a'), "Cut=" + std::string(32767, 'b'),
         "Long=" + std::string(40000, 'c'), "[Other]", "Key=other"});
  EXPECT_EQ(ReadIniValue(path, u"Fits"), WString(32766, u'a'));
  EXPECT_EQ(ReadIniValue(path, u"Cut"), u"");
  EXPECT_EQ(ReadIniValue(path, u"Long"), u"");
  EXPECT_EQ(ReadIniValue(path, u"Key"), u"");
  EXPECT_EQ(ReadIniValue(path, u"Absent"), u"");
  EXPECT_EQ(ReadIniValue(Win("Local/none.ini"), u"Fits"), u"");
}

}  // namespace
}  // namespace qv::test
