#!/bin/bash
# Footprint of libzarnrtc: stripped size (armhf and amd64), DT_NEEDED, exported
# symbols. Fails when the armhf library is over budget, needs anything beyond the
# C/C++ runtime, defines engine symbols, or carries test code.
#   bench/footprint/footprint.sh [ARMHF_LIB] [AMD64_LIB]
# Defaults: build/armhf and the first of build/pkg-amd64, build/release.
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
budget_kib=${ZARNRTC_FOOTPRINT_BUDGET_KIB:-150}

armhf_lib=${1:-$root/build/armhf/libzarnrtc.so.0}
amd64_lib=${2:-}
if [ -z "$amd64_lib" ]; then
  for d in build/pkg-amd64 build/release; do
    if [ -e "$root/$d/libzarnrtc.so.0" ]; then amd64_lib=$root/$d/libzarnrtc.so.0; break; fi
  done
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

# report ARCH LIB STRIP [BUDGET_KIB]
report() {
  local arch=$1 lib=$2 strip=$3 budget=${4:-}
  if [ ! -e "$lib" ]; then
    fail "$arch: $lib not built"
    return
  fi
  cp -L "$lib" "$tmp/$arch.so"
  "$strip" --strip-all "$tmp/$arch.so"
  local bytes kib needed exported
  bytes=$(stat -c %s "$tmp/$arch.so")
  kib=$(( (bytes + 1023) / 1024 ))
  needed=$(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
  exported=$(nm -D --defined-only "$lib" | wc -l)

  echo "== $arch: $(realpath --relative-to="$root" "$(realpath "$lib")")"
  printf '  stripped size    %d bytes (%d KiB)%s\n' "$bytes" "$kib" \
    "${budget:+, budget $budget KiB}"
  echo "  DT_NEEDED        $needed"
  echo "  exported symbols $exported"
  echo "  engine symbols   $(nm -D --undefined-only "$lib" | grep -c -E 'SipEngine|libwebrtc')" \
    "undefined (resolved by the application's engines)"

  if [ -n "$budget" ] && [ "$kib" -gt "$budget" ]; then
    fail "$arch: $kib KiB stripped, over the $budget KiB budget"
  fi
  for n in $needed; do
    case "$n" in
      # The dynamic loader is glibc's too (thread-local storage resolves through it).
      libstdc++.so.6 | libm.so.6 | libgcc_s.so.1 | libc.so.6 | ld-linux*.so.*) ;;
      *) fail "$arch: needs $n (only the C/C++ runtime is allowed)" ;;
    esac
  done
  # The engines are the application's choice: their symbols must stay undefined.
  local defined_engine
  defined_engine=$(nm -DC --defined-only "$lib" | grep -E ' (SipEngine|libwebrtc)::' || true)
  if [ -n "$defined_engine" ]; then
    fail "$arch: defines engine symbols:"
    echo "$defined_engine" | head -n 10 >&2
  fi
  local test_syms
  test_syms=$(nm -DC "$lib" | grep -i -E 'fake|testing' || true)
  if [ -n "$test_syms" ]; then
    fail "$arch: test code in the library:"
    echo "$test_syms" | head -n 10 >&2
  fi
}

report armhf "$armhf_lib" arm-linux-gnueabihf-strip "$budget_kib"
if [ -n "$amd64_lib" ]; then
  report amd64 "$amd64_lib" strip
else
  fail "amd64: no release build (build/pkg-amd64 or build/release)"
fi

if [ "$failures" -ne 0 ]; then
  echo "footprint: $failures failure(s)" >&2
  exit 1
fi
echo "footprint: OK"
