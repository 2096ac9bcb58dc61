// Fuzzes the path rules with arbitrary UTF-16 text: CanonicalPath (and the
// full-path normalisation under it), the joins and parents. None may crash,
// and the canonical form must keep its promises.
#include <cstdint>
#include <cstdlib>

#include "paths/path_rules.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qv::WString text;
  for (std::size_t i = 0; i + 1 < size; i += 2) text.push_back(static_cast<char16_t>(data[i] | (data[i + 1] << 8)));
  const qv::WString canonical = qv::CanonicalPath(text);
  if (!canonical.empty()) {
    // A canonical path has a drive, no forward slash, no trailing separator
    // but at a root, and none of the three forbidden characters. Taken again
    // it is still accepted; it may lose more trailing dots or blanks (a last
    // element "a.." that stood before a separator), but never grows.
    if (canonical.size() < 3 || canonical[1] != u':' || canonical[2] != u'\\') std::abort();
    if (canonical.find(u'/') != qv::WString::npos) std::abort();
    if (canonical.size() > 3 && canonical.back() == u'\\') std::abort();
    if (canonical.find_first_of(u"\"\r\n") != qv::WString::npos) std::abort();
    const qv::WString again = qv::CanonicalPath(canonical);
    if (again.empty() || again.size() > canonical.size() || canonical.compare(0, again.size(), again) != 0) {
      std::abort();
    }
  }
  const qv::WString lower = qv::ToLowerCopy(text);
  if (lower.size() != text.size() || !qv::SamePath(lower, text)) std::abort();
  (void)qv::PathParent(text);
  (void)qv::ParentPath(text);
  (void)qv::PathAppend(text, u"x");
  (void)qv::JoinPath(text, u"x");
  return 0;
}
