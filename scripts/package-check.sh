#!/bin/bash
# The SDK as an application team gets it: install into a staging prefix, build and
# run the out-of-tree consumer against that prefix only (CMake package and
# pkg-config), build the amd64 and armhf .deb packages and check their contents,
# then the footprint report. Needs build/armhf (configured and built here if missing).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=${JOBS:-2}
[ "$jobs" -gt 2 ] && jobs=2

pkg=$root/build/pkg-amd64
armhf=$root/build/armhf
stage=$root/build/stage
version=$(sed -n 's/^project(zarnrtc VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)

step() { printf '\n--- %s\n' "$*"; }
die() {
  echo "package-check: $*" >&2
  exit 1
}
# The consumer must see the installed headers only, never the source tree's.
no_source_headers() {
  if grep -rIl -e "$root/headers" -e "$root/testing" "$@" 2>/dev/null; then
    die "consumer build used headers from the source tree (files above)"
  fi
}

step "release build without host engines (build/pkg-amd64)"
cmake -S . -B "$pkg" -DCMAKE_BUILD_TYPE=Release -DZARNRTC_HOST_ENGINES=OFF \
  -DZARNRTC_BUILD_TESTS=OFF -DZARNRTC_BUILD_BENCH=OFF >/dev/null
cmake --build "$pkg" -j"$jobs"

step "armhf build tree (build/armhf)"
if [ ! -f "$armhf/CPackConfig.cmake" ]; then
  # Missing, or configured before the install rules existed: same preset, same options.
  cmake --preset armhf >/dev/null
fi
cmake --build "$armhf" -j"$jobs"

step "install into build/stage"
rm -rf "$stage"
cmake --install "$pkg" --prefix "$stage" >/dev/null
for f in include/zarnrtc/zarnrtc.h include/zarnrtc/sip/SipEngine.h \
  include/zarnrtc/webrtc/include/libwebrtc.h include/zarnrtc/webrtc/include/base/scoped_refptr.h \
  include/zarnrtc/testing/fake_sip.h "lib/libzarnrtc.so.$version" lib/libzarnrtc.so.0 \
  lib/libzarnrtc.so lib/libzarnrtc_fakesip.so lib/libzarnrtc_fakemedia.so \
  lib/libzarnrtc_fakelog.so lib/cmake/zarnrtc/zarnrtcConfig.cmake \
  lib/cmake/zarnrtc/zarnrtcConfigVersion.cmake lib/pkgconfig/zarnrtc.pc \
  lib/pkgconfig/zarnrtc-testing.pc; do
  [ -e "$stage/$f" ] || die "not installed: $f"
done
soname=$(readelf -d "$stage/lib/libzarnrtc.so.$version" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libzarnrtc.so.0 ] || die "SONAME is '$soname', expected libzarnrtc.so.0"
echo "installed $(find "$stage" -type f | wc -l) files, SONAME $soname"

step "consumer with find_package(zarnrtc)"
rm -rf build/consumer-cmake
cmake -S examples/consumer -B build/consumer-cmake -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$stage" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
  -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF >/dev/null
found=$(sed -n 's/^zarnrtc_DIR:PATH=//p' build/consumer-cmake/CMakeCache.txt)
[ "$found" = "$stage/lib/cmake/zarnrtc" ] || die "find_package used $found, not the stage"
cmake --build build/consumer-cmake -j"$jobs" >/dev/null
no_source_headers build/consumer-cmake
build/consumer-cmake/consumer | tee build/consumer-cmake/run.log
grep -q '^OK:' build/consumer-cmake/run.log

step "consumer with pkg-config"
rm -rf build/consumer-pkgconfig
mkdir -p build/consumer-pkgconfig
PKG_CONFIG_PATH="$stage/lib/pkgconfig" PKG_CONFIG_LIBDIR="$stage/lib/pkgconfig" \
  make -s -C examples/consumer OUT="$root/build/consumer-pkgconfig" >/dev/null
no_source_headers build/consumer-pkgconfig
build/consumer-pkgconfig/consumer | tee build/consumer-pkgconfig/run.log
grep -q '^OK:' build/consumer-pkgconfig/run.log

step "consumer with engines from a vendor directory (ZARNRTC_VENDOR_ENGINES_DIR)"
# Stand-in for a vendor's prebuilt engines: the fakes under the engines' names.
vendor=$root/build/vendor-engines
rm -rf "$vendor" build/consumer-vendor
mkdir -p "$vendor/lib"
ln -s "$stage/lib/libzarnrtc_fakesip.so" "$vendor/lib/libsipengine.so"
ln -s "$stage/lib/libzarnrtc_fakemedia.so" "$vendor/lib/libmediaengine.so"
cmake -S examples/consumer -B build/consumer-vendor -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$stage" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
  -DCONSUMER_ENGINES=engines -DZARNRTC_VENDOR_ENGINES_DIR="$vendor" >/dev/null
cmake --build build/consumer-vendor -j"$jobs" >/dev/null
no_source_headers build/consumer-vendor
build/consumer-vendor/consumer | tail -n 1 | tee build/consumer-vendor/run.log
grep -q '^OK:' build/consumer-vendor/run.log

# check_deb DEB ARCH EXPECTED_PATH... : prints the listing, checks the control
# fields and that every expected path is in it.
check_deb() {
  local deb=$1 arch=$2
  shift 2
  [ -f "$deb" ] || die "missing package $deb"
  local listing
  listing=$(dpkg-deb -c "$deb" | awk '{print $6 ($7 ? " " $7 " " $8 : "")}')
  echo "$(basename "$deb"): $(dpkg-deb -f "$deb" Depends)"
  echo "$listing" | grep -v -e '/$' -e '^\./usr/include/' | sed 's/^/    /'
  local headers
  headers=$(echo "$listing" | grep -c '^\./usr/include/.*\.h$' || true)
  [ "$headers" -eq 0 ] || echo "    + $headers headers in /usr/include/zarnrtc"
  [ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || die "$deb: not $arch"
  local p
  for p in "$@"; do
    echo "$listing" | grep -q -x -- "\./usr/$p\( -> .*\)\?" || die "$deb lacks /usr/$p"
  done
}

step "Debian packages"
dev_files=(lib/libzarnrtc.so include/zarnrtc/zarnrtc.h include/zarnrtc/zarnrtcimpl.h
  include/zarnrtc/sip/SipEngine.h include/zarnrtc/webrtc/include/libwebrtc.h
  include/zarnrtc/webrtc/include/base/refcount.h include/zarnrtc/testing/fake_sip.h
  include/zarnrtc/testing/fake_media.h include/zarnrtc/testing/fake_log.h
  lib/cmake/zarnrtc/zarnrtcConfig.cmake lib/cmake/zarnrtc/zarnrtcConfigVersion.cmake
  lib/cmake/zarnrtc/zarnrtcTargets.cmake lib/cmake/zarnrtc/zarnrtcTestingTargets.cmake
  lib/pkgconfig/zarnrtc.pc lib/pkgconfig/zarnrtc-testing.pc lib/libzarnrtc_fakesip.so
  lib/libzarnrtc_fakemedia.so lib/libzarnrtc_fakelog.so)
for tree in "$pkg:amd64" "$armhf:armhf"; do
  dir=${tree%:*}
  arch=${tree#*:}
  rm -rf "$dir/packages"
  (cd "$dir" && cpack -G DEB >/dev/null)
  check_deb "$dir/packages/libzarnrtc0_${version}_$arch.deb" "$arch" \
    "lib/libzarnrtc.so.$version" lib/libzarnrtc.so.0
  check_deb "$dir/packages/libzarnrtc-dev_${version}_$arch.deb" "$arch" "${dev_files[@]}"
  runtime_deb=$dir/packages/libzarnrtc0_${version}_$arch.deb
  if dpkg-deb -c "$runtime_deb" | grep -q -e include/ -e 'libzarnrtc\.so$'; then
    die "libzarnrtc0 ($arch) holds development files"
  fi
  # The packaged library is really built for the package's architecture.
  x=$(mktemp -d)
  dpkg-deb -x "$dir/packages/libzarnrtc0_${version}_$arch.deb" "$x"
  desc=$(file -b "$x/usr/lib/libzarnrtc.so.$version")
  rm -rf "$x"
  case "$arch:$desc" in
    amd64:*x86-64* | armhf:*ARM*) echo "libzarnrtc0 ($arch): $desc" ;;
    *) die "libzarnrtc0 ($arch) holds a wrong binary: $desc" ;;
  esac
done

step "armhf consumer against the armhf packages, run under qemu-arm"
# A device sysroot: the two armhf packages unpacked, the consumer cross-built
# against it and run in the emulator.
sysroot=$root/build/sysroot-armhf
rm -rf "$sysroot" build/consumer-armhf
for deb in "$armhf"/packages/*.deb; do dpkg-deb -x "$deb" "$sysroot"; done
cmake -S examples/consumer -B build/consumer-armhf -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/armhf-toolchain.cmake" \
  -Dzarnrtc_DIR="$sysroot/usr/lib/cmake/zarnrtc" >/dev/null
cmake --build build/consumer-armhf -j"$jobs" >/dev/null
no_source_headers build/consumer-armhf
file -b build/consumer-armhf/consumer | grep -q ARM || die "armhf consumer is not an ARM binary"
qemu-arm -L /usr/arm-linux-gnueabihf build/consumer-armhf/consumer | tail -n 1 |
  tee build/consumer-armhf/run.log
grep -q '^OK:' build/consumer-armhf/run.log

step "footprint"
bash bench/footprint/footprint.sh "$armhf/libzarnrtc.so.0" "$pkg/libzarnrtc.so.0"

echo
echo "package-check: OK"
