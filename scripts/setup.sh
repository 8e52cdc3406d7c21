#!/usr/bin/env bash
# Installs what a fresh Debian bookworm machine lacks to build, test and
# benchmark the library. Safe to run again: it only acts on what is missing.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

apt_packages=(
  g++ cmake make pkg-config
  libxtensor-dev xtl-dev
  libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
  libjpeg62-turbo-dev
  clang libclang-rt-14-dev
  python3-dev python3-setuptools python3-wheel python3-pip python3-venv
  pybind11-dev python3-pybind11 python3-numpy python3-pytest
  g++-aarch64-linux-gnu qemu-user-static googletest
  dpkg-dev
)

missing=()
for pkg in "${apt_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
done
command -v npm >/dev/null 2>&1 || missing+=(npm)

if [ "${#missing[@]}" -gt 0 ]; then
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
  src="$(find "$work/package" -path "*/stb/$h" | head -n 1)"
  [ -n "$src" ] || { echo "setup: $h missing from stb.c@$stb_version" >&2; exit 1; }
  cp "$src" "$stb_dir/$h"
done
echo "$stb_version" > "$stb_dir/.version"
echo "setup: stb headers $stb_version in $stb_dir"
