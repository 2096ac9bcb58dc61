// The registry of the Linux host: the reader of Wine's files on its own, and
// the registry calls over fixture prefixes.
#include <gtest/gtest.h>

#include <algorithm>

#include "discovery/discovery.h"
#include "platform/platform.h"
#include "platform/posix/wine_registry.h"
#include "support/prefix.h"
#include "user/user_folders.h"

namespace qv::platform {
namespace {

using test::SzValue;
using test::Utf16LeBytes;
using Names = std::vector<std::u16string>;
using Bytes = std::vector<std::uint8_t>;

// What a file says of the key at `path` (components joined by single
// backslashes, in any case): the file parsed, then walked down by name.
struct KeyRead {
  bool exists = false;
  Names subkeys;
  std::vector<posix::WineRegistryValue> values;
};
KeyRead ReadWineRegistryKey(std::string_view text, std::u16string_view path) {
  const posix::WineRegistry file = posix::ParseWineRegistry(text);
  std::size_t key = 0;
  for (std::size_t start = 0; start < path.size() && key != posix::kNoWineRegistryKey;) {
    const std::size_t stop = std::min(path.find(u'\\', start), path.size());
    key = posix::FindWineRegistrySubkey(file, key, path.substr(start, stop - start));
    start = stop + 1;
  }
  if (key == posix::kNoWineRegistryKey) return {};
  KeyRead read{true, {}, file.keys[key].values};
  for (std::size_t subkey : file.keys[key].subkeys) read.subkeys.push_back(file.keys[subkey].name);
  return read;
}

// The lines Wine writes are read in the registry calls below (and from a
// prefix Wine made, in tests/wine); here what a hand-edited file may hold:
// keys in any order, which are listed in Wine's order; names and strings with
// escapes; a key given twice; headers and lines Wine refuses, which are
// skipped (the good value before them stays; hex data does not run on into
// the next header).
TEST(WineRegistryReader, KeysAndValuesAsWineReadsThem) {
  const std::string text =
      "WINE REGISTRY Version 2\n\"Orphan\"=\"before any key\"\n"
      "[Software\\\\A] 1\n#time=1dd7b26d8da7df8\n#class=\"Shape class\"\n\"V\"=\"a\"\r\n"
      "\"E\"=\"\\x41\\x4a\\x \\101\\q\\\\ \xc3\xa9 \xe6\x97\xa5 \xff \\\xc3\xa9\xe0\x80\"\n"
      "\"X\"=\"good\"\n\"X\"=dword:zz\n\"X\"=hex:1ff\n\"X\"=hex:01,\\\n  zz\n\"Y\"=bogus:1\ngarbage line\n"
      "\"Z\"=hex:01,\\\n"
      "[Software\\\\C\\\\x\\x00c9] 1\n"
      "[Software\\\\Q\\\\R\\\\S] 1\n"
      "[software\\\\b] 1\n"
      "[Software\\\\C] 1\n"
      "[Software\\\\A\\\\Deep] 1\n"
      "[Software\\\\A\\\\\xc3\xa9] 1\n"
      "[Bad\\\\\\\\Name] 1\n\"V\"=\"bad\"\n"
      "[Unterminated\n"
      // Names whose order depends on the case folding, in the order of a
      // .reg file that Wine's regedit imported; Ab names aB's key again.
      "[O\\\\zeta] 1\n[O\\\\a_b] 1\n[O\\\\aB] 1\n[O\\\\_x] 1\n[O\\\\AA] 1\n[O\\\\a1] 1\n[O\\\\Z] 1\n[O\\\\a^] 1\n"
      "[O\\\\Ab] 1\n[O\\\\a] 1\n"
      "[Software\\\\a] 2\n\"v\"=\"a2\"\n\"W\"=\"w\"\n";
  EXPECT_EQ(ReadWineRegistryKey(text, u"").subkeys, (Names{u"O", u"Software"}));
  // As Wine's `reg query` lists them: names compared in lower case.
  EXPECT_EQ(ReadWineRegistryKey(text, u"o").subkeys,
            (Names{u"_x", u"a", u"a1", u"a^", u"a_b", u"AA", u"aB", u"Z", u"zeta"}));
  EXPECT_EQ(ReadWineRegistryKey(text, u"SOFTWARE").subkeys, (Names{u"A", u"b", u"C", u"Q"}));
  EXPECT_EQ(ReadWineRegistryKey(text, u"software\\a").subkeys, (Names{u"Deep", u"é"}));
  EXPECT_EQ(ReadWineRegistryKey(text, u"Software\\C").subkeys, Names{u"xÉ"});
  for (const char16_t* key : {u"software\\A\\DEEP", u"software\\a\\É", u"Software\\q\\r"}) {
    EXPECT_TRUE(ReadWineRegistryKey(text, key).exists) << WideToUtf8(key);
  }
  for (const char16_t* key : {u"Software\\B\\Deep", u"Software\\C\\x", u"Software\\Q\\RS", u"Bad", u"Unterminated"}) {
    EXPECT_FALSE(ReadWineRegistryKey(text, key).exists) << WideToUtf8(key);
  }
  // From both headers, the later data winning, the first name kept.
  const std::pair<std::u16string, std::u16string> expected[] = {
      {u"V", u"a2"}, {u"E", u"AJx Aq\\ é 日 \uFFFD é\uFFFD\uFFFD"}, {u"X", u"good"}, {u"W", u"w"}};
  const auto values = ReadWineRegistryKey(text, u"software\\A").values;
  ASSERT_EQ(values.size(), std::size(expected));
  for (std::size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(values[i].name, expected[i].first);
    EXPECT_EQ(values[i].type, kRegSz);
    EXPECT_EQ(values[i].data, Utf16LeBytes(expected[i].second)) << WideToUtf8(expected[i].first);
  }
  // Without Wine's first line the file holds nothing.
  EXPECT_FALSE(ReadWineRegistryKey("WINE REGISTRY Version 1\n[K]\n", u"K").exists);
  EXPECT_TRUE(ReadWineRegistryKey("WINE REGISTRY Version 2\r\n[K] 1\r\n", u"k").exists);
}

// ------------------------------------------------- the registry calls --

using PosixRegistry = test::PrefixCase;

TEST_F(PosixRegistry, ValuesComeWithTheSizesWindowsReports) {
  prefix_.WriteRegistry(
      {{u"Software\\V",
        {SzValue(u"Text", u"abc"), SzValue(u"", u"default"), test::TypedValue(u"Fits", kRegBinary, Bytes(65536, 1)),
         SzValue(u"TooLong", std::u16string(32768, u'x')), test::TypedValue(u"Unterminated", kRegSz, {'A', 0, 'B', 0}),
         test::TypedValue(u"Odd", kRegExpandSz, {'A', 0, 'B'}),
         test::TypedValue(u"Inner", kRegSz, {'A', 0, 0, 0, 'B', 0}),
         test::TypedValue(u"Expand", kRegExpandSz, Utf16LeBytes(u"%QV%")), test::DwordValue(u"Number", 7)}}});
  test::ScopedEnv variable("QV", "expanded");
  RegKey key = 0;
  ASSERT_EQ(RegOpenKeyExW(kHkeyLocalMachine, u"Software\\V", 0, kKeyRead, key), 0);
  struct Row {
    const char16_t* name;
    std::uint32_t capacity;
    std::int32_t result;
    std::uint32_t size;
    std::u16string pathValue;  // what discovery reads as a path from it
  };
  for (const Row& row :
       {Row{u"TEXT", 65536, 0, 8, u"abc"}, Row{u"Text", 7, 234, 8, u"abc"}, Row{u"", 65536, 0, 16, u"default"},
        Row{u"Fits", 65536, 0, 65536, u""}, Row{u"TooLong", 65536, 234, 65538, u""},
        Row{u"Unterminated", 65536, 0, 4, u"AB"}, Row{u"Odd", 65536, 0, 3, u"AB"}, Row{u"Inner", 65536, 0, 6, u"A"},
        Row{u"Expand", 65536, 0, 10, u"expanded"}, Row{u"Number", 65536, 0, 4, u""},
        Row{u"Missing", 65536, 2, 65536, u""}}) {
    Bytes buffer(65536, 0xEE);
    std::uint32_t type = 0, size = row.capacity;
    EXPECT_EQ(RegQueryValueExW(key, row.name, type, buffer.data(), size), row.result) << WideToUtf8(row.name);
    EXPECT_EQ(size, row.size) << WideToUtf8(row.name);
    EXPECT_TRUE(row.result != 0 || size == 65536 || buffer[size] == 0xEE);  // nothing past the value
    EXPECT_EQ(ReadRegistryPathValue(key, row.name), row.pathValue) << WideToUtf8(row.name);
  }
  EXPECT_EQ(RegCloseKey(key), 0);
}

// Links, the 32-bit view and enumeration over one prefix: Wine's own kinds
// of link (a key on the way, a chain, into the other file, the 32-bit view's
// link back to the shared key) and the ones that must not open.
class PosixRegistryKeys : public test::PrefixCase {
 protected:
  static constexpr char16_t kUninstall[] = u"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall";

