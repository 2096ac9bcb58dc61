#!/usr/bin/env bash
# The shipped programs of each Windows build, Quorvane_Setup.exe and
# Quorvane_Kit.exe, as their PE headers and debug files show them:
# - imports: only KnownDLLs (Windows maps those from System32 whatever lies
#   beside the program), and of those only the functions listed in
#   imports-PROGRAM.txt beside this script; a line starting with "+" is
#   allowed only in a build with fault points;
# - ASLR with high-entropy addresses, NX, terminal-server aware, subsystem
#   version 6.0 or later;
# - no symbol table and no debug section, but a debug link to PROGRAM.exe.debug
#   in the build folder, with its checksum, which holds debug information;
# - the startup runtime's TLS callback among the loader's callbacks, code
#   that calls the stack check, and a checked string or memory call linked;
# - a manifest that asks for no elevation, declares long paths and Windows 10
#   and 11, and a version resource with the project's version.
#   pe_check.sh BUILD_FOLDER...
#   pe_check.sh --list PROGRAM.exe   (its imports, in the allow-list's form)
# A folder without the programs is passed over; none at all: skipped.
set -uo pipefail

objdump=x86_64-w64-mingw32-objdump objcopy=x86_64-w64-mingw32-objcopy windres=x86_64-w64-mingw32-windres
nm=x86_64-w64-mingw32-nm
# "dll function" for each imported function, DLL names in lower case.
imports() {
  $objdump -p "$1" | awk '/^\tDLL Name: / { dll = tolower($3) } /^\t[ 0-9a-f]+\t +[0-9]+ / { print dll, $NF }'
}
if [ "${1:-}" = --list ]; then
  imports "$2" | sort
  exit
fi

# The KnownDLLs of Windows 10 and 11 (Session Manager\KnownDLLs).
known=" advapi32 clbcatq combase comdlg32 coml2 difxapi gdi32 gdiplus imagehlp imm32 kernel32 msctf msvcrt
  normaliz nsi ole32 oleaut32 psapi rpcrt4 sechost setupapi shcore shell32 shlwapi user32 wldap32 ws2_32 "
lists=$(dirname "$0")
checked=() failed=0
fail() { echo "FAIL $exe: $*"; failed=1; }

for build in "$@"; do
  cache=$build/CMakeCache.txt
  version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$cache" 2>/dev/null)
  allowed='^[a-z]'
  grep -q '^QUORVANE_FAULT_INJECTION:BOOL=ON$' "$cache" 2>/dev/null && allowed='^\+?[a-z]'
  for program in Quorvane_Setup Quorvane_Kit; do
    exe=$build/$program.exe debug=$build/$program.exe.debug
    [ -f "$exe" ] || continue
    checked+=("$exe")
    headers=$($objdump -p "$exe") || { fail "not a PE image"; continue; }
    for dll in $(sed -n 's/^\tDLL Name: //p' <<<"$headers" | tr '[:upper:]' '[:lower:]'); do
      [[ $known == *[[:space:]]${dll%.dll}[[:space:]]* ]] || fail "imports $dll, which is not a KnownDLL"
    done
    while read -r import; do
      fail "imports $import, which $lists/imports-$program.txt does not list"
    done < <(imports "$exe" | sort | comm -23 - <(grep -E "$allowed" "$lists/imports-$program.txt" | tr -d + | sort))
    for flag in HIGH_ENTROPY_VA DYNAMIC_BASE NX_COMPAT TERMINAL_SERVICE_AWARE; do
      grep -Eq "^[[:space:]]+$flag\$" <<<"$headers" || fail "is not marked $flag"
    done
    subsystem=$(awk '$1 == "MajorSubsystemVersion" { print $2 }' <<<"$headers")
    [ "${subsystem:-0}" -ge 6 ] || fail "declares subsystem version $subsystem"
    [[ $($objdump -h "$exe") != *" .debug_"* ]] || fail "carries debug sections"
    [[ $($objdump -t "$exe") != *$'\n['* ]] || fail "carries a symbol table"
    # The link: the debug file's name, padding to 4 bytes, its CRC-32 (which
    # is the gzip trailer's, in the same byte order).
    link=$(mktemp) copy=$(mktemp) name=$program.exe.debug
    $objcopy --dump-section .gnu_debuglink="$link" "$exe" "$copy" 2>/dev/null || fail "has no debug link"
    crc=$(gzip -c "$debug" 2>/dev/null | tail -c 8 | head -c 4 | od -An -tx1)
    cmp -s -n $((${#name} + 1)) <(printf '%s\0' "$name") "$link" && [ "$(tail -c 4 "$link" | od -An -tx1)" = "$crc" ] ||
      fail "does not link to $debug"
    rm -f "$link" "$copy"
    [[ $($objdump -h "$debug" 2>/dev/null) == *" .debug_info "* ]] || fail "has no debug information beside it"
    # From the debug file's symbols: the startup callback lies among the TLS
    # callbacks (between __xl_a and __xl_z), the stack check is called, and a
    # __*_chk function of the checked calls is linked.
    symbols=$($nm "$debug" 2>/dev/null)
    address() { awk -v name="$1" '$3 == name { print $1 }' <<<"$symbols"; }
    first=$(address __xl_a) callback=$(address _ZL25quorvane_startup_callback) last=$(address __xl_z)
    [ -n "$callback" ] && [[ $first < $callback && $callback < $last ]] ||
      fail "does not run the startup runtime's TLS callback"
    check=$(address __stack_chk_fail)
    calls=$($objdump -d --no-show-raw-insn "$exe" | grep -cE "(call|jmp) +0x0*$(sed 's/^0*//' <<<"$check")\$")
    [ -n "$check" ] && [ "$calls" -gt 0 ] || fail "has no code that checks its stack guard"
    grep -Eq ' T __[a-z]+_chk$' <<<"$symbols" || fail "links no checked string or memory call (__*_chk)"
    # The resources, which windres gives back as rc text, strings split over
    # lines and quotes doubled: run as the invoker, long-path aware, made for
    # Windows 10; the version resource with the project's version.
    resources=$($windres -i "$exe" -O rc 2>/dev/null | sed -z 's/"[[:space:]]*\n[[:space:]]*"//g; s/""/"/g')
    for declaration in '<requestedExecutionLevel level="asInvoker" uiAccess="false"/>' \
      '<longPathAware xmlns="http://schemas.microsoft.com/SMI/2016/WindowsSettings">true<' \
      '<supportedOS Id="{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}"/>' " FILEVERSION ${version//./, }, 0" \
      "VALUE \"FileVersion\", \"$version\"" "VALUE \"ProductVersion\", \"$version\"" \
      'VALUE "ProductName", "Quorvane"' "VALUE \"OriginalFilename\", \"$program.exe\""; do
      [[ -n $version && $resources == *"$declaration"* ]] || fail "does not declare $declaration"
    done
  done
done

[ ${#checked[@]} -gt 0 ] || { echo "No Windows build: build the windows or windows-dev preset"; exit 77; }
[ $failed -eq 0 ] && echo "Checked: ${checked[*]}"
exit $failed
