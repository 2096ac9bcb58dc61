// The registry of the Linux host: the reader of Wine's files on its own and
// the registry calls over fixture prefixes (tests/wine has the check against
// a prefix made by Wine).
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>

#include "discovery/discovery.h"
#include "platform/platform.h"
#include "platform/posix/host.h"
#include "platform/posix/wine_registry.h"
#include "support/scene.h"
#include "support/environment.h"

namespace qv::platform {
namespace {

using posix::FindWineValue;
using posix::ParseWineRegistry;
using posix::WineKeyExists;
using posix::WineRegistryValue;
using posix::WineSubkeyNames;
using test::RegFileKey;

WineRegistryValue ValueOf(const posix::WineRegistry& registry, std::u16string_view path, std::u16string_view name) {
  WineRegistryValue value;
  EXPECT_TRUE(FindWineValue(registry, path, name, value)) << WideToUtf8(path) << " : " << WideToUtf8(name);
  return value;
}

// The text of a REG_SZ-like value without its closing NUL.
std::u16string TextOf(const WineRegistryValue& value) {
  std::u16string text;
  for (std::size_t i = 0; i + 1 < value.data.size(); i += 2) {
    text.push_back(static_cast<char16_t>(value.data[i] | (value.data[i + 1] << 8)));
  }
  if (!text.empty() && text.back() == u'\0') text.pop_back();
  return text;
}

// ------------------------------------------------------------ the reader --

TEST(WineRegistryReader, ReadsEveryValueFormWineWrites) {
  const std::string text =
      "WINE REGISTRY Version 2\n"
      ";; All keys relative to REGISTRY\\\\Machine\n"
      "\n"
      "#arch=win64\n"
      "\n"
      "[Software\\\\Shapes] 1795423466\n"
      "#time=1dd7b26d8da7df8\n"
      "#class=\"Shape class\"\n"
      "@=\"default text\"\n"
      "\"Sz\"=\"C:\\\\users\\\\root\"\n"
      "\"Expand\"=str(2):\"%SystemDrive%\\\\Users\"\n"
      "\"Multi\"=str(7):\"one\\0two\\0\"\n"
      "\"Dword\"=dword:0000001f\n"
      "\"Binary\"=hex:1f,00,ff\n"
      "\"Qword\"=hex(b):01,02,03,04,05,06,07,08\n"
      "\"ExpandHex\"=hex(2):25,00,41,00,25,00,00,00\n"
      "\"OddHex\"=hex(2):41,00,42\n"
      "\"Wrapped\"=hex:00,01,02,\\\n"
      "  03,04,\\\n"
      "  05\n"
      "\"Empty\"=\"\"\n"
      "\"NoData\"=hex:\n"
      "  \"Spaced\" = \"x\"\n"
      "\"Crlf\"=\"y\"\r\n";
  const auto registry = ParseWineRegistry(text);
  const std::u16string key = u"SOFTWARE\\shapes";

  EXPECT_EQ(ValueOf(registry, key, u"").type, kRegSz);
  EXPECT_EQ(TextOf(ValueOf(registry, key, u"")), u"default text");
  const auto sz = ValueOf(registry, key, u"sz");
  EXPECT_EQ(sz.type, kRegSz);
  EXPECT_EQ(sz.data, test::Utf16LeBytes(u"C:\\users\\root"));  // terminator included
  const auto expand = ValueOf(registry, key, u"Expand");
  EXPECT_EQ(expand.type, kRegExpandSz);
  EXPECT_EQ(expand.data, test::Utf16LeBytes(u"%SystemDrive%\\Users"));
  const auto multi = ValueOf(registry, key, u"Multi");
  EXPECT_EQ(multi.type, kRegMultiSz);
  EXPECT_EQ(multi.data, test::Utf16LeBytes(std::u16string(u"one\0two\0", 8)));
  EXPECT_EQ(ValueOf(registry, key, u"Dword").type, kRegDword);
  EXPECT_EQ(ValueOf(registry, key, u"Dword").data, (std::vector<std::uint8_t>{0x1f, 0, 0, 0}));
  EXPECT_EQ(ValueOf(registry, key, u"Binary").type, kRegBinary);
  EXPECT_EQ(ValueOf(registry, key, u"Binary").data, (std::vector<std::uint8_t>{0x1f, 0, 0xff}));
  EXPECT_EQ(ValueOf(registry, key, u"Qword").type, kRegQword);
  EXPECT_EQ(ValueOf(registry, key, u"Qword").data.size(), 8u);
  EXPECT_EQ(ValueOf(registry, key, u"ExpandHex").type, kRegExpandSz);
  EXPECT_EQ(ValueOf(registry, key, u"ExpandHex").data, test::Utf16LeBytes(u"%A%"));
  // Bytes as they stand: an odd count and no terminator.
  EXPECT_EQ(ValueOf(registry, key, u"OddHex").data, (std::vector<std::uint8_t>{0x41, 0, 0x42}));
  EXPECT_EQ(ValueOf(registry, key, u"Wrapped").data, (std::vector<std::uint8_t>{0, 1, 2, 3, 4, 5}));
  EXPECT_EQ(ValueOf(registry, key, u"Empty").data, test::Utf16LeBytes(u""));
  EXPECT_TRUE(ValueOf(registry, key, u"NoData").data.empty());
  EXPECT_EQ(TextOf(ValueOf(registry, key, u"Spaced")), u"x");
  EXPECT_EQ(TextOf(ValueOf(registry, key, u"Crlf")), u"y");

  WineRegistryValue absent;
  EXPECT_FALSE(FindWineValue(registry, key, u"time", absent));
  EXPECT_FALSE(FindWineValue(registry, key, u"Missing", absent));
  EXPECT_EQ(posix::WineKeyValues(registry, key).size(), 14u);
}

TEST(WineRegistryReader, EscapesAndNonAsciiSurviveTheRoundTrip) {
  const std::u16string awkward =
      u"back\\slash \"quoted\" tab\t nl\n bell\a esc\x1b ctl\x01"
      u"7 \x7f é1 é 日本 \U0001F600 ]";
  const std::u16string keyName = u"Caf\u00e9 [x] \"q\"";
  const auto registry = ParseWineRegistry(test::SystemRegFile(
      {{u"Software\\" + keyName, {test::SzValue(awkward, awkward), test::ExpandSzValue(u"hexform", awkward, true)}}}));

  EXPECT_EQ(WineSubkeyNames(registry, u"software"), std::vector<std::u16string>{keyName});
  EXPECT_EQ(TextOf(ValueOf(registry, u"Software\\CAF\u00c9 [X] \"Q\"", awkward)), awkward);
  EXPECT_EQ(TextOf(ValueOf(registry, u"Software\\" + keyName, u"HEXFORM")), awkward);

  // Forms Wine reads but does not write.
  const auto handMade = ParseWineRegistry(
      "WINE REGISTRY Version 2\n[K]\n"
      "\"a\"=\"\\x41\\x4a\\x \\101\\q\\\\\"\n"
      "\"b\"=\"\xc3\xa9 \xe6\x97\xa5 \xff\"\n"
      "\"c\"=str:\"plain\"\n"
      "\"d\"=str(1):\"typed\"\n");
  EXPECT_EQ(TextOf(ValueOf(handMade, u"k", u"a")), u"AJx Aq\\");
  EXPECT_EQ(TextOf(ValueOf(handMade, u"k", u"b")), u"é 日 \uFFFD");
  EXPECT_EQ(TextOf(ValueOf(handMade, u"k", u"c")), u"plain");
  EXPECT_EQ(ValueOf(handMade, u"k", u"d").type, kRegSz);
}

TEST(WineRegistryReader, KeysValuesAndBadLinesAsWineLoadsThem) {
  const auto registry = ParseWineRegistry(
      "WINE REGISTRY Version 2\n"
      "\"Orphan\"=\"before any key\"\n"
      "[A\\\\B\\\\C] 1\n"
      "\"V\"=\"c\"\n"
      "[K] 1\n"
      "\"V\"=\"1\"\n"
      "\"W\"=\"w\"\n"
      "\"X\"=\"good\"\n"
      "\"X\"=dword:zz\n"
      "\"X\"=hex:1ff\n"
      "\"X\"=hex:01,\\\n"
      "  zz\n"
      "\"Y\"=bogus:1\n"
      "garbage line\n"
      "[Bad\\\\\\\\Name] 1\n"
      "\"V\"=\"lost\"\n"
      "[Unterminated\n"
      "\"V\"=\"lost too\"\n"
      "[k] 2\n"
      "\"v\"=\"2\"\n");

  EXPECT_TRUE(WineKeyExists(registry, u""));
  EXPECT_TRUE(WineKeyExists(registry, u"a"));  // no header of its own
  EXPECT_TRUE(WineKeyExists(registry, u"A\\b"));
  EXPECT_TRUE(WineKeyExists(registry, u"a\\B\\c"));
  EXPECT_FALSE(WineKeyExists(registry, u"A\\B\\C\\D"));
  EXPECT_FALSE(WineKeyExists(registry, u"A\\BC"));
  EXPECT_FALSE(WineKeyExists(registry, u"Bad"));
  EXPECT_FALSE(WineKeyExists(registry, u"Unterminated"));

  // One key from both headers; the later value wins, bad lines are skipped.
  const auto values = posix::WineKeyValues(registry, u"K");
  ASSERT_EQ(values.size(), 3u);
  EXPECT_EQ(values[0].first, u"V");
  EXPECT_EQ(TextOf(values[0].second), u"2");
  EXPECT_EQ(TextOf(values[1].second), u"w");
  EXPECT_EQ(TextOf(values[2].second), u"good");
  EXPECT_EQ(WineSubkeyNames(registry, u""), (std::vector<std::u16string>{u"A", u"K"}));

  // Without Wine's first line the file holds nothing, as Wine refuses it.
  EXPECT_FALSE(WineKeyExists(ParseWineRegistry("WINE REGISTRY Version 1\n[K]\n"), u"K"));
  EXPECT_FALSE(WineKeyExists(ParseWineRegistry("[K]\n"), u"K"));
  EXPECT_TRUE(WineKeyExists(ParseWineRegistry("WINE REGISTRY Version 2\r\n[K] 1\r\n"), u"K"));
}

TEST(WineRegistryReader, KeysAddedAfterWinesOrderedRunAndEscapedNamesFindTheirPlace) {
  // Wine's ordered run, then keys added by hand at the end; plain names and
  // names with escapes in both parts.
  const auto registry = ParseWineRegistry(
      "WINE REGISTRY Version 2\n"
      "[Software\\\\A] 1\n"
      "\"V\"=\"a\"\n"
      "[Software\\\\C\\\\x\\x00c9] 1\n"
      "\"V\"=\"c-e\"\n"
      "[Software\\\\M] 1\n"
      "\"Bin\"=hex:01,\\\n"
      "  \"V\"=\"inside a broken hex value\"\n"
      "\"W\"=\"m\"\n"
      "[software\\\\b] 1\n"
      "\"V\"=\"b\"\n"
      "[Software\\\\C] 1\n"
      "\"V\"=\"c\"\n"
      "[Software\\\\A\\\\Deep] 1\n"
      "[Software\\\\A\\\\\xc3\xa9] 1\n"
      "[Software\\\\a] 2\n"
      "\"V\"=\"a2\"\n");
  std::vector<std::u16string> order;
  for (const auto& entry : registry.keys) order.push_back(posix::FoldedPath(registry, entry));
  EXPECT_EQ(order, (std::vector<std::u16string>{u"software\\a", u"software\\a", u"software\\a\\deep",
                                                u"software\\a\\é", u"software\\b", u"software\\c",
                                                u"software\\c\\xé", u"software\\m"}));
  EXPECT_EQ(WineSubkeyNames(registry, u"SOFTWARE"), (std::vector<std::u16string>{u"A", u"b", u"C", u"M"}));
  EXPECT_EQ(WineSubkeyNames(registry, u"software\\a"), (std::vector<std::u16string>{u"Deep", u"é"}));
  EXPECT_EQ(WineSubkeyNames(registry, u"Software\\C"), std::vector<std::u16string>{u"xÉ"});
  EXPECT_EQ(TextOf(ValueOf(registry, u"software\\A", u"v")), u"a2");  // the later header's value
  EXPECT_EQ(TextOf(ValueOf(registry, u"SOFTWARE\\B", u"V")), u"b");
  EXPECT_EQ(TextOf(ValueOf(registry, u"Software\\c\\XÉ", u"V")), u"c-e");
  EXPECT_TRUE(WineKeyExists(registry, u"software\\A\\DEEP"));
  EXPECT_TRUE(WineKeyExists(registry, u"software\\a\\É"));
  EXPECT_FALSE(WineKeyExists(registry, u"Software\\B\\Deep"));
  EXPECT_FALSE(WineKeyExists(registry, u"Software\\C\\x"));
  // A line inside a value's continuation is no value of its own, whichever
  // value is asked for.
  WineRegistryValue value;
  EXPECT_FALSE(FindWineValue(registry, u"Software\\M", u"V", value));
  EXPECT_FALSE(FindWineValue(registry, u"Software\\M", u"Bin", value));
  EXPECT_EQ(TextOf(ValueOf(registry, u"Software\\M", u"W")), u"m");
  EXPECT_EQ(posix::WineKeyValues(registry, u"Software\\M").size(), 1u);
}

TEST(WineRegistryReader, SubkeysComeInWineServersOrder) {
  // The order `reg query` printed for these keys added in this order.
  const std::vector<std::u16string> added = {u"zeta", u"a_b", u"aB", u"a", u"AA", u"b", u"a[",
                                             u"a^",   u"é",   u"Z",  u"ä", u"_x", u"a1"};
  std::vector<RegFileKey> keys;
  for (const auto& name : added) keys.push_back({u"Software\\T\\" + name, {}});
  keys.push_back({u"Software\\T\\AB\\below", {}});  // same key as "aB": its first spelling names it
  keys.push_back({u"Software\\T\\b!", {}});          // sorts between "b" and "b\..."
  keys.push_back({u"Software\\T\\b\\c", {}});
  const auto registry = ParseWineRegistry(test::UserRegFile(keys));
  EXPECT_EQ(WineSubkeyNames(registry, u"software\\t"),
            (std::vector<std::u16string>{u"_x", u"a", u"a1", u"a[", u"a^", u"a_b", u"AA", u"aB", u"b", u"b!", u"Z",
                                         u"zeta", u"ä", u"é"}));
  EXPECT_EQ(WineSubkeyNames(registry, u"SOFTWARE\\T\\AB"), std::vector<std::u16string>{u"below"});
  EXPECT_TRUE(WineSubkeyNames(registry, u"Software\\T\\a").empty());
  EXPECT_TRUE(WineSubkeyNames(registry, u"Nothing").empty());
}

TEST(WineRegistryReader, DamagedFilesNeverBreakTheReader) {
  const std::string good = test::SystemRegFile(
      {{u"Software\\Key é", {test::SzValue(u"n", u"v\\\"x"), test::BinaryValue(u"b", std::vector<std::uint8_t>(90, 7)),
                             test::DwordValue(u"d", 5)}},
       {u"Software\\Key é\\Sub", {test::ExpandSzValue(u"", u"%x%", true)}}});
  const auto exercise = [](const std::string& bytes) {
    const auto registry = ParseWineRegistry(bytes);
    WineRegistryValue value;
    for (const auto& entry : registry.keys) {
      posix::WineKeyValues(registry, FoldedPath(registry, entry));
      WineSubkeyNames(registry, FoldedPath(registry, entry));
    }
    FindWineValue(registry, u"Software\\Key é", u"b", value);
    WineSubkeyNames(registry, u"");
  };
  for (std::size_t length = 0; length <= good.size(); ++length) exercise(good.substr(0, length));

  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    std::string bytes = good;
    for (int flips = 0; flips < 8; ++flips) {
      bytes[random() % bytes.size()] = static_cast<char>("[]\\\"=,:\n\rx0(@#"[random() % 15]);
    }
    exercise(bytes);
  }
  exercise("WINE REGISTRY Version 2\n[" + std::string(1 << 20, '\\'));
  exercise("WINE REGISTRY Version 2\n[K]\n\"v\"=hex:" + std::string(1 << 20, '0') + "\n");
  exercise("WINE REGISTRY Version 2\n[K]\n\"v\"=\"\\x");
  exercise("WINE REGISTRY Version 2\n[K]\n\"v\"=hex:01,\\");
  exercise(std::string("WINE REGISTRY Version 2\n[\0]\n\"\0\"=\"\0\"", 34));
}

// ------------------------------------------------- the registry calls --

std::string LinuxUserName() {
  const struct passwd* entry = ::getpwuid(::getuid());
  return entry != nullptr ? entry->pw_name : "";
}

class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = std::make_unique<std::string>(old);
    if (value != nullptr) {
      ::setenv(name, value, 1);
    } else {
      ::unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (old_) {
      ::setenv(name_.c_str(), old_->c_str(), 1);
    } else {
      ::unsetenv(name_.c_str());
    }
  }

