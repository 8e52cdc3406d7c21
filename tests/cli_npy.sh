#!/usr/bin/env bash
# The tool's own .npy reader on hostile and unusual files: every file numpy
# writes for the supported types is read, anything else is one error line.
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

{ printf 'P6\n64 48\n255\n'; head -c $((64 * 48 * 3)) /dev/zero; } > x.ppm
f4() { echo "{'descr': '<f4', 'fortran_order': False, 'shape': $1, }"; }
# argmax of rows [0, 5, 1] and [2, 0, 1]
rows='0 5 1 2 0 1'
greedy() { [ "$("$exe" dia-sample "$1" --temperature 0 | xargs)" = "1 0" ] || fail "greedy on $1"; }

# Versions 1, 2 and 3, any header length (0xB6: xtensor sign-extended its low
# byte), keys in any order, double quotes, no trailing comma, int64 / float64 / uint8.
npy_custom v1.npy 1 0 "$(f4 '(2, 3)')" 'f<*' $rows; greedy v1.npy
npy_custom b6.npy 1 182 "$(f4 '(2, 3)')" 'f<*' $rows; greedy b6.npy
npy_custom v2.npy 2 0 "$(f4 '(2, 3)')" 'f<*' $rows; greedy v2.npy
npy_custom v2b6.npy 2 180 "$(f4 '(2, 3)')" 'f<*' $rows; greedy v2b6.npy
npy_custom v3.npy 3 0 "$(f4 '(2, 3)')" 'f<*' $rows; greedy v3.npy
npy_custom long.npy 1 4000 "$(f4 '(2, 3)')" 'f<*' $rows; greedy long.npy
npy_custom order.npy 1 0 '{"shape": (2,3), "fortran_order": False, "descr": "<f4"}' 'f<*' $rows
greedy order.npy
npy_custom f8.npy 1 0 "{'descr': '<f8', 'fortran_order': False, 'shape': (2, 3), }" 'd<*' $rows
greedy f8.npy
npy_custom i8.npy 1 0 "{'descr': '<i8', 'fortran_order': False, 'shape': (2, 3), }" 'q<*' $rows
greedy i8.npy
npy_custom u1.npy 1 0 "{'descr': '|u1', 'fortran_order': False, 'shape': (2, 3), }" 'C*' $rows
greedy u1.npy
# An empty head: zero rows of 6 columns, no detections.
npy_custom empty.npy 1 0 "$(f4 '(0, 6)')" 'f<*'
"$exe" yolo-postprocess empty.npy --input-size 640x640 --image x.ppm | grep '^0 detection' >/dev/null ||
  fail "empty head"

# Element counts that wrap: (2^62, 84) float32 is 2^64 * 21 bytes, in a 128-byte file.
npy_custom wrap.npy 1 118 "$(f4 '(4611686018427387904, 84)')" 'f<*'
[ "$(wc -c < wrap.npy)" = 128 ] || fail "wrap.npy is $(wc -c < wrap.npy) bytes"
expect_error "wrap.npy: .npy shape is too large" \
  yolo-postprocess wrap.npy --input-size 640x640 --image x.ppm
npy_custom wrap2.npy 1 0 "$(f4 '(4, 4611686018427387904)')" 'f<*'
expect_error "wrap2.npy: .npy shape is too large" dia-sample wrap2.npy
npy_custom wrap3.npy 1 0 "$(f4 '(0, 4611686018427387904, 4611686018427387904)')" 'f<*'
expect_error "wrap3.npy: .npy shape is too large" dia-sample wrap3.npy
npy_custom big.npy 1 0 "$(f4 '(99999999999999999999999, 2)')" 'f<*'
expect_error "dimension too large" dia-sample big.npy

# Data shorter or longer than declared.
values84=$(seq 1 840)
npy_custom ten.npy 1 0 "$(f4 '(10, 84)')" 'f<*' $values84
head -c 200 ten.npy > cut.npy
expect_error "cut.npy: .npy data is 72 bytes but the header declares 3360 (truncated)" \
  yolo-postprocess cut.npy --input-size 640x640 --image x.ppm
npy_custom extra.npy 1 0 "$(f4 '(2, 3)')" 'f<*' $rows 7
expect_error "extra.npy: .npy data is 28 bytes but the header declares 24 (trailing bytes)" \
  dia-sample extra.npy
head -c 60 v1.npy > header_cut.npy
expect_error "header_cut.npy: .npy header is truncated" dia-sample header_cut.npy

# Malformed headers.
npy_custom abc.npy 1 0 "$(f4 '(9, abc)')" 'f<*' $(seq 1 9)
expect_error "abc.npy: .npy header has a 'shape' that is not a tuple of integers" dia-sample abc.npy
npy_custom one.npy 1 0 "$(f4 '(6)')" 'f<*' $rows
expect_error "one.npy: .npy header has a 'shape' that is not a tuple" dia-sample one.npy
npy_custom neg.npy 1 0 "$(f4 '(-2, 3)')" 'f<*' $rows
expect_error "not a tuple of integers" dia-sample neg.npy
npy_custom nodescr.npy 1 0 "{'fortran_order': False, 'shape': (2, 3), }" 'f<*' $rows
expect_error "needs 'descr', 'fortran_order' and 'shape'" dia-sample nodescr.npy
npy_custom extra_key.npy 1 0 "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), 'x': 1}" \
  'f<*' $rows
expect_error "unexpected key 'x'" dia-sample extra_key.npy
npy_custom twice.npy 1 0 "{'descr': '<f4', 'descr': '<f4', 'fortran_order': False, 'shape': (2, 3)}" \
  'f<*' $rows
expect_error "repeats 'descr'" dia-sample twice.npy
npy_custom junk.npy 1 0 "$(f4 '(2, 3)') junk" 'f<*' $rows
expect_error "text after the dict" dia-sample junk.npy
npy_custom v4.npy 1 0 "$(f4 '(2, 3)')" 'f<*' $rows
printf '\x04' | dd of=v4.npy bs=1 seek=6 conv=notrunc status=none
expect_error "version 4.0 is not supported" dia-sample v4.npy
npy_custom fortran.npy 1 0 "{'descr': '<f4', 'fortran_order': True, 'shape': (2, 3), }" 'f<*' $rows
expect_error "fortran.npy is a Fortran-order array, which is not supported" dia-sample fortran.npy
npy_custom be.npy 1 0 "{'descr': '>f4', 'fortran_order': False, 'shape': (2, 3), }" 'f>*' $rows
expect_error "be.npy is big-endian" dia-sample be.npy
npy_custom u4.npy 1 0 "{'descr': '<u4', 'fortran_order': False, 'shape': (2, 3), }" 'L<*' $rows
expect_error "u4.npy holds <u4 values" dia-sample u4.npy
npy_custom struct.npy 1 0 "{'descr': [('a', '<f4')], 'fortran_order': False, 'shape': (2, 3), }" \
  'f<*' $rows
expect_error "not a plain type string" dia-sample struct.npy
mkdir adir.npy
expect_error "adir.npy is a directory" dia-sample adir.npy
echo "cli_npy: ok"
