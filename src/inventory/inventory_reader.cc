#include <limits>

#include "inventory/inventory.h"
#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {

namespace {

// The profile reader's buffer; a value that fills it but for the terminator
// cannot be told from a cut one.
constexpr std::uint32_t kValueBuffer = platform::kLongPathBuffer;

bool IsBlank(WChar c) { return c == u' ' || (c >= u'\t' && c <= u'\r'); }

// Unsigned 32-bit decimal conversion as the C library's wcstoul does it:
// leading white space, one optional sign, digits up to the first other
// character; a value beyond 32 bits gives the largest one, and a minus sign
// negates modulo 2^32. `end` is where the conversion stopped: the start of
// the text when no digit was read.
std::uint32_t ConvertUnsigned(const WString& text, std::size_t& end) {
  std::size_t i = 0;
  while (i < text.size() && IsBlank(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == u'+' || text[i] == u'-')) {
    negative = text[i] == u'-';
    ++i;
  }
  const std::size_t digitsStart = i;
  constexpr std::uint32_t kMax = std::numeric_limits<std::uint32_t>::max();
  std::uint32_t value = 0;
  bool overflow = false;
  for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i) {
    const std::uint32_t digit = static_cast<std::uint32_t>(text[i] - u'0');
    if (value > (kMax - digit) / 10) overflow = true;
    value = value * 10 + digit;
  }
  if (i == digitsStart) {
    end = 0;
    return 0;
  }
  end = i;
  if (overflow) return kMax;
  return negative ? static_cast<std::uint32_t>(0u - value) : value;
}

}  // namespace

WString ReadIniValue(const WString& path, const WString& key) {
  WString value;
  const std::uint32_t length = platform::GetPrivateProfileStringW(u"Fusion", key, u"", value, kValueBuffer, path);
  // A cut value is never handed on.
  if (length >= kValueBuffer - 1) return {};
  if (value.size() > length) value.resize(length);
  return value;
}

bool LoadInventory(const WString& localAppData, FusionInstallationList& saved, WString& error) {
  const WString path = InventoryPath(localAppData);
  // No file, a folder of that name, or a path that cannot be examined: no
  // inventory yet.
  const std::uint32_t attributes = platform::GetFileAttributesW(path);
  if (attributes == platform::kInvalidFileAttributes || (attributes & platform::kFileAttributeDirectory) != 0) {
    return true;
  }

  const WString countText = ReadIniValue(path, u"Count");
  std::size_t end = 0;
  const std::uint32_t count = ConvertUnsigned(countText, end);
  if (countText.empty() || end != countText.size() || count > kInventoryLimit) {
    error = u"Invalid saved Fusion installation list.";
    return false;
  }

  for (std::uint32_t i = 0; i < count; ++i) {
    const WString index = DecimalText(i);
    FusionInstallation record;
    record.executable = CanonicalPath(ReadIniValue(path, u"Executable" + index));
    record.appData = CanonicalPath(ReadIniValue(path, u"AppData" + index));
    if (record.executable.empty() || record.appData.empty()) {
      error = u"Incomplete saved Fusion installation list.";
      return false;
    }
    saved.push_back(record);
  }
  return true;
}

}  // namespace qv
