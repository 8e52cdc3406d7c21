#!/usr/bin/env bash
# Drives the vemoproc tool as a person would, on files made here.
set -euo pipefail
exe=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
fail() { echo "FAIL: $*" >&2; exit 1; }

"$exe" --help >/dev/null || fail "--help"