 private:
  std::string name_;
  std::unique_ptr<std::string> old_;
};

class PosixRegistry : public ::testing::Test {
 protected:
  void WriteSystemReg(const std::vector<RegFileKey>& keys) {
    test::WriteFile(dir_ / "system.reg", test::SystemRegFile(keys));
    LetReaderLookAgain();
  }
  void WriteUserReg(const std::vector<RegFileKey>& keys) {
    test::WriteFile(dir_ / "user.reg", test::UserRegFile(keys));
    LetReaderLookAgain();
  }
  // The reader looks at a file at most once a millisecond; a change is
  // certain to be seen by the calls made after that.
  static void LetReaderLookAgain() { std::this_thread::sleep_for(std::chrono::milliseconds(2)); }

  std::vector<std::u16string> Subkeys(RegKey key) {
    std::vector<std::u16string> names;
    for (std::uint32_t index = 0;; ++index) {
      WString name;
      std::int32_t result = RegEnumKeyExW(key, index, name, 512);
      if (result == static_cast<std::int32_t>(kErrorNoMoreItems)) break;
      EXPECT_EQ(result, 0);
      names.push_back(name);
    }
    return names;
  }

  std::int32_t Open(RegKey root, const std::u16string& path, std::uint32_t view, RegKey& key) {
    return RegOpenKeyExW(root, path, 0, kKeyRead | view, key);
  }

