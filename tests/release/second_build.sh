#!/usr/bin/env bash
# A second build of the windows preset, from a copy of the tracked files in
# another folder, must give the bytes of build/windows: both programs and the
# administrators' archive (which holds no debug information). Then the same
# build folder signs, with a throwaway code-signing certificate and without
# a time stamp (no network here): once through a signer command template
# that signs each program in place, once through the PKCS#12 route. Each
# time osslsigncode accepts both programs' signatures against that
# certificate, the archive holds the signed programs, and removing a
# signature gives back exactly the unsigned program. A build stops that
# would sign without a time-stamp server and without the waiver, or whose
# signer leaves a program unsigned or without a time stamp.
#   second_build.sh SOURCE_DIR WORK_DIR ARCHIVE_NAME
set -euo pipefail
source=$1 work=$2 name=$3
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

# Every signing setting, cleared: each build below names what it adds.
unsigned=(-DQUORVANE_SIGN_COMMAND= -DQUORVANE_SIGN_PKCS12= -DQUORVANE_SIGN_PASSWORD_FILE= -DQUORVANE_SIGN_TIMESTAMP_URL=
  -DQUORVANE_SIGN_NO_TIMESTAMP=OFF -DQUORVANE_SIGN_CA_FILE=)
programs=(Quorvane_Setup.exe Quorvane_Kit.exe)
build "${unsigned[@]}"
for file in "${programs[@]}" "$name.zip"; do
  cmp "$first/$file" "$second/$file" || fail "Two builds of one commit differ: $file"
done
! unzip -l "$second/$name.zip" | grep '\.debug' || fail "The archive holds debug information"
echo "Reproduced: ${programs[*]}, $name.zip"

openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "/CN=Quorvane throwaway signer" \
  -addext keyUsage=critical,digitalSignature -addext extendedKeyUsage=codeSigning \
  -keyout "$keys/key.pem" -out "$keys/cert.pem" 2>/dev/null
openssl rand -hex 16 >"$keys/password"
openssl pkcs12 -export -inkey "$keys/key.pem" -in "$keys/cert.pem" -passout "file:$keys/password" -out "$keys/p12"
# The archive's programs verify against the throwaway certificate, and
# without their signatures are the unsigned programs of the first build.
check_signed() {
  for program in "${programs[@]}"; do
    unzip -p "$second/$name.zip" "$name/$program" >"$signed"
    osslsigncode verify -CAfile "$keys/cert.pem" -in "$signed" >"$work/verify.log" ||
      { cat "$work/verify.log"; fail "$1: the signature of $program does not verify"; }
    rm -f "$work/unsigned.exe" && osslsigncode remove-signature -in "$signed" -out "$work/unsigned.exe" >/dev/null
    cmp "$work/unsigned.exe" "$first/$program" || fail "$1: removing the signature changes $program"
  done
  echo "Signed through $1: both signatures verify, and removing them gives back the unsigned programs"
}
waived=(-DQUORVANE_SIGN_NO_TIMESTAMP=ON -DQUORVANE_SIGN_CA_FILE="$keys/cert.pem")
template="sh -c 'osslsigncode sign -certs \"\$1/cert.pem\" -key \"\$1/key.pem\" -h sha256 -in \"\$0\" -out \"\$0.new\"\
 && mv \"\$0.new\" \"\$0\"' @FILE@ '$keys'"
build "${unsigned[@]}" "${waived[@]}" -DQUORVANE_SIGN_COMMAND="$template"
check_signed "a command template"
build "${unsigned[@]}" "${waived[@]}" -DQUORVANE_SIGN_PKCS12="$keys/p12" -DQUORVANE_SIGN_PASSWORD_FILE="$keys/password"
check_signed "a PKCS#12 file"
# Builds that must stop: signing without a time-stamp server (a signature
# without a time stamp dies with its certificate) unless waived; a signer
# that leaves a program unsigned; one that does not time-stamp although a
# server was given (here one that nothing asks).
refused() {
  local expected=$1 && shift
  (cd "$copy" && cmake --preset windows "${unsigned[@]}" "$@" && cmake --build --preset windows --target package) \
    >"$work/refused.log" 2>&1 && fail "The build went on where it $expected"
  grep -q "$expected" "$work/refused.log" || { tail -n 20 "$work/refused.log"; fail "Stopped otherwise than: $expected"; }
}
refused 'Signing needs QUORVANE_SIGN_TIMESTAMP_URL' -DQUORVANE_SIGN_COMMAND="$template"
refused 'does not accept the signature' "${waived[@]}" -DQUORVANE_SIGN_COMMAND=true
refused 'carries no time stamp' -DQUORVANE_SIGN_TIMESTAMP_URL=http://127.0.0.1:9 -DQUORVANE_SIGN_CA_FILE="$keys/cert.pem" \
  -DQUORVANE_SIGN_COMMAND="$template"
echo "Refused: signing without a time-stamp server, an unsigned program, a signature without a time stamp"
