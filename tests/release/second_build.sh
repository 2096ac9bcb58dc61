#!/usr/bin/env bash
# A second build of the windows preset, from a copy of the tracked files in
# another folder, must give the bytes of build/windows: Quorvane_Setup.exe
# and the administrators' archive (which holds no debug information). Then
# the same build folder, configured with a throwaway code-signing
# certificate, signs: osslsigncode accepts the signature against that
# certificate, removing it gives back exactly the unsigned .exe, and the
# signed .exe runs /status under Wine as the unsigned one does, in
# WINE_PREFIX, started by STARTER (as_test_account.sh and its folder).
#   second_build.sh SOURCE_DIR WORK_DIR ARCHIVE_NAME [WINE_PREFIX [STARTER...]]
set -euo pipefail
source=$1 work=$2 name=$3 prefix=${4:-} starter=("${@:5}")
first=$source/build/windows copy=$work/source second=$work/source/build/windows keys=$work/keys signed=$work/signed.exe
[ -f "$first/$name.zip" ] || { echo "No $first/$name.zip: build the windows preset's package first"; exit 77; }
fail() { echo "$*"; exit 1; }

# The archive's dates: those of the first build, which read the last commit.
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$source" log -1 --format=%ct)}
# A fresh copy beside the build folder kept from an earlier run.
mkdir -p "$copy" "$keys" && find "$copy" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} +
git -C "$source" ls-files -z | (cd "$source" && tar --null -T - -cf -) | tar -xf - -C "$copy"
build() {
  (cd "$copy" && cmake --preset windows "$@" && cmake --build --preset windows --target package) >"$work/build.log" ||
    { tail -n 40 "$work/build.log"; fail "The second build failed"; }
}

build -DQUORVANE_SIGN_PKCS12= -DQUORVANE_SIGN_PASSWORD_FILE=
for file in Quorvane_Setup.exe "$name.zip"; do
  cmp "$first/$file" "$second/$file" || fail "Two builds of one commit differ: $file"
done
! unzip -l "$second/$name.zip" | grep '\.debug' || fail "The archive holds debug information"
echo "Reproduced: Quorvane_Setup.exe, $name.zip"

openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "/CN=Quorvane throwaway signer" \
  -addext keyUsage=critical,digitalSignature -addext extendedKeyUsage=codeSigning \
  -keyout "$keys/key.pem" -out "$keys/cert.pem" 2>/dev/null
openssl rand -hex 16 >"$keys/password"
openssl pkcs12 -export -inkey "$keys/key.pem" -in "$keys/cert.pem" -passout "file:$keys/password" -out "$keys/p12"
build -DQUORVANE_SIGN_PKCS12="$keys/p12" -DQUORVANE_SIGN_PASSWORD_FILE="$keys/password"
unzip -p "$second/$name.zip" "$name/Quorvane_Setup.exe" >"$signed"
osslsigncode verify -CAfile "$keys/cert.pem" -in "$signed" >"$work/verify.log" ||
  { cat "$work/verify.log"; fail "The signature does not verify"; }
rm -f "$work/unsigned.exe" && osslsigncode remove-signature -in "$signed" -out "$work/unsigned.exe" >/dev/null
cmp "$work/unsigned.exe" "$first/Quorvane_Setup.exe" || fail "Removing the signature changes the .exe"
echo "Signed: the signature verifies, and removing it gives back the unsigned .exe"

[ -x /usr/lib/wine/wine64 ] && [ -f "$prefix/system.reg" ] || { echo "No Wine prefix: /status not run"; exit 77; }
folders=$prefix/drive_c/signed-status run=0
for exe in "$signed" "$first/Quorvane_Setup.exe"; do
  run=$((run + 1))
  "${starter[@]}" sh -c 'rm -rf "$0" && mkdir -p "$0/roaming" "$0/local"' "$folders"
  "${starter[@]}" env WINEPREFIX="$prefix" WINEDEBUG=-all /usr/lib/wine/wine64 "$exe" /status \
    /test-appdata 'C:\signed-status\roaming' /test-localappdata 'C:\signed-status\local' </dev/null \
    >"$work/status$run" 2>&1 || echo "exit code $?" >>"$work/status$run"
done
[ -s "$work/status1" ] && cmp "$work/status1" "$work/status2" || fail "The signed .exe runs otherwise: $(cat "$work"/status*)"
