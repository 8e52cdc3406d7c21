#!/usr/bin/env bash
# Drives the vemoproc tool's dia commands: arguments, exit codes, .npy and
# standard-stream I/O. The library's arithmetic is checked in dia_test.
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

# written FILE TYPE EXPECTED: an .npy file's element type and values.
written() {
  [ "$(descr "$1") $(values "$1" "$2" | tr -s ' ')" = "$3" ] || fail "$1: $(values "$1" "$2")"
}
# printed EXPECTED ARGS...: what a command prints, on one line.
printed() {
  local want=$1; shift
  [ "$("$exe" "$@" | xargs)" = "$want" ] || fail "$* printed the wrong codes"
}

# dia-text prints the tokens, or writes uint8 .npy.
printed "1 32 72 105 32 2 7" dia-text "[S1] Hi [S2]" --max-len 7 --pad 7
"$exe" dia-text "[S2]abc" --max-len 3 -o tokens.npy
written tokens.npy u1 "|u1 2 97 98"

# dia-delay keeps the element type: int32 (apply, then --revert), int64, float32 (1.0 .. 4.0).
npy codes.npy '<i4' '(1, 4, 2)' 4 10 20 11 21 12 22 13 23
"$exe" dia-delay codes.npy --delays 0,2 --bos 99 --pad 98 -o delayed.npy
written delayed.npy d4 "<i4 10 99 11 99 12 20 13 21"
"$exe" dia-delay delayed.npy --delays 0,2 --pad 98 --revert -o reverted.npy
written reverted.npy d4 "<i4 10 20 11 21 12 21 13 21"
npy codes64.npy '<i8' '(1, 2, 2)' 8 -5 6 7 8
"$exe" dia-delay codes64.npy --delays 1,0 --bos -1 --pad 0 -o delayed64.npy
written delayed64.npy d8 "<i8 -1 6 -5 8"
npy codesf.npy '<f4' '(1, 2, 2)' 4 0x3f800000 0x40000000 0x40400000 0x40800000
"$exe" dia-delay codesf.npy --delays 0,1 --bos 9 --pad 8 -o delayedf.npy
written delayedf.npy f4 "<f4 1 9 3 2"

# Codes float cannot hold exactly are refused instead of rounded (below); 2^24 passes.
npy exact.npy '<i4' '(1, 1, 1)' 4 16777216
"$exe" dia-delay exact.npy --delays 0 --bos 1 --pad 0 -o exact_out.npy || fail "2^24 code"
dict="{'descr': '<f8', 'fortran_order': False, 'shape': (1, 1, 1), }"
npy_custom inexactf8.npy 1 0 "$dict" 'd<*' 0.1
npy_custom longaxis.npy 1 0 "${dict/(1, 1, 1)/(1099511627776, 0, 1)}" 'd<*'
npy u16.npy '<u2' '(1, 1, 1)' 2 1
# Seeded: eight rows [1, 2, 0.5, 3] with seed 2026 draw fixed codes (worked out by a
# reference engine); min-p 0.2 leaves codes 1 and 3.
row="0x3f800000 0x40000000 0x3f000000 0x40400000"
npy eight.npy '<f4' '(8, 4)' 4 $row $row $row $row $row $row $row $row
printed "3 3 3 3 3 3 3 3" dia-sample eight.npy --temperature 0
plain=(--temperature 1 --top-p 1 --top-k 0 --seed 2026)
printed "3 3 3 3 0 1 0 1" dia-sample eight.npy "${plain[@]}"
printed "3 3 3 3 1 3 1 3" dia-sample eight.npy "${plain[@]}" --min-p 0.2
[ "$("$exe" dia-sample eight.npy --seed 18446744073709551615 | wc -l)" = 8 ] || fail "largest seed"

# Usage errors: one line on stderr, exit status 1.
while IFS='|' read -r pattern args; do
  read -ra argv <<<"$args"
  expect_error "$pattern" "${argv[@]}"
done <<'CASES'
3 entries|dia-delay codes.npy --delays 0,1,2 --bos 1 --pad 0 -o x.npy
--bos is required|dia-delay codes.npy --delays 0,1 --pad 0 -o x.npy
comma-separated|dia-delay codes.npy --delays 0,x --bos 1 --pad 0 -o x.npy
no such file|dia-delay missing.npy --delays 0 --bos 1 --pad 0 -o x.npy
expected int32|dia-delay u16.npy --delays 0 --bos 1 --pad 0 -o x.npy
holds the code 0.10000000000000001|dia-delay inexactf8.npy --delays 0 --bos 1 --pad 0 -o x.npy
has an axis longer than 2147483647|dia-delay longaxis.npy --delays 0 --bos 1 --pad 0 -o x.npy
--bos: expects an integer from -16777216 to 16777216|dia-delay codes.npy --delays 0,2 --bos 16777217 --pad 0 -o x.npy
--max-len: expects an integer from 0 to 16777216|dia-text x --max-len 4294967296
--top-k: expects an integer from 0 to|dia-sample eight.npy --top-k -1
--temperature: expects a finite number|dia-sample eight.npy --temperature inf
requires --seed|dia-sample eight.npy --min-p 0.1
min_p must lie in|dia-sample eight.npy --seed 1 --min-p 2
expects an integer|dia-sample eight.npy --seed -1
expects an integer|dia-sample eight.npy --seed 18446744073709551616
cannot write /dev/full: No space left on device|dia-delay codes.npy --delays 0,2 --bos 99 --pad 98 -o /dev/full
CASES
expect_stdout_error dia-text "[S1] Hello"
expect_stdout_error dia-sample eight.npy --temperature 0
echo "cli_dia: ok"
