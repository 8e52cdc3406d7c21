#!/usr/bin/env bash
# Installs OpenCV for the side-by-side benchmark (make bench-peers) when it is
# missing. Never needed to build, test or use the library.
set -euo pipefail
if [ "$(dpkg-query -W -f='${Status}' libopencv-dev 2>/dev/null || true)" = "install ok installed" ]; then
  exit 0
fi
echo "setup_peers: installing libopencv-dev"
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends libopencv-dev