  // Subkeys of a path, or {"<error N>"} when it cannot be opened.
  std::vector<std::u16string> SubkeysOf(RegKey root, const std::u16string& path, std::uint32_t view) {
    RegKey key = 0;
    if (std::int32_t result = Open(root, path, view, key); result != 0) return {u"<error " + DecimalText(result) + u">"};
    auto names = Subkeys(key);
    EXPECT_EQ(RegCloseKey(key), 0);
    return names;
  }

  std::u16string StringValue(RegKey root, const std::u16string& path, const std::u16string& name, std::uint32_t view) {
    RegKey key = 0;
    if (Open(root, path, view, key) != 0) return u"<no key>";
    std::vector<std::uint8_t> buffer(65536, 0);
    std::uint32_t type = 0;
    std::uint32_t size = 65536;
    std::int32_t result = RegQueryValueExW(key, name, type, buffer.data(), size);
    RegCloseKey(key);
    if (result != 0) return u"<error " + DecimalText(result) + u">";
    WineRegistryValue value{type, {buffer.begin(), buffer.begin() + size}};
    return TextOf(value);
  }

  test::TempDir dir_;
  ScopedEnv prefix_{"WINEPREFIX", dir_.path().c_str()};
};

const std::u16string kUninstall = u"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall";

TEST_F(PosixRegistry, ViewsSubkeyOpensAndLinks) {
  const std::u16string profiles = u"Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
  WriteSystemReg({
      {kUninstall + u"\\{A}", {test::SzValue(u"DisplayName", u"64-bit")}},
      {u"Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\{B}",
       {test::SzValue(u"DisplayName", u"32-bit")}},
      {u"System\\Shared", {test::SzValue(u"V", u"same")}},
      {profiles + u"\\S-1-5-21-0-0-0-1000", {test::SzValue(u"ProfileImagePath", u"C:\\users\\me")}},
      {u"Software\\Wow6432Node\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList",
       {test::LinkValue(u"\\Registry\\Machine\\" + profiles)}, true},
      {u"Software\\LoopA", {test::LinkValue(u"\\Registry\\Machine\\Software\\LoopB")}, true},
      {u"Software\\LoopB", {test::LinkValue(u"\\REGISTRY\\MACHINE\\Software\\LoopA")}, true},
      {u"Software\\ToUser", {test::LinkValue(u"\\Registry\\User\\S-1-5-21-0-0-0-1000\\Software\\Mine")}, true},
  });
  WriteUserReg({{kUninstall + u"\\{U}", {test::SzValue(u"DisplayName", u"user")}},
                {u"Software\\Mine", {test::SzValue(u"V", u"mine")}}});

  EXPECT_EQ(SubkeysOf(kHkeyLocalMachine, kUninstall, kKeyWow64_64Key), std::vector<std::u16string>{u"{A}"});
  EXPECT_EQ(SubkeysOf(kHkeyLocalMachine, kUninstall, kKeyWow64_32Key), std::vector<std::u16string>{u"{B}"});
  EXPECT_EQ(SubkeysOf(kHkeyLocalMachine, u"SOFTWARE\\microsoft\\windows\\currentversion\\uninstall\\",
                      kKeyWow64_32Key),
            std::vector<std::u16string>{u"{B}"});
  EXPECT_EQ(StringValue(kHkeyLocalMachine, u"System\\Shared", u"V", kKeyWow64_32Key), u"same");
  EXPECT_EQ(SubkeysOf(kHkeyCurrentUser, kUninstall, kKeyWow64_32Key), std::vector<std::u16string>{u"{U}"});
  EXPECT_EQ(SubkeysOf(kHkeyCurrentUser, kUninstall, kKeyWow64_64Key), std::vector<std::u16string>{u"{U}"});

  // A subkey of an open key, in the view it was opened with.
  RegKey software = 0;
  ASSERT_EQ(Open(kHkeyLocalMachine, u"Software", kKeyWow64_32Key, software), 0);
  EXPECT_EQ(SubkeysOf(software, u"Microsoft\\Windows\\CurrentVersion\\Uninstall", kKeyWow64_32Key),
            std::vector<std::u16string>{u"{B}"});
  EXPECT_EQ(SubkeysOf(software, u"Microsoft\\Windows\\CurrentVersion\\Uninstall", kKeyWow64_64Key),
            std::vector<std::u16string>{u"{A}"});
  EXPECT_EQ(RegCloseKey(software), 0);
  EXPECT_EQ(RegCloseKey(software), static_cast<std::int32_t>(kErrorInvalidHandle));
  RegKey key = 0;
  EXPECT_EQ(Open(software, u"Microsoft", 0, key), static_cast<std::int32_t>(kErrorInvalidHandle));

  // Links lead to their target, also across files; a loop ends.
  EXPECT_EQ(StringValue(kHkeyLocalMachine, profiles + u"\\S-1-5-21-0-0-0-1000", u"ProfileImagePath", kKeyWow64_32Key),
            u"C:\\users\\me");
  EXPECT_EQ(StringValue(kHkeyLocalMachine, u"Software\\ToUser", u"V", 0), u"mine");
  EXPECT_EQ(Open(kHkeyLocalMachine, u"Software\\LoopA", 0, key), static_cast<std::int32_t>(kErrorFileNotFound));

  EXPECT_EQ(Open(kHkeyLocalMachine, u"Software\\Nothing", 0, key), static_cast<std::int32_t>(kErrorFileNotFound));
  EXPECT_EQ(Open(kHkeyLocalMachine, u"Software\\\\Microsoft", 0, key), static_cast<std::int32_t>(kErrorFileNotFound));
  EXPECT_EQ(Open(kHkeyCurrentUser, u"System", 0, key), static_cast<std::int32_t>(kErrorFileNotFound));
}

