#!/usr/bin/env bash
# Drives the vemoproc tool as a person would, on files made here.
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"


# dia-text: tags fold to 1 and 2, the rest is padded.
out=$("$exe" dia-text "[S1] Hello [S2] Hi" --max-len 20 --pad 7)
[ "$out" = "1 32 72 101 108 108 111 32 2 32 72 105 7 7 7 7 7 7 7 7" ] || fail "dia-text printed '$out'"
"$exe" dia-text "[S2]abc" --max-len 3 -o tokens.npy
[ "$(descr tokens.npy)" = "|u1" ] || fail "dia-text dtype $(descr tokens.npy)"
[ "$(values tokens.npy u1)" = "2 97 98" ] || fail "dia-text wrote $(values tokens.npy u1)"

# dia-delay on int32 [1, 4, 2] codes: channel 1 is delayed by 2 frames.
npy codes.npy '<i4' '(1, 4, 2)' 4 10 20 11 21 12 22 13 23
"$exe" dia-delay codes.npy --delays 0,2 --bos 99 --pad 98 -o delayed.npy
[ "$(descr delayed.npy)" = "<i4" ] || fail "dia-delay changed the dtype to $(descr delayed.npy)"
[ "$(values delayed.npy d4)" = "10 99 11 99 12 20 13 21" ] || fail "delay: $(values delayed.npy d4)"
"$exe" dia-delay delayed.npy --delays 0,2 --pad 98 --revert -o reverted.npy
[ "$(values reverted.npy d4)" = "10 20 11 21 12 21 13 21" ] || fail "revert: $(values reverted.npy d4)"

# int64 and float32 blocks keep their element type.
npy codes64.npy '<i8' '(1, 2, 2)' 8 -5 6 7 8
"$exe" dia-delay codes64.npy --delays 1,0 --bos -1 --pad 0 -o delayed64.npy
[ "$(descr delayed64.npy)" = "<i8" ] || fail "int64 became $(descr delayed64.npy)"
[ "$(values delayed64.npy d8)" = "-1 6 -5 8" ] || fail "int64 delay: $(values delayed64.npy d8)"
# 1.0, 2.0, 3.0, 4.0 as float bits
npy codesf.npy '<f4' '(1, 2, 2)' 4 0x3f800000 0x40000000 0x40400000 0x40800000
"$exe" dia-delay codesf.npy --delays 0,1 --bos 9 --pad 8 -o delayedf.npy
[ "$(descr delayedf.npy)" = "<f4" ] || fail "float32 became $(descr delayedf.npy)"
[ "$(values delayedf.npy f4 | tr -s ' ')" = "1 9 3 2" ] || fail "float delay: $(values delayedf.npy f4)"

# Usage errors: one line on stderr, exit status 1.
expect_error "3 entries" dia-delay codes.npy --delays 0,1,2 --bos 1 --pad 0 -o x.npy
expect_error "--bos is required" dia-delay codes.npy --delays 0,1 --pad 0 -o x.npy
expect_error "comma-separated" dia-delay codes.npy --delays 0,x --bos 1 --pad 0 -o x.npy
expect_error "no such file" dia-delay missing.npy --delays 0 --bos 1 --pad 0 -o x.npy
npy u16.npy '<u2' '(1, 1, 1)' 2 1
expect_error "expected int32" dia-delay u16.npy --delays 0 --bos 1 --pad 0 -o x.npy

# dia-sample: greedy, and top-k 1, both pick each row's best code.
# rows [0, 5, 1] and [2, 0, 1]
npy logits.npy '<f4' '(2, 3)' 4 0 0x40a00000 0x3f800000 0x40000000 0 0x3f800000
[ "$("$exe" dia-sample logits.npy --temperature 0 | xargs)" = "1 0" ] || fail "greedy sample"
[ "$("$exe" dia-sample logits.npy --top-k 1 | xargs)" = "1 0" ] || fail "top-k 1 sample"
for _ in 1 2 3 4 5; do
  code=$("$exe" dia-sample logits.npy --top-k 2 --top-p 1 | sed -n 1p)
  [ "$code" = 1 ] || [ "$code" = 2 ] || fail "top-k 2 drew $code from row 0"
done
expect_error "logits must be two-dimensional" dia-sample codes.npy

