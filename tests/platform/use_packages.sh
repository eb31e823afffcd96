#!/bin/sh
# Uses the packages for 64-bit ARM under the emulator; what they make has to be what a build for x86-64
# makes of the same images: use_packages.sh PACKAGES SYSROOT BUILD FOLDER, whole paths.
set -eu
packages=$1
sysroot=$2
build=$3
folder=$4
sources=$(cd "$(dirname "$0")/../.." && pwd)
rm -rf "$folder"
mkdir -p "$folder/tarball" "$folder/x64" "$folder/arm64"
cd "$folder"

emulate() {
  qemu-aarch64 -L "$sysroot" "$@"
}
"$build/velostrix" render --out inputs --images 4 --size 160x120 --quiet
set -- inputs/image0.png inputs/image1.png inputs/image2.png inputs/image3.png

# Debian package and tarball.
dpkg-deb --extract "$packages"/velostrix_*_arm64.deb debian
tar -xzf "$packages"/velostrix-*.tar.gz -C tarball --strip-components=1
"$build/velostrix" reconstruct "$@" --out x64/command --quiet
emulate -E LD_LIBRARY_PATH="$folder/debian/usr/lib/aarch64-linux-gnu" debian/usr/bin/velostrix \
  reconstruct "$@" --out arm64/command --quiet
emulate tarball/bin/velostrix info

# Wheel.
cat >relief.py <<'PYTHON'
import sys, numpy, velostrix
result = velostrix.reconstruct(list(numpy.random.default_rng(1).integers(0, 256, (4, 60, 80), numpy.uint8)))
for image in "curvature", "height":
    numpy.save(f"{sys.argv[1]}/{image}.npy", getattr(result, image))
PYTHON
/usr/bin/python3 -m pip --quiet install --root-user-action ignore --no-index --no-deps --target wheel \
  --only-binary=:all: --platform linux_aarch64 "$packages"/velostrix-*.whl
PYTHONPATH="$sources/hosts/python" VELOSTRIX_LIBRARY_PATH="$build" /usr/bin/python3 relief.py x64
emulate -E PYTHONPATH="wheel:$sysroot/usr/lib/python3/dist-packages" "$sysroot/usr/bin/python3" relief.py arm64

# NuGet package, of which a build puts the assemblies and one platform's libraries beside a program.
cmake -E make_directory nuget
(cd nuget && cmake -E tar xf "$packages"/Velostrix.*.nupkg)
for platform in x64 arm64; do
  mkdir "program-$platform"
  cp nuget/lib/netstandard2.0/*.dll "nuget/runtimes/linux-$platform/native"/* "program-$platform"
  mcs -r:System.Drawing.dll -r:"program-$platform/Velostrix.dll" -r:"program-$platform/Velostrix.Drawing.dll" \
    -out:"program-$platform/sample.exe" "$sources/hosts/csharp/sample/Reconstruct.cs"
done
mono program-x64/sample.exe x64/sample "$@"
emulate -E MONO_CFG_DIR="$sysroot/etc" -E MONO_PATH="$sysroot/usr/lib/mono/4.5" "$sysroot/usr/bin/mono-sgen" \
  program-arm64/sample.exe arm64/sample "$@"

# Records of a run name time and machine.
diff --recursive --brief --exclude=run.json x64 arm64