TEST_F(PosixRegistry, OpensBelowAnOpenKeyFollowItsLinkAndSeeARewrittenFile) {
  const auto target = test::LinkValue(u"\\Registry\\Machine\\Software\\Target");
  WriteSystemReg({{u"Software\\Target\\Sub", {test::SzValue(u"V", u"first")}}, {u"Software\\Link", {target}, true}});
  constexpr std::uint32_t kOpenLink = 0x8;
  RegKey link = 0;
  ASSERT_EQ(RegOpenKeyExW(kHkeyLocalMachine, u"Software\\Link", kOpenLink, kKeyRead, link), 0);
  EXPECT_TRUE(Subkeys(link).empty());  // the link key itself
  EXPECT_EQ(StringValue(link, u"Sub", u"V", 0), u"first");
  EXPECT_EQ(SubkeysOf(link, u"", 0), std::vector<std::u16string>{u"Sub"});

  // The file rewritten: what lies below the open key is looked up anew.
  WriteSystemReg({{u"Software\\Target\\Other", {test::SzValue(u"V", u"second")}}, {u"Software\\Link", {target}, true}});
  EXPECT_EQ(StringValue(link, u"Sub", u"V", 0), u"<no key>");
  EXPECT_EQ(StringValue(link, u"other", u"V", 0), u"second");
  WriteSystemReg({{u"Software\\Target\\Other", {test::SzValue(u"V", u"second")}}});
  RegKey key = 0;
  EXPECT_EQ(Open(link, u"Other", 0, key), static_cast<std::int32_t>(kErrorFileNotFound));
  EXPECT_EQ(RegCloseKey(link), 0);
}

