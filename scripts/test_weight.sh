#!/usr/bin/env bash
# Test weight: counted lines of the test suite against the code it tests.
# Counted lines are non-blank, non-comment lines of C/C++, Python and shell
# files tracked by git. Tests: tests/ (shell checks included) and
# python/tests; code: src, include, tools, the Python sources, bench, fuzz.
#   scripts/test_weight.sh [--check]   (--check: exit 1 above 35 %)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
count() {
  git ls-files -- "$@" | grep -E '\.(c|cc|cpp|h|hpp|py|pyi|sh)$' | xargs -r cat |
    grep -v -E '^\s*$' | grep -c -v -E '^\s*(//|#[^a-z!]|#$)' || true
}
code=$(count src include tools bench fuzz python/src python/vemoproc)
tests=$(count tests python/tests)
percent=$((100 * tests / code))
echo "tests $tests / code $code lines = $percent %"
if [ "${1:-}" = "--check" ] && [ "$percent" -gt 35 ]; then
  echo "test weight above 35 %" >&2
  exit 1
fi
