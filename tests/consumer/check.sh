#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a
# small program against it twice: through find_package and through pkg-config.
set -euo pipefail
build_dir=$1 src_dir=$2 work=$3
rm -rf "$work"
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$src_dir" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/app"
libdir=$(dirname "$(find "$work/prefix" -name 'libvemoproc.so' | head -n 1)")
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$src_dir/main.cpp" -o "$work/app-pc" $(pkg-config --cflags --libs vemoproc) \
  -Wl,-rpath,"$libdir"
"$work/app-pc"
# The Python package, when built, imports from the installed tree (run from
# the scratch folder so the source tree's package cannot be picked up).
if [ -n "${4:-}" ]; then
  pkg=$(dirname "$(find "$work/prefix" -name '__init__.py' -path '*/vemoproc/*' | head -n 1)")
  (cd "$work" && PYTHONPATH="$(dirname "$pkg")" "$4" -c \
    "import vemoproc, numpy; assert vemoproc.__file__.startswith('$work'); vemoproc.zentil.ZentilPreprocessor(4).process(numpy.zeros((8, 8, 3), numpy.uint8))")
fi
