#!/usr/bin/env bash
# Drives the vemoproc tool as a person would; each family adds its commands.
set -euo pipefail
exe=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
fail() { echo "cli_smoke: $*" >&2; exit 1; }

"$exe" --help >/dev/null
