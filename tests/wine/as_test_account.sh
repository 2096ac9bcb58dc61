#!/usr/bin/env bash
# Runs a command of the Wine tests as an ordinary account, as Windows users
# run the tool: Wine run as root shows no file as read-only, so tests run by
# root would miss what users meet.
#
#   as_test_account.sh DIR COMMAND [ARG...]
#
# DIR is the folder the account writes in (the Wine prefixes live below it);
# it is made and handed to the account. Run by an ordinary account, the
# command simply runs as that account. Run by root, the command runs as the
# account `quorvane-test` (made here on first use, without a password or a
# login shell), with HOME, USER and LOGNAME set to that account's and the
# rest of the environment kept.
#
# The account must reach the build tree: a folder on the way that others may
# not enter (a clone below /root, say) is opened to them for search only,
# and that is said on standard error.
set -euo pipefail
dir="$1"
shift
if [ "$(id -u)" -ne 0 ]; then
  mkdir -p "$dir"
  exec "$@"
fi

account=quorvane-test
home=/var/lib/$account
if ! id -u "$account" >/dev/null 2>&1; then
  useradd --system --user-group --home-dir "$home" --create-home --shell /usr/sbin/nologin "$account"
fi
mkdir -p "$home" "$dir"
chown "$account:" "$home"
# What an earlier run as root left in DIR goes to the account too.
find "$dir" ! -user "$account" -exec chown -h "$account:" {} +

as_account() {
  setpriv --reuid="$account" --regid="$account" --init-groups \
    env HOME="$home" USER="$account" LOGNAME="$account" "$@"
}

# Every folder from / down to DIR, and down to the command, must be one the
# account may enter.
for target in "$dir" "$(dirname "$(readlink -f "$(command -v "$1")")")"; do
  path=""
  IFS=/ read -ra parts <<<"${target#/}"
  for part in "${parts[@]}"; do
    path="$path/$part"
    if ! as_account test -x "$path" 2>/dev/null; then
      echo "as_test_account: $path opened to others for search, so that $account reaches the build tree" >&2
      chmod o+x "$path"
    fi
  done
done

as_account "$@"