TEST_F(PosixRegistry, PathValuesAreReadFromTheBytesTheQueryReports) {
  // Data without a terminator, of an odd length, a NUL inside, and a value
  // read after a longer one: nothing of another value or of the buffer shows.
  WriteSystemReg({{u"Software\\V",
                   {test::TypedValue(u"Long", kRegSz, test::Utf16LeBytes(std::u16string(300, u'L'))),
                    test::TypedValue(u"Unterminated", kRegSz, {'A', 0, 'B', 0}),
                    test::TypedValue(u"Odd", kRegSz, {'A', 0, 'B'}),
                    test::TypedValue(u"Inner", kRegSz, {'A', 0, 0, 0, 'B', 0}),
                    test::TypedValue(u"Expand", kRegExpandSz, {'%', 0, 'Q', 0, 'V', 0, '%', 0}),
                    test::DwordValue(u"Number", 7)}}});
  ScopedEnv variable("QV", "expanded");
  RegKey key = 0;
  ASSERT_EQ(Open(kHkeyLocalMachine, u"Software\\V", 0, key), 0);
  EXPECT_EQ(ReadRegistryPathValue(key, u"Long"), std::u16string(300, u'L'));
  EXPECT_EQ(ReadRegistryPathValue(key, u"Unterminated"), u"AB");
  EXPECT_EQ(ReadRegistryPathValue(key, u"Odd"), u"AB");
  EXPECT_EQ(ReadRegistryPathValue(key, u"Inner"), u"A");
  EXPECT_EQ(ReadRegistryPathValue(key, u"Expand"), u"expanded");
  EXPECT_EQ(ReadRegistryPathValue(key, u"Number"), u"");
  EXPECT_EQ(ReadRegistryPathValue(key, u"Missing"), u"");
  EXPECT_EQ(RegCloseKey(key), 0);
}

