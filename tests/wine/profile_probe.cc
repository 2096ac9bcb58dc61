// Asks the Windows profile functions a list of questions and writes down the
// answers, so the project's own INI reader can be held against them.
//
//   profile_probe.exe DATA_DIR QUERIES OUTPUT
//
// QUERIES has one question per line: file, section, key, default value and
// buffer size, separated by tabs; the text fields take \uXXXX for any code
// unit and \\ for a backslash. Each file is DATA_DIR joined with its name.
// OUTPUT gets each question line followed by a tab, the return value, a tab
// and the code units placed in the buffer (see AppendUnits), one line each.
//
// Built with MinGW-w64 and run under Wine; one run answers every question.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::wstring Unescape(const std::string& field) {
  std::wstring out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 1 < field.size() && field[i + 1] == '\\') {
      out.push_back(L'\\');
      ++i;
    } else if (field[i] == '\\' && i + 5 < field.size() && field[i + 1] == 'u') {
      out.push_back(static_cast<wchar_t>(std::stoul(field.substr(i + 2, 4), nullptr, 16)));
      i += 5;
    } else {
      out.push_back(static_cast<unsigned char>(field[i]));
    }
  }
  return out;
}

std::vector<std::string> SplitTabs(const std::string& line) {
  std::vector<std::string> fields(1);
  for (char c : line) {
    if (c == '\t') {
      fields.emplace_back();
    } else {
      fields.back().push_back(c);
    }
  }
  return fields;
}

// Code units as four hex digits each, separated by blanks; a run of four or
// more equal units is written once with "*count" behind it.
void AppendUnits(std::string& out, const wchar_t* units, std::size_t count) {
  char text[32];
  for (std::size_t i = 0; i < count;) {
    std::size_t run = 1;
    while (i + run < count && units[i + run] == units[i]) ++run;
    if (!out.empty() && out.back() != '\t') out.push_back(' ');
    if (run >= 4) {
      std::snprintf(text, sizeof text, "%04X*%zu", static_cast<unsigned>(units[i]), run);
      i += run;
    } else {
      std::snprintf(text, sizeof text, "%04X", static_cast<unsigned>(units[i]));
      i += 1;
    }
    out += text;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: profile_probe DATA_DIR QUERIES OUTPUT\n");
    return 2;
  }
  std::wstring dataDir(argv[1], argv[1] + std::strlen(argv[1]));
  FILE* in = std::fopen(argv[2], "rb");
  FILE* out = std::fopen(argv[3], "wb");
  if (in == nullptr || out == nullptr) {
    std::fprintf(stderr, "cannot open the query or output file\n");
    return 2;
  }
  std::string content;
  char chunk[65536];
  for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, in)) > 0;) content.append(chunk, n);
  std::fclose(in);

  std::size_t start = 0;
  while (start < content.size()) {
    std::size_t end = content.find('\n', start);
    if (end == std::string::npos) end = content.size();
    std::string line = content.substr(start, end - start);
    start = end + 1;
    if (line.empty()) continue;
    std::vector<std::string> fields = SplitTabs(line);
    if (fields.size() != 5) {
      std::fprintf(stderr, "bad query line: %s\n", line.c_str());
      return 2;
    }
    std::wstring path = dataDir + L"\\" + Unescape(fields[0]);
    std::wstring section = Unescape(fields[1]);
    std::wstring key = Unescape(fields[2]);
    std::wstring defaultValue = Unescape(fields[3]);
    DWORD size = static_cast<DWORD>(std::stoul(fields[4]));

    // Sentinels behind the buffer show whether the call wrote past it.
    std::vector<wchar_t> buffer(size + 8, static_cast<wchar_t>(0xCCCC));
    DWORD result = GetPrivateProfileStringW(section.c_str(), key.c_str(), defaultValue.c_str(),
                                            buffer.data(), size, path.c_str());
    std::string answer = line + "\t" + std::to_string(result) + "\t";
    AppendUnits(answer, buffer.data(), result < size ? result : size);
    if (result < size && buffer[result] != 0) answer += " !noterm";
    for (DWORD i = size; i < size + 8; ++i) {
      if (buffer[i] != static_cast<wchar_t>(0xCCCC)) {
        answer += " !overrun";
        break;
      }
    }
    answer += "\n";
    std::fwrite(answer.data(), 1, answer.size(), out);
  }

  // The flush call that the inventory writer makes: its result and last error.
  std::wstring flushPath = dataDir + L"\\basic_utf16.ini";
  SetLastError(0);
  BOOL flushed = WritePrivateProfileStringW(nullptr, nullptr, nullptr, flushPath.c_str());
  std::fprintf(out, "#flush\t%d\t%lu\n", flushed ? 1 : 0, GetLastError());
  std::fclose(out);
  return 0;
}
