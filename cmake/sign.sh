#!/bin/sh
# One program signed by the configured signer, then checked:
#   sign.sh UNSIGNED SIGNED COMMAND_FILE COPY TIMESTAMP OSSLSIGNCODE [CA_FILE]
# COMMAND_FILE is the signer's command line, written by CMake with the paths
# in place. COPY "yes": SIGNED starts as a copy of UNSIGNED, to be signed in
# place; "no": the command writes SIGNED itself. TIMESTAMP "required": the
# signature must carry a time stamp; "waived": it need not. osslsigncode then
# verifies the signature, against CA_FILE when given.
set -eu
unsigned=$1 signed=$2 command=$3 copy=$4 timestamp=$5 osslsigncode=$6 ca=${7:-}
mkdir -p "$(dirname "$signed")"
rm -f "$signed"
[ "$copy" = no ] || cp "$unsigned" "$signed"
sh "$command" || { echo "The signing command failed ($command)" >&2; rm -f "$signed"; exit 1; }
[ -f "$signed" ] || { echo "The signing command left no $signed" >&2; exit 1; }
report=$signed.verify
if ! "$osslsigncode" verify ${ca:+-CAfile "$ca"} -in "$signed" >"$report" 2>&1; then
  cat "$report" >&2
  echo "osslsigncode does not accept the signature of $signed" >&2
  rm -f "$signed"
  exit 1
fi
if [ "$timestamp" = required ] && grep -q 'Timestamp is not available' "$report"; then
  echo "$signed carries no time stamp" >&2
  rm -f "$signed"
  exit 1
fi
rm -f "$report"
