#!/usr/bin/env bash
# The shipped .exe of each Windows build as its PE headers show it: only
# KnownDLLs in the import table (Windows maps those from System32 whatever
# lies beside the program); ASLR with high-entropy addresses, NX, terminal-
# server aware, subsystem version 6.0 or later; no symbol table and no debug
# section, but a debug link to the debug information kept in the build
# folder, with its checksum; the stack protector and the checked string and
# memory calls linked in; a manifest that asks for no elevation and
# declares long paths.
#   pe_check.sh BUILD_FOLDER...
# A folder without Quorvane_Setup.exe is passed over; none at all: skipped.
set -uo pipefail

# The KnownDLLs of Windows 10 and 11 (Session Manager\KnownDLLs).
known=" advapi32 clbcatq combase comdlg32 coml2 difxapi gdi32 gdiplus imagehlp imm32 kernel32 msctf msvcrt
  normaliz nsi ole32 oleaut32 psapi rpcrt4 sechost setupapi shcore shell32 shlwapi user32 wldap32 ws2_32 "
objdump=x86_64-w64-mingw32-objdump objcopy=x86_64-w64-mingw32-objcopy windres=x86_64-w64-mingw32-windres
checked=() failed=0
fail() { echo "FAIL $exe: $*"; failed=1; }

for build in "$@"; do
  exe=$build/Quorvane_Setup.exe
  [ -f "$exe" ] || continue
  checked+=("$exe")
  headers=$($objdump -p "$exe") || { fail "not a PE image"; continue; }
  for dll in $(sed -n 's/^\tDLL Name: //p' <<<"$headers" | tr '[:upper:]' '[:lower:]'); do
    [[ $known == *[[:space:]]${dll%.dll}[[:space:]]* ]] || fail "imports $dll, which is not a KnownDLL"
  done
  for flag in HIGH_ENTROPY_VA DYNAMIC_BASE NX_COMPAT TERMINAL_SERVICE_AWARE; do
    grep -Eq "^[[:space:]]+$flag\$" <<<"$headers" || fail "is not marked $flag"
  done
  subsystem=$(awk '$1 == "MajorSubsystemVersion" { print $2 }' <<<"$headers")
  [ "${subsystem:-0}" -ge 6 ] || fail "declares subsystem version $subsystem"
  [[ $($objdump -h "$exe") != *" .debug_"* ]] || fail "carries debug sections"
  [[ $($objdump -t "$exe") != *$'\n['* ]] || fail "carries a symbol table"
  # The link: the debug file's name, padding to 4 bytes, its CRC-32 (which
  # is the gzip trailer's, in the same byte order).
  link=$(mktemp) copy=$(mktemp)
  $objcopy --dump-section .gnu_debuglink="$link" "$exe" "$copy" 2>/dev/null || fail "has no debug link"
  crc=$(gzip -c "$build/Quorvane_Setup.exe.debug" 2>/dev/null | tail -c 8 | head -c 4 | od -An -tx1)
  cmp -s -n 25 <(printf 'Quorvane_Setup.exe.debug\0') "$link" && [ "$(tail -c 4 "$link" | od -An -tx1)" = "$crc" ] ||
    fail "does not link to $build/Quorvane_Setup.exe.debug"
  rm -f "$link" "$copy"
  [[ $($objdump -h "$build/Quorvane_Setup.exe.debug") == *" .debug_info "* ]] || fail "has no debug information beside it"
  # The manifest, which windres gives back as rc strings split over lines,
  # quotes doubled: run as the invoker, long-path aware, made for Windows 10.
  manifest=$($windres -i "$exe" -O rc 2>/dev/null | sed -z 's/"[[:space:]]*\n[[:space:]]*"//g; s/""/"/g')
  for declaration in '<requestedExecutionLevel level="asInvoker" uiAccess="false"/>' \
    '<longPathAware xmlns="http://schemas.microsoft.com/SMI/2016/WindowsSettings">true<' \
    '<supportedOS Id="{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}"/>'; do
    [[ $manifest == *"$declaration"* ]] || fail "does not declare $declaration"
  done
  grep -aq 'stack smashing detected' "$exe" || fail "has no stack protector"
  grep -aq 'buffer overflow detected' "$exe" || fail "has no checked string and memory calls"
done

[ ${#checked[@]} -gt 0 ] || { echo "No Windows build: build the windows or windows-dev preset"; exit 77; }
[ $failed -eq 0 ] && echo "Checked: ${checked[*]}"
exit $failed
