#!/usr/bin/env bash
# The tool's own .npy reader on hostile and unusual files: every file numpy
# writes for the supported types is read, anything else is one error line.
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

{ printf 'P6\n64 48\n255\n'; head -c $((64 * 48 * 3)) /dev/zero; } > x.ppm
f4() { echo "{'descr': '<f4', 'fortran_order': False, 'shape': $1, }"; }
rows='0 5 1 2 0 1'  # argmax of rows [0, 5, 1] and [2, 0, 1]: 1 0

# NAME;VERSION;HEADER LENGTH;PACK FORMAT;DICT;ERROR (none: greedy sampling reads
# the rows). Read: versions 1 to 3, any header length (0xB6: a reader once
# sign-extended its low byte), keys in any order, double quotes, no trailing
# comma, float64, int64 and uint8. Refused from the header: element counts
# that wrap (wrap.npy is 128 bytes declaring 2^64 * 21 bytes), malformed
# shapes and dicts, Fortran order, big-endian and unsupported types.
while IFS=';' read -r name ver len fmt dict error; do
  npy_custom "$name" "$ver" "$len" "$dict" "$fmt" $rows
  [ -z "$error" ] || { expect_error "$error" dia-sample "$name" </dev/null; continue; }
  [ "$("$exe" dia-sample "$name" --temperature 0 </dev/null | xargs)" = "1 0" ] || fail "greedy on $name"
done <<EOF
v1.npy;1;0;f<*;$(f4 '(2, 3)');
b6.npy;1;182;f<*;$(f4 '(2, 3)');
v2b6.npy;2;180;f<*;$(f4 '(2, 3)');
v3.npy;3;0;f<*;$(f4 '(2, 3)');
long.npy;1;4000;f<*;$(f4 '(2, 3)');
order.npy;1;0;f<*;{"shape": (2,3), "fortran_order": False, "descr": "<f4"};
f8.npy;1;0;d<*;{'descr': '<f8', 'fortran_order': False, 'shape': (2, 3), };
i8.npy;1;0;q<*;{'descr': '<i8', 'fortran_order': False, 'shape': (2, 3), };
u1.npy;1;0;C*;{'descr': '|u1', 'fortran_order': False, 'shape': (2, 3), };
wrap.npy;1;94;f<*;$(f4 '(4611686018427387904, 84)');wrap.npy: .npy shape is too large
wrap2.npy;1;0;f<*;$(f4 '(4, 4611686018427387904)');wrap2.npy: .npy shape is too large
wrap3.npy;1;0;f<*;$(f4 '(0, 4611686018427387904, 4611686018427387904)');wrap3.npy: .npy shape is too large
big.npy;1;0;f<*;$(f4 '(99999999999999999999999, 2)');dimension too large
abc.npy;1;0;f<*;$(f4 '(9, abc)');abc.npy: .npy header has a 'shape' that is not a tuple of integers
one.npy;1;0;f<*;$(f4 '(6)');one.npy: .npy header has a 'shape' that is not a tuple
neg.npy;1;0;f<*;$(f4 '(-2, 3)');not a tuple of integers
nodescr.npy;1;0;f<*;{'fortran_order': False, 'shape': (2, 3), };needs 'descr', 'fortran_order' and 'shape'
extra_key.npy;1;0;f<*;{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), 'x': 1};unexpected key 'x'
twice.npy;1;0;f<*;{'descr': '<f4', 'descr': '<f4', 'fortran_order': False, 'shape': (2, 3)};repeats 'descr'
junk.npy;1;0;f<*;$(f4 '(2, 3)') junk;text after the dict
fortran.npy;1;0;f<*;{'descr': '<f4', 'fortran_order': True, 'shape': (2, 3), };fortran.npy is a Fortran-order array, which is not supported
be.npy;1;0;f>*;{'descr': '>f4', 'fortran_order': False, 'shape': (2, 3), };be.npy is big-endian
u4.npy;1;0;L<*;{'descr': '<u4', 'fortran_order': False, 'shape': (2, 3), };u4.npy holds <u4 values
struct.npy;1;0;f<*;{'descr': [('a', '<f4')], 'fortran_order': False, 'shape': (2, 3), };not a plain type string
EOF

# An empty head gives no detections; data shorter or longer than declared, a
# cut header, another version and a directory are refused.
npy_custom empty.npy 1 0 "$(f4 '(0, 6)')" 'f<*'
grep -q '^0 detection' <<<"$("$exe" yolo-postprocess empty.npy --input-size 640x640 --image x.ppm)" || fail "empty"
head -c 140 v1.npy > cut.npy
expect_error "cut.npy: .npy data is 12 bytes but the header declares 24 (truncated)" yolo-postprocess cut.npy --input-size 640x640 --image x.ppm
{ cat v1.npy; printf 'abcd'; } > extra.npy
expect_error "extra.npy: .npy data is 28 bytes but the header declares 24 (trailing bytes)" dia-sample extra.npy
head -c 60 v1.npy > header_cut.npy
expect_error "header_cut.npy: .npy header is truncated" dia-sample header_cut.npy
{ head -c 6 v1.npy; printf '\x04'; tail -c +8 v1.npy; } > v4.npy
expect_error "version 4.0 is not supported" dia-sample v4.npy
mkdir adir.npy
expect_error "adir.npy is a directory" dia-sample adir.npy
echo "cli_npy: ok"