TEST_F(PosixRegistry, EnumerationEndsAndReportsLongNames) {
  std::vector<RegFileKey> keys;
  std::vector<std::u16string> expected;
  for (int i = 2999; i >= 0; --i) {
    std::u16string name = u"Entry" + DecimalText(static_cast<std::uint64_t>(i));
    keys.push_back({u"Software\\Many\\" + name, {}});
    expected.push_back(name);
  }
  std::sort(expected.begin(), expected.end());  // all one case: plain order
  keys.push_back({u"Software\\Ten\\0123456789", {}});
  WriteSystemReg(keys);

  EXPECT_EQ(SubkeysOf(kHkeyLocalMachine, u"Software\\Many", 0), expected);

  RegKey key = 0;
  ASSERT_EQ(Open(kHkeyLocalMachine, u"Software\\Ten", 0, key), 0);
  WString name = u"unchanged";
  EXPECT_EQ(RegEnumKeyExW(key, 0, name, 10), static_cast<std::int32_t>(kErrorMoreData));
  EXPECT_EQ(name, u"unchanged");
  EXPECT_EQ(RegEnumKeyExW(key, 0, name, 11), 0);
  EXPECT_EQ(name, u"0123456789");
  EXPECT_EQ(RegEnumKeyExW(key, 1, name, 512), static_cast<std::int32_t>(kErrorNoMoreItems));
  EXPECT_EQ(RegEnumKeyExW(key, 1000, name, 512), static_cast<std::int32_t>(kErrorNoMoreItems));
  RegCloseKey(key);
  EXPECT_EQ(SubkeysOf(kHkeyLocalMachine, u"", 0), std::vector<std::u16string>{u"Software"});
}