  PosixRegistryKeys() { WriteKeys({u"alpha", u"Beta", u"Gamma"}); }

  // The machine's and the account's keys, with these Uninstall entries.
  void WriteKeys(const Names& uninstall, const std::u16string& betaName = u"beta") const {
    const std::u16string sid = Utf8ToWide(prefix_.sid);
    std::vector<test::RegFileKey> machine{
        {u"Software\\Target", {SzValue(u"V", u"target")}},
        {u"Software\\Target\\Sub", {SzValue(u"V", u"target sub")}},
        test::LinkKey(u"Software\\Link", u"\\Registry\\Machine\\Software\\Target"),
        test::LinkKey(u"Software\\Chain", u"\\REGISTRY\\machine\\Software\\Link"),
        test::LinkKey(u"Software\\LoopA", u"\\Registry\\Machine\\Software\\LoopB"),
        test::LinkKey(u"Software\\LoopB", u"\\Registry\\Machine\\Software\\LoopA"),
        test::LinkKey(u"Software\\Growing", u"\\Registry\\Machine\\Software\\Growing\\Deeper"),
        test::LinkKey(u"Software\\ToUser", u"\\Registry\\User\\" + sid + u"\\Software\\Mine"),
        test::LinkKey(u"Software\\ToStranger", u"\\Registry\\User\\S-1-5-21-9-9-9-9\\Software\\Mine"),
        test::LinkKey(u"Software\\Dangling", u"\\Registry\\Machine\\Software\\Nowhere"),
        {u"Software\\NoTarget", {}, true},
        {u"Software\\Both", {SzValue(u"V", u"64")}},
        {u"Software\\Wow6432Node\\Both", {SzValue(u"V", u"32")}},
        {u"Software\\Shared", {SzValue(u"V", u"shared")}},
        test::LinkKey(u"Software\\Wow6432Node\\Shared", u"\\Registry\\Machine\\Software\\Shared"),
        {std::u16string(kUninstall) + u"\\Beta\\Inner", {}},
        {u"Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Only32App", {}}};
    for (const std::u16string& name : uninstall) {
      machine.push_back({std::u16string(kUninstall) + u"\\" + name, {SzValue(u"V", name == u"Beta" ? betaName : name)}});
    }
    prefix_.WriteRegistry(machine, {{u"Software\\Mine", {SzValue(u"V", u"user")}},
                                    {u"Software\\Both", {SzValue(u"V", u"user")}},
                                    test::LinkKey(u"Software\\ToMachine", u"\\Registry\\Machine\\Software\\Target")});
  }