# Codes float cannot hold exactly are refused instead of rounded; 2^24 passes.
npy exact.npy '<i4' '(1, 1, 1)' 4 16777216
"$exe" dia-delay exact.npy --delays 0 --bos 1 --pad 0 -o exact_out.npy || fail "2^24 code"
[ "$(values exact_out.npy d4)" = "16777216" ] || fail "2^24 became $(values exact_out.npy d4)"
npy inexact.npy '<i4' '(1, 1, 1)' 4 16777217
expect_error "holds the code 16777217, which float cannot hold exactly" \
  dia-delay inexact.npy --delays 0 --bos 1 --pad 0 -o x.npy
npy inexact64.npy '<i8' '(1, 2, 1)' 8 5 -16777217
expect_error "holds the code -16777217" dia-delay inexact64.npy --delays 0 --bos 1 --pad 0 -o x.npy
npy_custom inexactf8.npy 1 0 "{'descr': '<f8', 'fortran_order': False, 'shape': (1, 1, 1), }" 'd<*' 0.1
expect_error "holds the code 0.10000000000000001" \
  dia-delay inexactf8.npy --delays 0 --bos 1 --pad 0 -o x.npy
expect_error "--bos: expects an integer from -16777216 to 16777216" \
  dia-delay codes.npy --delays 0,2 --bos 16777217 --pad 0 -o x.npy
expect_error "--pad: expects an integer" dia-delay codes.npy --delays 0,2 --bos 1 --pad 2147483648 -o x.npy
# (2^40, 0, 1) holds no values but an axis too long for int.
npy_custom longaxis.npy 1 0 "{'descr': '<i4', 'fortran_order': False, 'shape': (1099511627776, 0, 1), }" 'l<*'
expect_error "has an axis longer than 2147483647" dia-delay longaxis.npy --delays 0 --bos 1 --pad 0 -o x.npy

# Other numeric options.
expect_error "--max-len: expects an integer from 0 to 16777216" dia-text "x" --max-len 4294967296
expect_error "--max-len" dia-text "x" --max-len -1
expect_error "--top-k: expects an integer from 0 to" dia-sample logits.npy --top-k -1
expect_error "--temperature: expects a finite number" dia-sample logits.npy --temperature inf
expect_error "--top-p: expects a finite number" dia-sample logits.npy --top-p nan

# Failed writes: the path and the reason, standard output included.
expect_error "cannot write /dev/full: No space left on device" dia-text "x" --max-len 4 -o /dev/full
expect_error "cannot write /dev/full: No space left on device" \
  dia-delay codes.npy --delays 0,2 --bos 99 --pad 98 -o /dev/full
expect_stdout_error dia-text "[S1] Hello"
expect_stdout_error dia-sample logits.npy --temperature 0

# Seeded: eight rows [1, 2, 0.5, 3] with seed 2026 draw fixed codes (worked
# out with a reference engine); min-p 0.2 leaves codes 1 and 3 only.
row="0x3f800000 0x40000000 0x3f000000 0x40400000"
npy eight.npy '<f4' '(8, 4)' 4 $row $row $row $row $row $row $row $row
plain=(--temperature 1 --top-p 1 --top-k 0 --seed 2026)
[ "$("$exe" dia-sample eight.npy "${plain[@]}" | xargs)" = "3 3 3 3 0 1 0 1" ] || fail "seeded sample"
[ "$("$exe" dia-sample eight.npy "${plain[@]}" --min-p 0.2 | xargs)" = "3 3 3 3 1 3 1 3" ] ||
  fail "seeded min-p sample"
first=$("$exe" dia-sample eight.npy --seed 7 --min-p 0.05)
[ "$("$exe" dia-sample eight.npy --seed 7 --min-p 0.05)" = "$first" ] || fail "same seed, other codes"
expect_error "requires --seed" dia-sample eight.npy --min-p 0.1
expect_error "min_p must lie in" dia-sample eight.npy --seed 1 --min-p 2
# Seeds are 0 to 2^64 - 1: no sign, no wrap.
[ "$("$exe" dia-sample eight.npy --seed 18446744073709551615 | wc -l)" = 8 ] || fail "largest seed"
expect_error "expects an integer" dia-sample eight.npy --seed -1
expect_error "expects an integer" dia-sample eight.npy --seed 18446744073709551616
echo "cli_dia: ok"
