#!/usr/bin/env bash
# The main job, as a demo: builds the release binary, makes a sandbox Wine
# prefix with three Fusion installations (two per-user webdeploy builds, one
# named by an Uninstall key, and a portable one with a profile of its own)
# and a package, then runs /status, /install, /status and /uninstall on it.
#
# Nothing outside the sandbox is read or changed: the prefix is the
# sandbox's, and the process table is an empty folder, so the machine's own
# processes play no part.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j"$(nproc)" --target Quorvane_Setup >/dev/null
tool="$PWD/build/release/Quorvane_Setup"

sandbox="$PWD/build/demo"
rm -rf "$sandbox"
prefix="$sandbox/prefix"
user="$(id -un)"
sid="S-1-5-21-0-0-0-1000"
drive_c="$prefix/drive_c"
roaming="$drive_c/users/$user/AppData/Roaming"
local_="$drive_c/users/$user/AppData/Local"
mkdir -p "$prefix/dosdevices" "$roaming" "$local_" "$sandbox/proc"
ln -s ../drive_c "$prefix/dosdevices/c:"
ln -s / "$prefix/dosdevices/z:"

fusion() {  # a complete Fusion installation in $1
  mkdir -p "$1/API/Python/packages/adsk" "$1/Applications/Electron/LibEagle"
  printf 'MZ' >"$1/Fusion360.exe"
  echo "# core" >"$1/API/Python/packages/adsk/core.py"
  echo "# electron" >"$1/API/Python/packages/adsk/electron.py"
}
webdeploy="$local_/Autodesk/webdeploy/production"
fusion "$webdeploy/6a0c9b1e2f"
fusion "$webdeploy/d41d8cd98f"
mkdir -p "$roaming/Autodesk/Autodesk Fusion 360/API"
portable="$drive_c/Tools/FusionPortable"
fusion "$portable/bin"
mkdir -p "$portable/PortableData/Roaming/Autodesk/Autodesk Fusion 360/API" "$portable/PortableData/Local"

cat >"$prefix/system.reg" <<EOF
WINE REGISTRY Version 2
;; All keys relative to \\\\Machine

#arch=win64

[Software\\\\Microsoft\\\\Windows NT\\\\CurrentVersion\\\\ProfileList\\\\$sid] 1700000000
#time=1da0000000000000
"ProfileImagePath"="C:\\\\users\\\\$user"

[Software\\\\Microsoft\\\\Windows\\\\CurrentVersion\\\\Uninstall\\\\FusionPortable] 1700000000
#time=1da0000000000000
"DisplayName"="Autodesk Fusion"
"InstallLocation"="C:\\\\Tools\\\\FusionPortable"

EOF
cat >"$prefix/user.reg" <<EOF
WINE REGISTRY Version 2
;; All keys relative to REGISTRY\\\\User\\\\$sid

#arch=win64

[Software\\\\Microsoft\\\\Windows\\\\CurrentVersion\\\\Uninstall\\\\{6a0c9b1e-fusion}] 1700000000
#time=1da0000000000000
"DisplayIcon"="C:\\\\users\\\\$user\\\\AppData\\\\Local\\\\Autodesk\\\\webdeploy\\\\production\\\\6a0c9b1e2f\\\\Fusion360.exe,0"
"DisplayName"="Autodesk Fusion"

EOF

package="$sandbox/package"
mkdir -p "$package/AddIn" "$package/Bin"
for f in KELDARO_Quorvane.py archive_validation.py stackup_compat.py fusion_spacing.py save_policy.py; do
  echo "# $f, version 0.1.8" >"$package/AddIn/$f"
done
echo "<manifest/>" >"$package/AddIn/KELDARO_Quorvane.manifest"
printf 'MZ helper' >"$package/Bin/Quorvane_Helper.exe"

export WINEPREFIX="$prefix" QUORVANE_PROC_ROOT="$sandbox/proc"
run() {
  echo
  echo "\$ Quorvane_Setup $*"
  set +e
  "$tool" "$@"
  echo "(exit code $?)"
  set -e
}
echo "Sandbox prefix: $prefix"
run /status
run /install /package "$package"
run /status
run /uninstall
