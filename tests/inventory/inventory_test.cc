// The saved inventory on a fixture prefix: what the reader makes of
// malformed files, and that the writer replaces the file whole. That a failed
// write, flush or rename leaves the old file and no temporary one is shown by
// the end-to-end sweeps, which fail each of these calls in a whole run.
#include "inventory/inventory.h"

#include <unistd.h>

#include <filesystem>

#include "paths/failure.h"
#include "support/prefix.h"

namespace qv::test {
namespace {

constexpr char16_t kInvalid[] = u"Invalid saved Fusion installation list.";
constexpr char16_t kIncomplete[] = u"Incomplete saved Fusion installation list.";

// "Count=<count>" and n entries C:\F<i>\Fusion360.exe and C:\P<i>.
std::vector<std::string> Entries(const std::string& count, unsigned n) {
  std::vector<std::string> lines{"[Fusion]", "Count=" + count};
  for (unsigned i = 0; i < n; ++i) {
    lines.push_back("Executable" + std::to_string(i) + "=C:\\F" + std::to_string(i) + "\\Fusion360.exe");
    lines.push_back("AppData" + std::to_string(i) + "=C:\\P" + std::to_string(i));
  }
  return lines;
}

class InventoryTest : public PrefixCase {
 protected:
  std::string File() const { return Host("local/Quorvane/Installation.ini"); }
  // Loads behind one record already in the list; loaded_ holds what the
  // load appended.
  bool Load() {
    loaded_ = {{u"C:\\before\\Fusion360.exe", u"C:\\before"}};
    error_.clear();
    const bool ok = LoadInventory(Win("local"), loaded_, error_);
    loaded_.erase(loaded_.begin());
    return ok;
  }
  FusionInstallationList loaded_;
  WString error_;
};

TEST_F(InventoryTest, ReaderRefusesWhatItCannotTrustAndKeepsWhatCameBefore) {
  const std::string f = "Executable0=C:\\F\\Fusion360.exe";
  struct Row {
    std::vector<std::string> lines;
    WString error;       // empty: success
    std::size_t loaded;  // records appended, on failure too
    WString last = {};   // the last one as "executable|appData", when given
    std::uintmax_t size = 0;  // the file's size, zero bytes added, when given
  };
  std::vector<Row> rows = {
      {{"[Other]", "Count=1", f, "AppData0=C:\\P"}, kInvalid, 0},
      {Entries("129", 129), kInvalid, 0},
      // A count too long for the reader's buffer counts as cut; a sign is taken.
      {Entries(std::string(32766, '0') + "1", 1), kInvalid, 0}, {Entries(std::string(32765, '0') + "1", 1), u"", 1},
      {Entries("+2", 2), u"", 2}, {Entries("-0", 1), u"", 0},
      {{"[Fusion]", "Count=0", "Executable0=relative", "AppData0="}, u"", 0},
      {Entries("128", 128), u"", 128, u"C:\\F127\\Fusion360.exe|C:\\P127"}, {Entries("1", 3), u"", 1},
      {Entries("2", 1), kIncomplete, 1}, {{"[Fusion]", "Count=1", f}, kIncomplete, 0},
      {Entries("1", 1), u"", 1, u"", kLargestInventoryBytes},
      {{"[Fusion]", "Count=1", "Executable0=Fusion360.exe", "AppData0=C:\\P"}, kIncomplete, 0},
      {{"[Fusion]", "Count=1", "Executable0=\\\\server\\share\\Fusion360.exe", "AppData0=C:\\P"}, kIncomplete, 0},
      {{"[Fusion]", "Count=1", f, "AppData0=\\Users\\x"}, kIncomplete, 0},
      // A value too long for the buffer is never handed on cut.
      {{"[Fusion]", "Count=1", "Executable0=C:\\" + std::string(32764, 'a'), "AppData0=C:\\P"}, kIncomplete, 0},
      // Keys in any case; values canonical, unchecked, in their code units.
      {{"[fusion]", "COUNT=1", "executable0=C:\\x\\..\\Gr\xC3\xBC\xC3\x9F\\\xF0\x9F\x98\x80", "APPDATA0=C:\\\xE4\xB8\xAD\\"},
       u"", 1, u"C:\\Gr\u00FC\u00DF\\\U0001F600|C:\\\u4E2D"},
  };
  for (const std::string count : {"", "2x", "0x2", "-1", "+", "-", "x1", "99999999999", "4294967297", "129"}) {
    rows.push_back({Entries(count, 2), kInvalid, 0});
  }
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.lines).substr(0, 200));
    WriteFile(File(), InventoryText(row.lines));
    if (row.size != 0) std::filesystem::resize_file(File(), row.size);
    EXPECT_EQ(Load(), row.error.empty());
    EXPECT_EQ(error_, row.error);
    EXPECT_EQ(loaded_.size(), row.loaded);
    const WString last = loaded_.empty() ? u"" : loaded_.back().executable + u"|" + loaded_.back().appData;
    if (!row.last.empty()) { EXPECT_EQ(last, row.last); }
  }
  // No file, or a folder in its place: no inventory yet.
  std::filesystem::remove(File());
  EXPECT_TRUE(Load() && loaded_.empty());
  MakeDirs(File());
  EXPECT_TRUE(Load() && loaded_.empty());
}

TEST_F(InventoryTest, WriterReplacesTheFileWholeAndLaterReadsSeeIt) {
  const FusionInstallationList two = {{u"C:\\F\U0001F600\\Fusion360.exe", u"C:\\users\\\u5C71\u7530\\Roaming"},
                                      {u"C:\\G\\Fusion360.exe", u"C:\\users\\g"}};
  const std::string twoBytes = InventoryBytes({{"C:\\F\xF0\x9F\x98\x80\\Fusion360.exe", "C:\\users\\\xE5\xB1\xB1\xE7\x94\xB0\\Roaming"},
                                               {"C:\\G\\Fusion360.exe", "C:\\users\\g"}});
  for (const FusionInstallationList& records : {two, FusionInstallationList{two[1]}, two}) {
    ASSERT_TRUE(SaveInventory(Win("local"), records));
    ASSERT_TRUE(Load());
    EXPECT_EQ(Pairs(loaded_), Pairs(records));
  }
  EXPECT_EQ(ReadFile(File()), twoBytes);

  // A leftover temporary file of this process's name is not ours to open.
  const std::string temporary = File() + "." + std::to_string(::getpid()) + ".tmp";
  WriteFile(temporary, "leftover");
  EXPECT_FALSE(SaveInventory(Win("local"), {}));
  EXPECT_EQ(ReadFile(temporary), "leftover");
  EXPECT_EQ(ReadFile(File()), twoBytes);
  // A file where the folder belongs is raised.
  WriteFile(Host("blocked/Quorvane"), "file");
  EXPECT_THROW(SaveInventory(Win("blocked"), {}), FilesystemFailure);
}

}  // namespace
}  // namespace qv::test
