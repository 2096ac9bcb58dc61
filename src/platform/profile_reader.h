// Reading one value of an INI file the way GetPrivateProfileStringW does it
// under Wine, for the backends that cannot hand the question to the system:
// the Linux host always, the Windows build for a file whose path is too long
// for the system's profile calls. Pure functions over the file's bytes, and
// the one file a backend keeps while it stays unchanged on disk.
//
// The file's text:
// - FF FE starts UTF-16LE, FE FF UTF-16BE, EF BB BF UTF-8; anything else is
//   8-bit text in Windows-1252 (the code page Wine uses for an English or
//   C/POSIX host locale; the reader does not follow the host's locale).
//   Invalid UTF-8 becomes U+FFFD as Wine's decoder gives it; an odd last byte
//   of UTF-16 is dropped.
// - Lines end at CR or LF; blanks (TAB, LF, VT, FF, CR, space and the DOS end
//   of file 0x1A, nothing beyond) are removed at both ends of a line.
// - "[name]" opens a section: the name lies up to the line's last "]",
//   without blanks at its ends. Lines before the first header form a section
//   with the empty name. Only the first section of a name is looked at: a
//   later section of the same name is never searched.
// - Other lines are "key=value", split at the first "="; blanks around key and
//   value are removed. A line without "=" is a key without a value, which
//   gives the default. ";" starts no comment of its own: ";x=1" is the key
//   ";x", which no caller asks for.
// - Names and values end at their first NUL code unit.
// - Section and key compare with A-Z folded, nothing else.
// - A value enclosed in a pair of the same quote (" or ') loses them; the
//   default value loses its trailing spaces (keeping its first character)
//   and then any pair of quotes too.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/wstring.h"

namespace qv::platform::profile {

// GetPrivateProfileStringW over a file with these bytes, into a buffer of
// `size` characters: the value (cut to size - 1) or the default, and its
// length. A missing file reads as an empty one.
std::uint32_t ReadProfileString(std::string_view fileBytes, WStringView section, WStringView key,
                                WStringView defaultValue, WString& value, std::uint32_t size);

// A file's sections and keys, decoded once, for a file that is asked many
// questions. Names are kept folded; each section holds the first line of
// each of its keys.
struct ProfileIndex {
  struct Entry {
    bool hasValue = false;  // false for a line without "="
    WString value;
  };
  using Section = std::unordered_map<WString, Entry>;
  std::vector<Section> sections;  // [0] holds the lines before any header
  std::unordered_map<WString, std::size_t> named;  // first section of a name
};

ProfileIndex IndexProfile(std::string_view fileBytes);

// ReadProfileString answered from the index: the same answers.
std::uint32_t ReadProfileString(const ProfileIndex& index, WStringView section, WStringView key,
                                WStringView defaultValue, WString& value, std::uint32_t size);

// The answer when the file exists but cannot be opened, or its folder is
// missing: the default value without its trailing spaces, quotes kept.
std::uint32_t UnreadableProfileDefault(WStringView defaultValue, WString& value, std::uint32_t size);

// What tells one version of a file on disk from another: its name, the
// volume and file id, size and modification time as the backend reads them.
struct FileVersion {
  std::string name;
  std::uint64_t volume = 0;
  std::uint64_t file = 0;
  std::uint64_t size = 0;
  std::uint64_t modified = 0;
  bool operator==(const FileVersion&) const = default;
};

// The last profile file read, kept while the same file stays unchanged, so
// that reading many keys reads the file once and a rewritten file reads new.
// A file of up to 4 MiB is indexed; a larger one is searched line by line for
// each question, which keeps memory to the file's size.
class CachedProfile {
 public:
  bool Holds(const FileVersion& version) const { return valid_ && version_ == version; }
  void Store(const FileVersion& version, std::string bytes);
  void Clear();
  // ReadProfileString over the kept file.
  std::uint32_t Answer(WStringView section, WStringView key, WStringView defaultValue, WString& value,
                       std::uint32_t size) const;

 private:
  bool valid_ = false;
  FileVersion version_;
  bool indexed_ = false;
  ProfileIndex index_;  // when indexed
  std::string bytes_;   // otherwise
};

}  // namespace qv::platform::profile