TEST_F(PosixRegistry, QueryReportsSizesAsWindowsDoes) {
  WriteSystemReg({{u"Software\\Values",
                   {test::SzValue(u"Text", u"abc"), test::SzValue(u"", u"default"),
                    test::BinaryValue(u"Fits", std::vector<std::uint8_t>(65536, 1)),
                    test::SzValue(u"TooLong", std::u16string(32768, u'x')),
                    test::ExpandSzValue(u"Odd", u"", true), test::DwordValue(u"Number", 0x01020304)}}});
  // An odd byte count with no terminator, as a program may store it.
  test::WriteFile(dir_ / "system.reg",
                  test::ReadFile(dir_ / "system.reg") + "\"Odd\"=hex(2):41,00,42\n");
  LetReaderLookAgain();
  RegKey key = 0;
  ASSERT_EQ(Open(kHkeyLocalMachine, u"Software\\Values", 0, key), 0);

  std::uint32_t type = 0;
  std::uint32_t size = 0;
  EXPECT_EQ(RegQueryValueExW(key, u"TEXT", type, nullptr, size), 0);
  EXPECT_EQ(type, kRegSz);
  EXPECT_EQ(size, 8u);
  std::vector<std::uint8_t> buffer(65536, 0xEE);
  size = 7;
  EXPECT_EQ(RegQueryValueExW(key, u"Text", type, buffer.data(), size), static_cast<std::int32_t>(kErrorMoreData));
  EXPECT_EQ(size, 8u);
  size = 65536;
  EXPECT_EQ(RegQueryValueExW(key, u"Text", type, buffer.data(), size), 0);
  std::vector<std::uint8_t> expected = test::Utf16LeBytes(u"abc");
  expected.push_back(0xEE);  // the buffer beyond the value is left alone
  EXPECT_EQ(std::vector<std::uint8_t>(buffer.begin(), buffer.begin() + 9), expected);

  size = 65536;
  EXPECT_EQ(RegQueryValueExW(key, u"", type, buffer.data(), size), 0);
  EXPECT_EQ(size, 16u);
  size = 65536;
  EXPECT_EQ(RegQueryValueExW(key, u"Fits", type, buffer.data(), size), 0);
  EXPECT_EQ(size, 65536u);
  size = 65536;
  EXPECT_EQ(RegQueryValueExW(key, u"TooLong", type, buffer.data(), size), static_cast<std::int32_t>(kErrorMoreData));
  EXPECT_EQ(size, 65538u);
  size = 65536;
  EXPECT_EQ(RegQueryValueExW(key, u"Odd", type, buffer.data(), size), 0);
  EXPECT_EQ(type, kRegExpandSz);
  EXPECT_EQ(size, 3u);
  size = 65536;
  EXPECT_EQ(RegQueryValueExW(key, u"Number", type, buffer.data(), size), 0);
  EXPECT_EQ(type, kRegDword);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(buffer[0], 0x04);

  size = 65536;
  EXPECT_EQ(RegQueryValueExW(key, u"Missing", type, buffer.data(), size),
            static_cast<std::int32_t>(kErrorFileNotFound));
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);
  EXPECT_EQ(RegQueryValueExW(0x1234, u"Text", type, buffer.data(), size),
            static_cast<std::int32_t>(kErrorInvalidHandle));
  RegCloseKey(key);
}

