// The registry of the Linux host: the reader of Wine's files on its own, and
// the registry calls over fixture prefixes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "discovery/discovery.h"
#include "platform/platform.h"
#include "platform/posix/wine_registry.h"
#include "support/prefix.h"

namespace qv::platform {
namespace {

using posix::ReadWineRegistryKey;
using posix::WineRegistryValue;
using test::RegFileKey;
using test::SzValue;
using test::Utf16LeBytes;
using Names = std::vector<std::u16string>;
using Bytes = std::vector<std::uint8_t>;

TEST(WineRegistryReader, ValueLinesAsWineWritesAndReadsThem) {
  struct Row {
    std::string line;
    const char16_t* name;
    std::uint32_t type;
    Bytes data;
  };
  const Row rows[] = {
      {"@=\"default text\"", u"", kRegSz, Utf16LeBytes(u"default text")},
      {"\"Sz\"=\"C:\\\\users\\\\root\"", u"Sz", kRegSz, Utf16LeBytes(u"C:\\users\\root")},
      {"\"Expand\"=str(2):\"%SystemDrive%\\\\Users\"", u"Expand", kRegExpandSz, Utf16LeBytes(u"%SystemDrive%\\Users")},
      {"\"Multi\"=str(7):\"one\\0two\\0\"", u"Multi", kRegMultiSz, Utf16LeBytes(std::u16string(u"one\0two\0", 8))},
      {"\"Dword\"=dword:0000001f", u"Dword", kRegDword, {0x1f, 0, 0, 0}},
      {"\"Binary\"=hex:1f,00,ff", u"Binary", kRegBinary, {0x1f, 0, 0xff}},
      {"\"ExpandHex\"=hex(2):25,00,41,00,25,00,00,00", u"ExpandHex", kRegExpandSz, Utf16LeBytes(u"%A%")},
      {"\"OddHex\"=hex(2):41,00,42", u"OddHex", kRegExpandSz, {0x41, 0, 0x42}},
      {"\"Wrapped\"=hex:00,01,02,\\\n  03,04,\\\n  05", u"Wrapped", kRegBinary, {0, 1, 2, 3, 4, 5}},
      {"\"Empty\"=\"\"", u"Empty", kRegSz, Utf16LeBytes(u"")},
      {"\"Crlf\"=\"y\"\r", u"Crlf", kRegSz, Utf16LeBytes(u"y")},
      // Forms Wine reads but does not write.
      {"\"a\"=\"\\x41\\x4a\\x \\101\\q\\\\\"", u"a", kRegSz, Utf16LeBytes(u"AJx Aq\\")},
      {"\"b\"=\"\xc3\xa9 \xe6\x97\xa5 \xff \\\xc3\xa9\xe0\x80\"", u"b", kRegSz, Utf16LeBytes(u"é 日 \uFFFD é\uFFFD\uFFFD")},
      {"\"X\"=\"good\"", u"X", kRegSz, Utf16LeBytes(u"good")},
  };
  std::string text = "WINE REGISTRY Version 2\n\"Orphan\"=\"before any key\"\n[Software\\\\Shapes] 1795423466\n"
                     "#time=1dd7b26d8da7df8\n#class=\"Shape class\"\n";
  for (const Row& row : rows) text += row.line + "\n";
  // Bad lines are skipped: the good value before them stays. Hex data does
  // not run on into the next header.
  text += "\"X\"=dword:zz\n\"X\"=hex:1ff\n\"X\"=hex:01,\\\n  zz\n\"Y\"=bogus:1\ngarbage line\n\"Z\"=hex:01,\\\n[Next] 1\n";
  const auto key = ReadWineRegistryKey(text, u"SOFTWARE\\shapes");
  ASSERT_EQ(key.values.size(), std::size(rows));
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_EQ(key.values[i].name, rows[i].name) << rows[i].line;
    EXPECT_EQ(key.values[i].type, rows[i].type) << rows[i].line;
    EXPECT_EQ(key.values[i].data, rows[i].data) << rows[i].line;
  }
  EXPECT_TRUE(ReadWineRegistryKey(text, u"").values.empty());
  EXPECT_TRUE(ReadWineRegistryKey(text, u"next").exists);
}

TEST(WineRegistryReader, KeysInWinesOrderAndAddedAfterIt) {
  // Wine's ordered run, then keys added at the end by hand; names with
  // escapes; a key given twice; headers Wine refuses.
  const std::string text =
      "WINE REGISTRY Version 2\n"
      "[Software\\\\A] 1\n\"V\"=\"a\"\n"
      "[Software\\\\C\\\\x\\x00c9] 1\n\"V\"=\"c-e\"\n"
      "[Software\\\\Q\\\\R\\\\S] 1\n"
      "[software\\\\b] 1\n\"V\"=\"b\"\n"
      "[Software\\\\C] 1\n"
      "[Software\\\\A\\\\Deep] 1\n"
      "[Software\\\\A\\\\\xc3\xa9] 1\n"
      "[Bad\\\\\\\\Name] 1\n\"V\"=\"bad\"\n"
      "[Unterminated\n"
      "[Software\\\\a] 2\n\"v\"=\"a2\"\n\"W\"=\"w\"\n";
  EXPECT_EQ(ReadWineRegistryKey(text, u"").subkeys, (Names{u"Software"}));
  EXPECT_EQ(ReadWineRegistryKey(text, u"SOFTWARE").subkeys, (Names{u"A", u"b", u"C", u"Q"}));
  EXPECT_EQ(ReadWineRegistryKey(text, u"software\\a").subkeys, (Names{u"Deep", u"é"}));
  EXPECT_EQ(ReadWineRegistryKey(text, u"Software\\C").subkeys, Names{u"xÉ"});
  for (const auto& [key, exists] : std::initializer_list<std::pair<const char16_t*, bool>>{
           {u"software\\A\\DEEP", true}, {u"software\\a\\É", true}, {u"Software\\q\\r", true},
           {u"Software\\B\\Deep", false}, {u"Software\\C\\x", false}, {u"Software\\Q\\RS", false},
           {u"Bad", false}, {u"Unterminated", false}}) {
    EXPECT_EQ(ReadWineRegistryKey(text, key).exists, exists) << WideToUtf8(key);
  }
  for (const auto& [key, value] : std::initializer_list<std::pair<const char16_t*, std::u16string>>{
           {u"SOFTWARE\\B", u"b"}, {u"Software\\c\\XÉ", u"c-e"}}) {
    const auto values = ReadWineRegistryKey(text, key).values;
    ASSERT_EQ(values.size(), 1u) << WideToUtf8(key);
    EXPECT_EQ(values[0].data, Utf16LeBytes(value)) << WideToUtf8(key);
  }
  // From both headers, the later data winning, the first name kept.
  const auto a = ReadWineRegistryKey(text, u"software\\A").values;
  ASSERT_EQ(a.size(), 2u);
  EXPECT_EQ(a[0].name, u"V");
  EXPECT_EQ(a[0].data, Utf16LeBytes(u"a2"));
  // Without Wine's first line the file holds nothing.
  EXPECT_FALSE(ReadWineRegistryKey("WINE REGISTRY Version 1\n[K]\n", u"K").exists);
  EXPECT_TRUE(ReadWineRegistryKey("WINE REGISTRY Version 2\r\n[K] 1\r\n", u"k").exists);
}

// ------------------------------------------------- the registry calls --

struct PosixRegistry : test::PrefixCase {
  // As Wine's server saves it: a new file renamed over the old one.
  void WriteSystemReg(const std::vector<RegFileKey>& keys) {
    test::WriteFile(prefix_.root + "/next.reg", test::SystemRegFile(keys));
    ASSERT_EQ(std::rename((prefix_.root + "/next.reg").c_str(), (prefix_.root + "/system.reg").c_str()), 0);
  }
  static std::u16string StringValue(RegKey root, const std::u16string& path, const std::u16string& name,
                                    std::uint32_t view = 0) {
    RegKey key = 0;
    if (RegOpenKeyExW(root, path, 0, kKeyRead | view, key) != 0) return u"<no key>";
    const std::u16string text = ReadRegistryPathValue(key, name);
    RegCloseKey(key);
    return text;
  }
};

TEST_F(PosixRegistry, LinksLeadToTheirTargetAlsoInAnotherFileAndLoopsEnd) {
  test::WriteFile(prefix_.root + "/user.reg", test::UserRegFile({{u"Software\\Mine", {SzValue(u"V", u"mine")}}}));
  WriteSystemReg({
      {u"Software\\Target", {SzValue(u"V", u"target")}},
      {u"Software\\Wow6432Node\\Link", {test::LinkValue(u"\\Registry\\Machine\\Software\\Target")}, true},
      {u"Software\\LoopA", {test::LinkValue(u"\\Registry\\Machine\\Software\\LoopB")}, true},
      {u"Software\\LoopB", {test::LinkValue(u"\\REGISTRY\\MACHINE\\Software\\LoopA")}, true},
      {u"Software\\ToUser", {test::LinkValue(u"\\Registry\\User\\S-1-5-21-0-0-0-1000\\Software\\Mine")}, true},
  });
  EXPECT_EQ(StringValue(kHkeyLocalMachine, u"SOFTWARE\\link", u"V", kKeyWow64_32Key), u"target");
  EXPECT_EQ(StringValue(kHkeyLocalMachine, u"Software\\Link", u"V", kKeyWow64_64Key), u"<no key>");
  EXPECT_EQ(StringValue(kHkeyLocalMachine, u"Software\\ToUser", u"V"), u"mine");
  EXPECT_EQ(StringValue(kHkeyLocalMachine, u"Software\\LoopA", u"V"), u"<no key>");
}

// An open key is looked up again in the file as it is at each call.
TEST_F(PosixRegistry, OpenKeysFollowARewrittenFile) {
  const auto toTarget = test::LinkValue(u"\\Registry\\Machine\\Software\\Target");
  WriteSystemReg({{u"Software\\Target\\Sub", {SzValue(u"V", u"first")}}, {u"Software\\Link", {toTarget}, true}});
  constexpr std::uint32_t kOpenLink = 0x8;
  RegKey link = 0, sub = 0, target = 0;
  ASSERT_EQ(RegOpenKeyExW(kHkeyLocalMachine, u"Software\\Link", kOpenLink, kKeyRead, link), 0);
  ASSERT_EQ(RegOpenKeyExW(kHkeyLocalMachine, u"Software\\Target", 0, kKeyRead, target), 0);
  WString name;
  EXPECT_EQ(RegEnumKeyExW(link, 0, name, 512), static_cast<std::int32_t>(kErrorNoMoreItems));  // the link itself
  ASSERT_EQ(RegOpenKeyExW(link, u"Sub", 0, kKeyRead, sub), 0);
  EXPECT_EQ(ReadRegistryPathValue(sub, u"V"), u"first");

  // Rewritten, with a key before the open one: below and at the open keys
  // everything is looked up anew.
  WriteSystemReg({{u"Software\\Target\\Aaa", {SzValue(u"V", u"new key")}},
                  {u"Software\\Target\\Sub", {SzValue(u"V", u"second")}},
                  {u"Software\\Link", {toTarget}, true}});
  EXPECT_EQ(ReadRegistryPathValue(sub, u"V"), u"second");
  EXPECT_EQ(StringValue(target, u"sub", u"V"), u"second");
  // Gone: the keys stay open and have nothing.
  ASSERT_EQ(std::remove((prefix_.root + "/system.reg").c_str()), 0);
  EXPECT_EQ(ReadRegistryPathValue(sub, u"V"), u"");
  for (RegKey key : {sub, target, link}) EXPECT_EQ(RegCloseKey(key), 0);
}

TEST_F(PosixRegistry, ValuesComeWithTheSizesWindowsReports) {
  WriteSystemReg({{u"Software\\V",
                   {SzValue(u"Text", u"abc"), SzValue(u"", u"default"),
                    test::TypedValue(u"Fits", kRegBinary, Bytes(65536, 1)), SzValue(u"TooLong", std::u16string(32768, u'x')),
                    test::TypedValue(u"Unterminated", kRegSz, {'A', 0, 'B', 0}),
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
  for (const Row& row : {Row{u"TEXT", 65536, 0, 8, u"abc"}, Row{u"Text", 7, 234, 8, u"abc"}, Row{u"", 65536, 0, 16, u"default"},
                         Row{u"Fits", 65536, 0, 65536, u""}, Row{u"TooLong", 65536, 234, 65538, u""},
                         Row{u"Unterminated", 65536, 0, 4, u"AB"}, Row{u"Odd", 65536, 0, 3, u"AB"},
                         Row{u"Inner", 65536, 0, 6, u"A"}, Row{u"Expand", 65536, 0, 10, u"expanded"},
                         Row{u"Number", 65536, 0, 4, u""}, Row{u"Missing", 65536, 2, 65536, u""}}) {
    Bytes buffer(65536, 0xEE);
    std::uint32_t type = 0, size = row.capacity;
    EXPECT_EQ(RegQueryValueExW(key, row.name, type, buffer.data(), size), row.result) << WideToUtf8(row.name);
    EXPECT_EQ(size, row.size) << WideToUtf8(row.name);
    EXPECT_TRUE(row.result != 0 || size == 65536 || buffer[size] == 0xEE);  // nothing past the value
    EXPECT_EQ(ReadRegistryPathValue(key, row.name), row.pathValue) << WideToUtf8(row.name);
  }
  EXPECT_EQ(RegCloseKey(key), 0);
}

TEST_F(PosixRegistry, ExpandsFromTheEnvironmentThenThePrefix) {
  test::ScopedEnv variable("QV_REGISTRY_TEST_VAR", "from env");
  test::ScopedEnv drive("SystemDrive", std::nullopt), appData("APPDATA", std::nullopt);
  const std::pair<std::u16string, std::u16string> rows[] = {
      {u"%qv_registry_test_VAR%!", u"from env!"},
      {u"%appdata%", Utf8ToWide(prefix_.RoamingWin())},
      {u"%NO_SUCH_VARIABLE_QV%SystemDrive%", u"%NO_SUCH_VARIABLE_QV%SystemDrive%"},
      {std::u16string(u"a\0%SystemDrive%", 15), u"a"},
  };
  for (const auto& [source, expected] : rows) {
    WString out;
    EXPECT_EQ(ExpandEnvironmentStringsW(source, out, 32768), expected.size() + 1) << WideToUtf8(source);
    EXPECT_EQ(out, expected);
  }
}

}  // namespace
}  // namespace qv::platform