  // Every name RegEnumKeyExW gives, by index from 0 to the end (259), each
  // refused (234) when the buffer has no room for its terminator.
  static Names Enumerate(RegKey key) {
    Names names;
    WString name;
    for (std::uint32_t index = 0; index < 64 && RegEnumKeyExW(key, index, name, 512) == 0; ++index) {
      names.push_back(name);
      EXPECT_EQ(RegEnumKeyExW(key, index, name, static_cast<std::uint32_t>(name.size())), 234) << WideToUtf8(name);
    }
    EXPECT_EQ(RegEnumKeyExW(key, static_cast<std::uint32_t>(names.size()), name, 512), 259);
    return names;
  }
};

TEST_F(PosixRegistryKeys, LinksAndViewsOpenAsWinesServerOpensThem) {
  struct Row {
    RegKey root;
    const char16_t* parent;  // opened first, with the same view; null: open from the root
    const char16_t* path;
    std::uint32_t view;
    std::u16string value;  // its "V", or "(error N)" when the open fails
  };
  constexpr std::uint32_t k32 = kKeyWow64_32Key, k64 = kKeyWow64_64Key;
  const Row rows[] = {
      {kHkeyLocalMachine, nullptr, u"Software\\Link", k64, u"target"},
      {kHkeyLocalMachine, nullptr, u"software\\LINK\\sub", k64, u"target sub"},
      {kHkeyLocalMachine, nullptr, u"Software\\Chain\\Sub", k64, u"target sub"},
      {kHkeyLocalMachine, u"Software\\Link", u"Sub", k64, u"target sub"},
      {kHkeyLocalMachine, nullptr, u"Software\\Link\\Missing", k64, u"(error 2)"},
      // Loops end in "not found" after a bounded number of links.
      {kHkeyLocalMachine, nullptr, u"Software\\LoopA", k64, u"(error 2)"},
      {kHkeyLocalMachine, nullptr, u"Software\\Growing", k64, u"(error 2)"},
      {kHkeyLocalMachine, nullptr, u"Software\\Dangling", k64, u"(error 2)"},
      {kHkeyLocalMachine, nullptr, u"Software\\NoTarget", k64, u"(error 2)"},
      // Across the files, but only into this account's keys.
      {kHkeyLocalMachine, nullptr, u"Software\\ToUser", k64, u"user"},
      {kHkeyLocalMachine, nullptr, u"Software\\ToStranger", k64, u"(error 2)"},
      {kHkeyCurrentUser, nullptr, u"Software\\ToMachine\\Sub", k64, u"target sub"},
      // The machine's 32-bit view is Software\Wow6432Node; the account has one
      // key for both views.
      {kHkeyLocalMachine, nullptr, u"Software\\Both", k32, u"32"},
      {kHkeyLocalMachine, nullptr, u"Software\\Both", k64, u"64"},
      {kHkeyLocalMachine, nullptr, u"Software\\Wow6432Node\\Both", k32, u"32"},
      {kHkeyLocalMachine, u"Software", u"Both", k32, u"32"},
      {kHkeyLocalMachine, nullptr, u"Software\\Shared", k32, u"shared"},
      {kHkeyCurrentUser, nullptr, u"Software\\Both", k32, u"user"},
  };
  for (const Row& row : rows) {
    const std::string where = WideToUtf8(row.path) + (row.view == k32 ? " (32)" : "");
    RegKey parent = row.root, key = 0;
    if (row.parent != nullptr) {
      ASSERT_EQ(RegOpenKeyExW(row.root, row.parent, 0, kKeyRead | row.view, parent), 0) << where;
    }
    const std::int32_t status = RegOpenKeyExW(parent, row.path, 0, kKeyRead | row.view, key);
    const std::u16string error = u"(error " + Utf8ToWide(std::to_string(status)) + u")";
    EXPECT_EQ(status == 0 ? ReadRegistryPathValue(key, u"V") : error, row.value) << where;
    if (status == 0) RegCloseKey(key);
    RegCloseKey(parent);
  }
}

TEST_F(PosixRegistryKeys, EnumerationByIndexGivesEachKeyOnce) {
  struct Row {
    RegKey root;
    std::u16string path;
    std::uint32_t view;
    Names subkeys;
  };
  const Row rows[] = {
      {kHkeyLocalMachine, kUninstall, kKeyWow64_64Key, {u"alpha", u"Beta", u"Gamma"}},
      {kHkeyLocalMachine, kUninstall, kKeyWow64_32Key, {u"Only32App"}},
      {kHkeyLocalMachine, u"Software\\Chain", kKeyWow64_64Key, {u"Sub"}},
      {kHkeyLocalMachine, std::u16string(kUninstall) + u"\\alpha", kKeyWow64_64Key, {}},
      {kHkeyCurrentUser, u"Software", kKeyWow64_32Key, {u"Both", u"Mine", u"ToMachine", u"Wine"}},
  };
  for (const Row& row : rows) {
    platform::ScopedRegKey key;
    ASSERT_EQ(RegOpenKeyExW(row.root, row.path, 0, kKeyRead | row.view, *key.out()), 0) << WideToUtf8(row.path);
    EXPECT_EQ(Enumerate(key.get()), row.subkeys) << WideToUtf8(row.path);
  }

  // Wine saves the file anew in the middle of an enumeration, with a key
  // that comes first and another name for Beta: the open key goes on with
  // the picture it was opened on, and so do the keys opened below it; a new
  // open sees the new file.
  platform::ScopedRegKey uninstall;
  ASSERT_EQ(RegOpenKeyExW(kHkeyLocalMachine, kUninstall, 0, kKeyRead, *uninstall.out()), 0);
  Names seen;
  WString name;
  ASSERT_EQ(RegEnumKeyExW(uninstall.get(), 0, name, 512), 0);
  seen.push_back(name);
  WriteKeys({u"Aardvark", u"alpha", u"Beta", u"Gamma"}, u"beta renamed");
  for (std::uint32_t index = 1; RegEnumKeyExW(uninstall.get(), index, name, 512) == 0; ++index) seen.push_back(name);
  EXPECT_EQ(seen, (Names{u"alpha", u"Beta", u"Gamma"}));
  platform::ScopedRegKey beta;
  ASSERT_EQ(RegOpenKeyExW(uninstall.get(), u"Beta", 0, kKeyRead, *beta.out()), 0);
  EXPECT_EQ(ReadRegistryPathValue(beta.get(), u"V"), u"beta");
  EXPECT_EQ(Enumerate(beta.get()), Names{u"Inner"});
  platform::ScopedRegKey fresh;
  ASSERT_EQ(RegOpenKeyExW(kHkeyLocalMachine, kUninstall, 0, kKeyRead, *fresh.out()), 0);
  EXPECT_EQ(Enumerate(fresh.get()), (Names{u"Aardvark", u"alpha", u"Beta", u"Gamma"}));
}

}  // namespace
}  // namespace qv::platform
