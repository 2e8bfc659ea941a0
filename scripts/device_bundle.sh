#!/usr/bin/env bash
# Packs a CUDA build of the tool, its tools and its test binaries, with every
# shared library they load except the C library itself, and the temple scene
# (temple.sfm, temple_hull.ply and its 16 photographs, under
# data/templeSparseRing/), into one compressed file:
# .device-bundle/bundle.tar.xz (not tracked). A GPU machine of the same
# processor family that has the CUDA driver but none of the build's packages
# (no OpenCV, no CGAL, no compiler needed) unpacks it and runs it as it is;
# scripts/device_proof.sh does that.
#
#   scripts/device_bundle.sh        # needs nvcc and the packages of setup.sh
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=$root/build-device
bundle=$root/.device-bundle
# The temple, beside the repository here; the GPU machine has no copy.
temple=${TESSALINE_TEMPLE_DIR:-$root/../shared/data/templeSparseRing}
temple_files=(temple.sfm temple_hull.ply)
for i in $(seq -w 1 16); do temple_files+=("templeSR00$i.png"); done
for f in "${temple_files[@]}"; do
  if [ ! -s "$temple/$f" ]; then
    echo "Error: $temple/$f not found; set TESSALINE_TEMPLE_DIR to the temple's folder" >&2
    exit 1
  fi
done

# The programs find the bundled libraries through an RPATH to where
# device_proof.sh unpacks them (an RPATH, unlike a RUNPATH, also serves the
# libraries' own dependencies); nothing else on that machine sees them.
unpacked=/tmp/tessaline-bundle
configure=$(cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTESSALINE_WITH_CUDA=ON \
  "-DCMAKE_EXE_LINKER_FLAGS=-Wl,--disable-new-dtags,-rpath,$unpacked/lib")
if ! grep -q "Enabling CUDA support" <<<"$configure"; then
  echo "Error: no CUDA compiler found here; nothing to bundle" >&2
  exit 1
fi
cmake --build "$build" -j"$(nproc)" --target tessaline_refine tessaline_synth tessaline_compare \
  tessaline_photoconsistency device_tests mesh_tests driver_tests endtoend_tests

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
programs=(src/driver/tessaline_refine tools/synth/tessaline_synth tools/compare/tessaline_compare
          tools/photoconsistency/tessaline_photoconsistency tests/device_tests tests/mesh_tests tests/driver_tests tests/endtoend_tests)
for p in "${programs[@]}"; do
  install -D "$build/$p" "$stage/build/$p"
done

# Every library the programs load, found by the loader here, except the C
# library and the loader, which the target machine has in a newer version.
mkdir -p "$stage/lib"
for p in "${programs[@]}"; do ldd "$build/$p"; done |
  awk '/=> \// {print $3}' | sort -u |
  grep -vE '/(libc|libm|libdl|libpthread|librt|libresolv|libutil|ld-linux[^/]*)\.so' |
  while read -r lib; do cp -L "$lib" "$stage/lib/"; done

# The scene file's image paths are relative to its folder, so the files keep
# their names side by side (the COLMAP model is not needed there).
mkdir -p "$stage/data/templeSparseRing"
for f in "${temple_files[@]}"; do cp "$temple/$f" "$stage/data/templeSparseRing/"; done

mkdir -p "$bundle"
echo "Compressing $(du -sh "$stage" | cut -f1) into $bundle/bundle.tar.xz (a minute or two)"
tar -C "$stage" -cf - build lib data | xz -T0 -6 > "$bundle/bundle.tar.xz.part"
mv "$bundle/bundle.tar.xz.part" "$bundle/bundle.tar.xz"
ls -l "$bundle/bundle.tar.xz"
