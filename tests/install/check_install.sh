#!/usr/bin/env bash
# Installs the built library into a scratch prefix and builds the example
# application against it twice: through the CMake package and through
# pkg-config. Catches a broken export set, a missing header or a wrong .pc.
set -euo pipefail
build_dir=$1
src_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(find "$work/prefix" -name 'liblx_api.so*' -printf '%h\n' | head -n1)
cmake -S "$src_dir/examples" -B "$work/cm" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cm" >/dev/null
out1=$(LD_LIBRARY_PATH="$libdir" "$work/cm/hello_lx")
PKG_CONFIG_PATH="$libdir/pkgconfig" cc -std=c11 -Wall -Werror "$src_dir/examples/hello_lx.c" \
  $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs lx_api) -o "$work/hello_pc"
out2=$(LD_LIBRARY_PATH="$libdir" "$work/hello_pc")
expected=$'lx_api 1.0.0\nstatus -5: Connection lost'
[ "$out1" = "$expected" ] || { echo "CMake consumer printed: $out1"; exit 1; }
[ "$out2" = "$expected" ] || { echo "pkg-config consumer printed: $out2"; exit 1; }
# Only lx-prefixed names (and the C++ service names) may be exported.
stray=$(nm -D --defined-only "$libdir/liblx_api.so" | awk '{print $3}' \
  | grep -v -E '^(lx|_Z[0-9]*lx|_Z[0-9]*kd|kd)' | grep -v -E '^_(init|fini|edata|end|_bss_start)' || true)
[ -z "$stray" ] || { echo "unexpected exported symbols:"; echo "$stray" | head; exit 1; }
# The SoapySDR module, when built, loads from the prefix and finds the
# installed library beside it.
module=$(find "$work/prefix" -name 'libLX530Support.so' | head -n1)
if [ -n "$module" ]; then
  found=$(SOAPY_SDR_PLUGIN_PATH=$(dirname "$module") XDG_CACHE_HOME="$work/cache" \
    SoapySDRUtil --probe="driver=lx530,scene=$src_dir/scenes/demo.json" 2>&1) || true
  grep -q "serial=10000001" <<<"$found" || { echo "installed SoapySDR module: $found"; exit 1; }
fi
echo "install ok"
