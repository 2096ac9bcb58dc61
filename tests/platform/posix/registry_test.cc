// The registry of the Linux host: the reader of Wine's files on its own, and
// the registry calls over fixture prefixes.
#include <gtest/gtest.h>

#include "discovery/discovery.h"
#include "platform/platform.h"
#include "platform/posix/wine_registry.h"
#include "support/prefix.h"
#include "user/user_folders.h"

namespace qv::platform {
namespace {

using posix::ReadWineRegistryKey;
using test::SzValue;
using test::Utf16LeBytes;
using Names = std::vector<std::u16string>;
using Bytes = std::vector<std::uint8_t>;

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

}  // namespace
}  // namespace qv::platform
