#!/bin/sh
# What unpacked.sh left, as an attacker, Debian and an old processor meet it: inspected.sh FOLDER.
set -eu
folder=$1
failed=
fail() {
  echo "$1" >&2
  failed=yes
}

# What readelf shows of each packaged file.
for file in "$folder"/debian/usr/bin/velostrix "$folder"/debian/usr/lib/*/lib*.so.*.*.*; do
  test -f "$file"
  headers=$(readelf --wide --segments --dynamic --dyn-syms "$file")
  while read -r name wanted; do
    case ${file##*/} in
    $name) echo "$headers" | grep -qE "$wanted" || fail "$file: nothing like $wanted" ;;
    esac
  done <<'TABLE'
*                        GNU_RELRO
*                        FLAGS_1.*NOW
*                        GNU_STACK.* RW +0x
*                        __stack_chk_fail@
velostrix                Flags:.* PIE
velostrix                __v?snprintf_chk@
libVelostrix*            __[a-z]+_chk@
libvelostrix_host*       __[a-z]+_chk@
lib*                     SONAME.*\.so\.(0\.|[1-9])[0-9]*]
TABLE
  ! echo "$headers" | grep -E 'RUNPATH|RPATH' || fail "$file: searches a path of its own"
done

# The copyright file waits for the choice of a licence.
lintian --allow-root --fail-on error,warning --suppress-tags no-copyright-file \
  "$folder"/packages/*.deb || fail "lintian: see above"

status=0
said=$(qemu-x86_64 -cpu Nehalem "$folder/tarball/bin/velostrix" info 2>&1) || status=$?
case $status:$said in
1:velostrix:*no\ AVX*) ;;
*) fail "without AVX: exit code $status, $said" ;;
esac
[ -z "$failed" ]
