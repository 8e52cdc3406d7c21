#!/usr/bin/env bash
# Puts the built library into a scratch prefix, then builds and runs a small
# program against it twice: through find_package and through pkg-config.
#   check.sh BUILD_DIR CONSUMER_SRC WORK [install|deb] [PYTHON]
# install (the default) runs `cmake --install`; deb builds the Debian package
# with CPack and unpacks it with `dpkg -x` into a scratch root (nothing touches
# the machine's own /usr), then also runs the packaged tool. With PYTHON, the
# installed Python package is imported by that interpreter too.
set -euo pipefail
build_dir=$1 src_dir=$2 work=$3 mode=${4:-install}
trap 'echo "check.sh ($mode): failed at line $LINENO: $BASH_COMMAND" >&2' ERR
rm -rf "$work"
mkdir -p "$work"
case $mode in
  install)
    prefix="$work/prefix"
    cmake --install "$build_dir" --prefix "$prefix" >/dev/null
    ;;
  deb)
    cpack --config "$build_dir/CPackConfig.cmake" -B "$work/deb" >/dev/null
    deb=$(find "$work/deb" -maxdepth 1 -name '*.deb')
    [ "$(echo "$deb" | wc -l)" -eq 1 ] || { echo "expected one package, got: $deb" >&2; exit 1; }
    # The whole listing is read first: an early-exit reader would make the
    # writer die of SIGPIPE, which pipefail reports as a failure.
    info=$(dpkg-deb --info "$deb")
    grep -q "Architecture: $(dpkg --print-architecture)" <<<"$info"
    dpkg -x "$deb" "$work/root"
    prefix="$work/root/usr"
    "$prefix/bin/vemoproc" --help >/dev/null
    ;;
  *) echo "unknown mode $mode" >&2; exit 2 ;;
esac
cmake -S "$src_dir" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/app"
# The .pc file sits in the library folder, whether the library is shared or a
# static archive; --static adds the archive's private dependencies.
pc=$(find "$prefix" -name vemoproc.pc -print -quit)
libdir=$(dirname "$(dirname "$pc")")
export PKG_CONFIG_PATH="$(dirname "$pc")"
# shellcheck disable=SC2046
c++ -std=c++17 "$src_dir/main.cpp" -o "$work/app-pc" $(pkg-config --static --cflags --libs vemoproc) \
  -Wl,-rpath,"$libdir"
"$work/app-pc"
# The Python package, when built, imports from the installed tree (run from
# the scratch folder so the source tree's package cannot be picked up).
python=${5:-}
if [ -n "$python" ]; then
  pkg=$(dirname "$(find "$prefix" -name '__init__.py' -path '*/vemoproc/*' -print -quit)")
  (cd "$work" && PYTHONPATH="$(dirname "$pkg")" "$python" -c "import vemoproc, numpy
assert vemoproc.__file__.startswith('$work')
vemoproc.zentil.ZentilPreprocessor(4).process(numpy.zeros((8, 8, 3), numpy.uint8))")
fi
