#!/usr/bin/env bash
# Installs what a fresh Debian bookworm machine lacks for one or more of the
# project's jobs, and the pinned stb headers. Safe to run again: it only acts on
# what is missing.
#   scripts/setup.sh [demo|test|arm64|fuzz ...]   (default: test)
# demo   build the library and the tool
# test   also the test suite, benchmarks, Python module and the Debian package
# arm64  also the cross compiler and qemu for the aarch64 suite and package
# fuzz   also clang and its fuzzing runtime
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

demo_packages=(
  g++ cmake make pkg-config ca-certificates npm
  libxtensor-dev xtl-dev libcli11-dev
)
test_packages=(
  libgtest-dev libgmock-dev libbenchmark-dev
  python3-dev python3-setuptools python3-wheel python3-pip python3-venv
  pybind11-dev python3-pybind11 python3-numpy python3-pytest
  dpkg-dev file python3-opencv python3-pil
)
arm64_packages=(g++-aarch64-linux-gnu qemu-user-static googletest)
fuzz_packages=(clang libclang-rt-14-dev)

[ "$#" -gt 0 ] || set -- test
wanted=("${demo_packages[@]}")
for job in "$@"; do
  case "$job" in
    demo) ;;
    test) wanted+=("${test_packages[@]}") ;;
    arm64) wanted+=("${test_packages[@]}" "${arm64_packages[@]}") ;;
    fuzz) wanted+=("${test_packages[@]}" "${fuzz_packages[@]}") ;;
    *) echo "setup: unknown job '$job' (demo, test, arm64, fuzz)" >&2; exit 2 ;;
  esac
done

missing=()
for pkg in "${wanted[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] || missing+=("$pkg")
done

if [ "${#missing[@]}" -gt 0 ]; then
  # Each package once, in the order first named.
  mapfile -t missing < <(printf '%s\n' "${missing[@]}" | awk '!seen[$0]++')
  echo "setup: installing ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# stb: pinned package, verified by its tarball checksum, headers unpacked into
# an ignored folder. Only the single-file headers are kept.
stb_version=2.17.2
stb_sha1=eb91b3cd3483603890b8cb02cc1b7dd2ab32d858
stb_dir="$root/third_party/stb"
stb_headers=(stb_image.h stb_image_resize2.h stb_image_write.h stb_easy_font.h)

have_all=1
for h in "${stb_headers[@]}"; do [ -f "$stb_dir/$h" ] || have_all=0; done
if [ "$have_all" -eq 1 ] && [ "$(cat "$stb_dir/.version" 2>/dev/null)" = "$stb_version" ]; then
  exit 0
fi

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
( cd "$work" && npm pack --silent "stb.c@$stb_version" >/dev/null )
tarball="$(ls "$work"/*.tgz)"
actual="$(sha1sum "$tarball" | cut -d' ' -f1)"
if [ "$actual" != "$stb_sha1" ]; then
  echo "setup: stb.c@$stb_version checksum mismatch: got $actual, expected $stb_sha1" >&2
  exit 1
fi
tar -xzf "$tarball" -C "$work"
mkdir -p "$stb_dir"
for h in "${stb_headers[@]}"; do
  src="$(find "$work/package" -path "*/stb/$h" -print -quit)"
  [ -n "$src" ] || { echo "setup: $h missing from stb.c@$stb_version" >&2; exit 1; }
  cp "$src" "$stb_dir/$h"
done
echo "$stb_version" > "$stb_dir/.version"
echo "setup: stb headers $stb_version in $stb_dir"