TEST_F(PosixRegistry, ChangedAndMissingFilesAreReadAgain) {
  const std::u16string path = u"Software\\Changing";
  WriteSystemReg({{path, {test::SzValue(u"V", u"one")}}});
  RegKey key = 0;
  ASSERT_EQ(Open(kHkeyLocalMachine, path, 0, key), 0);
  EXPECT_EQ(StringValue(key, u"", u"V", 0), u"one");

  // Same size and time, new file: Wine's server writes a new file and renames it.
  struct stat before {};
  ASSERT_EQ(::stat((dir_ / "system.reg").c_str(), &before), 0);
  test::WriteFile(dir_ / "next.reg", test::SystemRegFile({{path, {test::SzValue(u"V", u"two")}}}));
  const struct timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, (dir_ / "next.reg").c_str(), times, 0), 0);
  ASSERT_EQ(::rename((dir_ / "next.reg").c_str(), (dir_ / "system.reg").c_str()), 0);
  LetReaderLookAgain();
  EXPECT_EQ(StringValue(key, u"", u"V", 0), u"two");

  // The key stays open while the file is gone, and has nothing.
  ASSERT_EQ(::unlink((dir_ / "system.reg").c_str()), 0);
  LetReaderLookAgain();
  std::uint32_t type = 0;
  std::uint32_t size = 0;
  EXPECT_EQ(RegQueryValueExW(key, u"V", type, nullptr, size), static_cast<std::int32_t>(kErrorFileNotFound));
  EXPECT_TRUE(Subkeys(key).empty());
  EXPECT_EQ(RegCloseKey(key), 0);
  EXPECT_EQ(Open(kHkeyLocalMachine, u"Software", 0, key), static_cast<std::int32_t>(kErrorFileNotFound));
  EXPECT_TRUE(Subkeys(kHkeyLocalMachine).empty());
  WString sid;
  EXPECT_FALSE(posix::AccountSidFromUserReg(sid));
}

TEST_F(PosixRegistry, AccountSidComesFromUserReg) {
  WriteUserReg({});
  WString sid;
  ASSERT_TRUE(posix::AccountSidFromUserReg(sid));
  EXPECT_EQ(sid, u"S-1-5-21-0-0-0-1000");

  test::WriteFile(dir_ / "user.reg", test::WineRegText({}, u"\\User\\S-1-5-21-1-2-3-1001"));
  LetReaderLookAgain();
  ASSERT_TRUE(posix::AccountSidFromUserReg(sid));
  EXPECT_EQ(sid, u"S-1-5-21-1-2-3-1001");

  test::WriteFile(dir_ / "user.reg", test::WineRegText({}, u"REGISTRY\\Machine"));
  LetReaderLookAgain();
  EXPECT_FALSE(posix::AccountSidFromUserReg(sid));
}

TEST_F(PosixRegistry, ExpandsFromEnvironmentThenPrefix) {
  ScopedEnv variable("QV_REGISTRY_TEST_VAR", "from env");
  ScopedEnv drive("SystemDrive", nullptr);
  ScopedEnv profile("USERPROFILE", nullptr);
  ScopedEnv appData("APPDATA", nullptr);
  const auto expand = [](const std::u16string& source) {
    WString out = u"untouched";
    std::uint32_t needed = ExpandEnvironmentStringsW(source, out, 32768);
    EXPECT_EQ(needed, out.size() + 1) << WideToUtf8(source);
    return out;
  };
  const std::u16string user = Utf8ToWide(LinuxUserName());

  EXPECT_EQ(expand(u"%qv_registry_test_VAR%!"), u"from env!");
  EXPECT_EQ(expand(u"%SystemDrive%\\Users\\x"), u"C:\\Users\\x");
  EXPECT_EQ(expand(u"%USERPROFILE%"), u"C:\\users\\" + user);
  EXPECT_EQ(expand(u"%appdata%"), u"C:\\users\\" + user + u"\\AppData\\Roaming");
  EXPECT_EQ(expand(u"%ProgramFiles(x86)%"), u"C:\\Program Files (x86)");
  EXPECT_EQ(expand(u"%NO_SUCH_VARIABLE_QV%\\x"), u"%NO_SUCH_VARIABLE_QV%\\x");
  EXPECT_EQ(expand(u"%NO_SUCH_VARIABLE_QV%SystemDrive%"), u"%NO_SUCH_VARIABLE_QV%SystemDrive%");
  EXPECT_EQ(expand(u"100% and %%"), u"100% and %%");
  EXPECT_EQ(expand(u"%SystemDrive"), u"%SystemDrive");
  EXPECT_EQ(expand(u""), u"");
  EXPECT_EQ(expand(std::u16string(u"a\0%SystemDrive%", 15)), u"a");

  {
    ScopedEnv overridden("SYSTEMDRIVE", "D:");
    EXPECT_EQ(expand(u"%SystemDrive%"), u"D:");
  }

  WString out = u"untouched";
  EXPECT_EQ(ExpandEnvironmentStringsW(u"%SystemDrive%\\x", out, 4), 5u);
  EXPECT_EQ(out, u"untouched");
  EXPECT_EQ(ExpandEnvironmentStringsW(u"%SystemDrive%\\x", out, 5), 5u);
  EXPECT_EQ(out, u"C:\\x");
}

}  // namespace
}  // namespace qv::platform
