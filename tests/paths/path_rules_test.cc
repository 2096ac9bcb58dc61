#include "paths/path_rules.h"

#include <gtest/gtest.h>

namespace qv {
namespace {

TEST(PathRulesTest, JoinPathLooksOnlyAtATrailingBackslash) {
  EXPECT_EQ(JoinPath(u"", u"x\\y"), u"x\\y");
  EXPECT_EQ(JoinPath(u"C:\\", u"x"), u"C:\\x");
  EXPECT_EQ(JoinPath(u"C:/", u"x"), u"C:/\\x");
  EXPECT_EQ(JoinPath(u"C:", u"x"), u"C:\\x");
  // The relative part is taken as it stands: no test for absoluteness, no
  // collapsing of doubled separators.
  EXPECT_EQ(JoinPath(u"C:\\a", u"\\b"), u"C:\\a\\\\b");
  EXPECT_EQ(JoinPath(u"C:\\a", u"D:\\b"), u"C:\\a\\D:\\b");
  EXPECT_EQ(JoinPath(u"C:\\a", u""), u"C:\\a\\");
}

TEST(PathRulesTest, PathAppendKnowsRoots) {
  EXPECT_EQ(PathAppend(u"", u"x"), u"x");
  EXPECT_EQ(PathAppend(u"C:", u"x"), u"C:x");
  EXPECT_EQ(PathAppend(u"c:", u"x"), u"c:x");
  EXPECT_EQ(PathAppend(u"C:\\", u"x"), u"C:\\x");
  EXPECT_EQ(PathAppend(u"C:/", u"x"), u"C:/x");  // JoinPath gives C:/\x
  EXPECT_EQ(PathAppend(u"C:\\a", u"x\\y"), u"C:\\a\\x\\y");
  EXPECT_EQ(PathAppend(u"a", u"x"), u"a\\x");
  // A bare network or device root name gets a separator; a drive does not.
  EXPECT_EQ(PathAppend(u"\\\\host", u"share"), u"\\\\host\\share");
  EXPECT_EQ(PathAppend(u"\\\\host\\", u"share"), u"\\\\host\\share");
  EXPECT_EQ(PathAppend(u"\\\\?\\", u"C:"), u"\\\\?\\C:");
  EXPECT_EQ(PathAppend(u"\\\\?", u"x"), u"\\\\?\\x");
  // "1:" is no drive: the digit is no ASCII letter.
  EXPECT_EQ(PathAppend(u"1:", u"x"), u"1:\\x");
}

TEST(PathRulesTest, ParentPathLooksOnlyAtCharacters) {
  EXPECT_EQ(ParentPath(u"C:\\Tools"), u"C:");
  EXPECT_EQ(ParentPath(u"C:\\"), u"C:");
  EXPECT_EQ(ParentPath(u"C:\\a/b"), u"C:\\a");
  EXPECT_EQ(ParentPath(u"C:\\a\\"), u"C:\\a");
  EXPECT_EQ(ParentPath(u"Tools"), u"");
  EXPECT_EQ(ParentPath(u"\\Tools"), u"");
  EXPECT_EQ(ParentPath(u""), u"");
  EXPECT_EQ(ParentPath(u"\\\\host\\share"), u"\\\\host");
}

TEST(PathRulesTest, PathParentStopsAtEachKindOfRoot) {
  // Drives.
  EXPECT_EQ(PathParent(u"C:\\Tools"), u"C:\\");
  EXPECT_EQ(PathParent(u"C:\\Tools\\"), u"C:\\Tools");
  EXPECT_EQ(PathParent(u"C:\\a\\\\b"), u"C:\\a");
  EXPECT_EQ(PathParent(u"C:\\\\\\a"), u"C:\\\\\\");
  EXPECT_EQ(PathParent(u"C:\\"), u"C:\\");
  EXPECT_EQ(PathParent(u"C:"), u"C:");
  EXPECT_EQ(PathParent(u"C:/a/b"), u"C:/a");
  EXPECT_EQ(PathParent(u"C:a"), u"C:");
  // Network names.
  EXPECT_EQ(PathParent(u"\\\\host\\share\\x"), u"\\\\host\\share");
  EXPECT_EQ(PathParent(u"\\\\host\\share"), u"\\\\host\\");
  EXPECT_EQ(PathParent(u"\\\\host\\"), u"\\\\host\\");
  EXPECT_EQ(PathParent(u"\\\\host"), u"\\\\host");
  EXPECT_EQ(PathParent(u"//host/share"), u"//host/");
  // Device prefixes, either separator; the drive behind is part of the rest.
  EXPECT_EQ(PathParent(u"\\\\?\\C:\\x"), u"\\\\?\\C:");
  EXPECT_EQ(PathParent(u"\\\\?\\C:"), u"\\\\?\\");
  EXPECT_EQ(PathParent(u"\\??\\C:"), u"\\??\\");
  EXPECT_EQ(PathParent(u"/\\./COM1"), u"/\\./");
  // A separator behind the fourth character turns \\?\ into no device root.
  EXPECT_EQ(RootNameLength(u"\\\\?\\\\x"), 3u);  // network name "\\?"
  EXPECT_EQ(RootNameLength(u"\\??\\\\x"), 0u);
  EXPECT_EQ(RootNameLength(u"\\\\?\\"), 3u);
  // No root name.
  EXPECT_EQ(PathParent(u"Tools"), u"");
  EXPECT_EQ(PathParent(u"a\\b"), u"a");
  EXPECT_EQ(PathParent(u"\\Tools"), u"\\");
  EXPECT_EQ(PathParent(u"\\"), u"\\");
  EXPECT_EQ(PathParent(u""), u"");
  EXPECT_EQ(RootNameLength(u"\\\\\\x"), 0u);
}

TEST(PathRulesTest, FixedRelativePaths) {
  EXPECT_EQ(FusionApiRoot(u"C:\\R"), u"C:\\R\\Autodesk\\Autodesk Fusion 360\\API");
  EXPECT_EQ(AddInDirectory({u"C:\\F\\Fusion360.exe", u"C:\\R"}),
            u"C:\\R\\Autodesk\\Autodesk Fusion 360\\API\\AddIns\\KELDARO_Quorvane");
  EXPECT_EQ(AddInDirectory({u"", u"C:\\R\\"}), u"C:\\R\\Autodesk\\Autodesk Fusion 360\\API\\AddIns\\KELDARO_Quorvane");
  EXPECT_EQ(AddInDirectory({u"C:\\F\\Fusion360.exe", u""}), u"");
  EXPECT_EQ(InventoryPath(u"C:\\L"), u"C:\\L\\Quorvane\\Installation.ini");
}

TEST(PathRulesTest, OnlyAsciiLettersFold) {
  EXPECT_TRUE(SamePath(u"C:\\Tools", u"c:\\TOOLS"));
  EXPECT_FALSE(SamePath(u"C:\\Tools", u"C:\\Tools\\"));
  EXPECT_FALSE(SamePath(u"C:\\Tools", u"C:/Tools"));
  EXPECT_TRUE(SamePath(u"", u""));
  EXPECT_FALSE(SamePath(u"\u00d6l", u"\u00f6l"));   // Ö and ö
  EXPECT_FALSE(SamePath(u"\u0391", u"\u03b1"));     // Greek alpha
  EXPECT_TRUE(SamePath(u"x\U0001F600Y", u"X\U0001F600y"));
  // The characters just outside A-Z, and their lower-case neighbours.
  EXPECT_FALSE(SamePath(u"@[", u"`{"));

  EXPECT_EQ(ToLowerCopy(u"/STATUS"), u"/status");
  EXPECT_EQ(ToLowerCopy(u""), u"");
  EXPECT_EQ(ToLowerCopy(u"AZaz@[`{"), u"azaz@[`{");
  const WString others = u"\u00d6\u00c4\u0130\u0391\u0416\u212a\uff21";  // Ö Ä İ Α Ж Kelvin, full-width A
  EXPECT_EQ(ToLowerCopy(others), others);
  // Surrogate halves pass through unchanged, lone ones included, and the
  // length stays the same.
  const WString surrogates = u"A\U0001D400B" + WString(1, 0xD800) + u"C" + WString(1, 0xDC00);
  const WString lowered = ToLowerCopy(surrogates);
  ASSERT_EQ(lowered.size(), surrogates.size());
  EXPECT_EQ(lowered, u"a\U0001D400b" + WString(1, 0xD800) + u"c" + WString(1, 0xDC00));
}

TEST(PathRulesTest, CanonicalPathAcceptsOnlyDriveShapes) {
  EXPECT_EQ(CanonicalPath(u"C:"), u"");
  EXPECT_EQ(CanonicalPath(u""), u"");
  EXPECT_EQ(CanonicalPath(u"C:\\"), u"C:\\");
  EXPECT_EQ(CanonicalPath(u"C:/"), u"C:\\");
  EXPECT_EQ(CanonicalPath(u"c:/Users/user/"), u"c:\\Users\\user");
  EXPECT_EQ(CanonicalPath(u"C:\\a\\..\\b\\"), u"C:\\b");
  EXPECT_EQ(CanonicalPath(u"C:\\a\\.\\b\\\\"), u"C:\\a\\b");
  EXPECT_EQ(CanonicalPath(u"C:\\..\\.."), u"C:\\");
  // The case is kept, and nothing needs to exist.
  EXPECT_EQ(CanonicalPath(u"Q:\\No\\Such\\PLACE"), u"Q:\\No\\Such\\PLACE");

  EXPECT_EQ(CanonicalPath(u"C:x\\y"), u"");
  EXPECT_EQ(CanonicalPath(u"\\\\host\\share\\x"), u"");
  EXPECT_EQ(CanonicalPath(u"\\\\?\\C:\\x"), u"");
  EXPECT_EQ(CanonicalPath(u"\\x\\y"), u"");
  EXPECT_EQ(CanonicalPath(u"x\\y\\z"), u"");
  EXPECT_EQ(CanonicalPath(u"C:\\a\"b"), u"");
  EXPECT_EQ(CanonicalPath(u"C:\\a\n"), u"");
  EXPECT_EQ(CanonicalPath(u"C:\\a\rb"), u"");
  // Other control characters and non-ASCII text are left to the platform.
  EXPECT_EQ(CanonicalPath(u"C:\\\u00c4rger\\\U0001F600"), u"C:\\\u00c4rger\\\U0001F600");

  // The longest result that fits the 32768-character buffer with its
  // terminator has 32767 characters.
  WString longest = u"C:\\";
  while (longest.size() + 100 < 32767) longest += WString(99, u'a') + u"\\";
  longest += WString(32767 - longest.size(), u'b');
  ASSERT_EQ(longest.size(), 32767u);
  EXPECT_EQ(CanonicalPath(longest), longest);
  EXPECT_EQ(CanonicalPath(longest + u"a"), u"");
  // The length is judged before trailing separators go.
  EXPECT_EQ(CanonicalPath(longest + u"\\"), u"");
}

}  // namespace
}  // namespace qv
