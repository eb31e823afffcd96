#!/bin/sh
# Makes the packages of a build and runs the command out of each: unpacked.sh BUILD FOLDER.
set -eu
build=$1
folder=$2
rm -rf "$folder"
mkdir -p "$folder/tarball" "$folder/debian"

cpack --config "$build/CPackConfig.cmake" -B "$folder/packages" >"$folder/cpack.log" 2>&1 || {
  cat "$folder/cpack.log" >&2
  exit 1
}
tar -xzf "$folder"/packages/velostrix-*.tar.gz -C "$folder/tarball" --strip-components=1
"$folder/tarball/bin/velostrix" info
test -f "$folder/tarball/include/velostrix/uncalibration.h"

runtime=$(echo "$folder"/packages/velostrix_*.deb)
development=$(echo "$folder"/packages/velostrix-dev_*.deb)
dpkg-deb --extract "$runtime" "$folder/debian"
module=$(echo "$folder"/debian/usr/lib/*/libVelostrixUncalibration.so)
LD_LIBRARY_PATH=$(dirname "$module") "$folder/debian/usr/bin/velostrix" info
test ! -e "$folder/debian/usr/include"
dpkg-deb --extract "$development" "$folder/debian"
test -f "$folder/debian/usr/include/velostrix/uncalibration.h"
dpkg-deb --field "$runtime" Depends | grep -q libopencv-core
dpkg-deb --field "$development" Depends | grep -q "velostrix (= "
