// The answers of Wine's GetPrivateProfileStringW as the profile command of tests/wine/wine_probe.cc
// writes them, and their check against the INI reader of the Linux host.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/wstring.h"

namespace qv::test {

// One question and its answer: a line of the probe's output.
struct ProfileAnswer {
  std::string line;  // the question as written, for messages
  std::string file;  // relative to the folder of the INI files
  WString section, key, defaultValue;
  std::uint32_t size = 0;
  std::uint32_t result = 0;
  WString value;  // what was placed in the buffer
};

// Lines "file, section, key, default, size, result, units" separated by tabs,
// the units four hex digits each, separated by blanks, a run of four or more
// equal ones as "XXXX*count"; "#" lines are skipped. A malformed line fails
// the running test.
std::vector<ProfileAnswer> ParseProfileAnswers(const std::string& text);

// Asks the seam's GetPrivateProfileStringW each question against the files of
// the host folder `folder` and expects the same answers. $WINEPREFIX must
// reach the folder through its drive map.
void ExpectSameProfileAnswers(const std::vector<ProfileAnswer>& answers, const std::string& folder);

}  // namespace qv::test
