// The path rules, one row per answer. JoinPath and ParentPath look only at
// characters; PathAppend and PathParent know the kinds of roots.
#include "paths/path_rules.h"

#include <gtest/gtest.h>

#include <string>

namespace qv {
namespace {

WString Apply(const std::string& rule, const WString& path, const WString& element) {
  if (rule == "join") return JoinPath(path, element);
  if (rule == "append") return PathAppend(path, element);
  if (rule == "parent") return ParentPath(path);
  if (rule == "Parent") return PathParent(path);
  if (rule == "root") return DecimalText(RootNameLength(path));
  if (rule == "canonical") return CanonicalPath(path);
  if (rule == "lower") return ToLowerCopy(path);
  return SamePath(path, element) ? u"same" : u"different";
}

TEST(PathRules, EachRuleAnswersItsTable) {
  const WString lone = WString(1, 0xD800);
  const struct { std::string rule; WString path, element, expected; } rows[] = {
      {"join", u"C:/", u"x", u"C:/\\x"}, {"join", u"C:\\a", u"\\b", u"C:\\a\\\\b"}, {"append", u"", u"x", u"x"},
      {"append", u"C:", u"x", u"C:x"}, {"append", u"C:/", u"x", u"C:/x"}, {"append", u"a", u"x", u"a\\x"},
      {"append", u"\\\\host", u"share", u"\\\\host\\share"}, {"append", u"\\\\host\\", u"share", u"\\\\host\\share"},
      {"append", u"\\\\?\\", u"C:", u"\\\\?\\C:"}, {"append", u"\\\\?", u"x", u"\\\\?\\x"},
      {"append", u"1:", u"x", u"1:\\x"}, {"parent", u"C:\\a/b", u"", u"C:\\a"}, {"parent", u"Tools", u"", u""},
      {"Parent", u"C:\\Tools", u"", u"C:\\"}, {"Parent", u"C:\\Tools\\", u"", u"C:\\Tools"},
      {"Parent", u"C:\\a\\\\b", u"", u"C:\\a"}, {"Parent", u"C:\\\\\\a", u"", u"C:\\\\\\"},
      {"Parent", u"C:\\", u"", u"C:\\"}, {"Parent", u"C:", u"", u"C:"}, {"Parent", u"C:a", u"", u"C:"},
      {"Parent", u"\\\\host\\share\\x", u"", u"\\\\host\\share"}, {"Parent", u"\\\\host\\share", u"", u"\\\\host\\"},
      {"Parent", u"//host/share", u"", u"//host/"}, {"Parent", u"\\\\?\\C:\\x", u"", u"\\\\?\\C:"},
      {"Parent", u"\\\\?\\C:", u"", u"\\\\?\\"}, {"Parent", u"\\??\\C:", u"", u"\\??\\"},
      {"Parent", u"/\\./COM1", u"", u"/\\./"}, {"Parent", u"a\\b", u"", u"a"}, {"Parent", u"Tools", u"", u""},
      {"Parent", u"\\Tools", u"", u"\\"},
      // A separator behind the fourth character makes \\?\ no device root.
      {"root", u"\\\\?\\\\x", u"", u"3"}, {"root", u"\\??\\\\x", u"", u"0"}, {"root", u"\\\\\\x", u"", u"0"},
      {"canonical", u"C:\\", u"", u"C:\\"}, {"canonical", u"c:/Users/user/", u"", u"c:\\Users\\user"},
      {"canonical", u"C:\\a\\..\\b\\", u"", u"C:\\b"}, {"canonical", u"C:\\a\\.\\b\\\\", u"", u"C:\\a\\b"},
      {"canonical", u"C:\\..\\..", u"", u"C:\\"}, {"canonical", u"Q:\\No\\Such\\PLACE", u"", u"Q:\\No\\Such\\PLACE"},
      {"canonical", u"C:\\\u00c4rger\\\U0001F600", u"", u"C:\\\u00c4rger\\\U0001F600"}, {"canonical", u"C:", u"", u""},
      {"canonical", u"C:x\\y", u"", u""}, {"canonical", u"\\\\host\\share\\x", u"", u""},
      {"canonical", u"\\\\?\\C:\\x", u"", u""}, {"canonical", u"x\\y", u"", u""}, {"canonical", u"C:\\a\"b", u"", u""},
      {"canonical", u"C:\\a\n", u"", u""}, {"canonical", u"C:\\a\rb", u"", u""},
      // Only A-Z fold: not the characters beside them, nothing outside ASCII.
      {"same", u"C:\\Tools", u"c:\\TOOLS", u"same"}, {"same", u"C:\\Tools", u"C:/Tools", u"different"},
      {"same", u"\u00d6l", u"\u00f6l", u"different"}, {"same", u"@[", u"`{", u"different"},
      {"same", u"x\U0001F600Y", u"X\U0001F600y", u"same"},
      {"lower", u"AZaz@[`{\u00d6\u0130\u0391\u212a\uff21", u"", u"azaz@[`{\u00d6\u0130\u0391\u212a\uff21"},
      {"lower", u"A\U0001D400B" + lone + u"C", u"", u"a\U0001D400b" + lone + u"c"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Apply(row.rule, row.path, row.element), row.expected) << row.rule << " " << WideToUtf8(row.path);
  }

  // The longest canonical path fits the 32768-character buffer with its
  // terminator; the length is judged before trailing separators go.
  WString longest = u"C:\\";
  while (longest.size() + 100 < 32767) longest += WString(99, u'a') + u"\\";
  longest += WString(32767 - longest.size(), u'b');
  EXPECT_EQ(CanonicalPath(longest), longest);
  EXPECT_EQ(CanonicalPath(longest + u"a"), u"");
  EXPECT_EQ(CanonicalPath(longest + u"\\"), u"");
}

}  // namespace
}  // namespace qv
