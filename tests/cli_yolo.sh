#!/usr/bin/env bash
# The vemoproc tool's detection commands: options, files and streams, exit
# codes and messages (the arithmetic is the library's, tested in C++).
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

# expect_line PATTERN ARGS...: the command succeeds and prints a line matching PATTERN.
expect_line() {
  local pattern=$1 out; shift
  out=$("$exe" "$@") || fail "'$*' exited $?"
  grep -q -- "$pattern" <<<"$out" || fail "'$*' printed: $out"
}

"$exe" demo -o scene.png > demo.txt || fail "demo"
grep -q '^\[6/6\] write scene.png .* done (' demo.txt && grep -q '^5 detection(s)' demo.txt || fail "demo"

# The tensor shape follows --size WxH; files, standard input and raw frames agree.
expect_line '\[2, 3, 256, 320\]' yolo-preprocess --size 320x256 scene.png scene.png -o batch.npy
"$exe" yolo-preprocess --size 320x256 scene.png - -o stdin.npy < scene.png >/dev/null || fail "stdin"
cmp -s batch.npy stdin.npy || fail "preprocess from stdin differs"
{ printf 'P6\n33 21\n255\n'; head -c $((33 * 21 * 3)) /dev/urandom; } > small.ppm
tail -c $((33 * 21 * 3)) small.ppm > small.raw
"$exe" yolo-preprocess small.ppm small.ppm -o ppm.npy >/dev/null || fail "preprocess ppm"
"$exe" yolo-preprocess small.raw - --raw 33x21:rgb -o raw.npy < small.raw >/dev/null || fail "--raw"
cmp -s ppm.npy raw.npy || fail "preprocess --raw differs"

# One box of class 1 on the 960x640 image seen at 640x640: the older mapping
# (gain 2/3, pad 106.57) gives x1 432.1; --exact and --end2end use the applied
# geometry (640 x 427 at top 106): x1 = 288 / (640 / 960), y1 = (288 - 106) / (427 / 640).
post=(yolo-postprocess --input-size 640x640 --image scene.png)
npy_f32 head.npy '(2, 6)' 320 320 64 64 0.1 0.9   100 100 10 10 0.2 0.1
expect_line '^1 cls_1 0.9000 432.1 ' "${post[@]}" head.npy --draw drawn.png
[ -s drawn.png ] || fail "--draw wrote nothing"
expect_line '^1 cls_1 0.9000 432.1 ' yolo-postprocess head.npy --input-size 640x640 --image - < scene.png
expect_line '^letterbox: 960x640 scaled by 0.666667 to 640x427 at (0, 106)' "${post[@]}" head.npy --exact
expect_line '^1 cls_1 0.9000 432.0 272.8 ' "${post[@]}" head.npy --exact
npy_f32 e2e.npy '(2, 6)' 288 288 352 352 0.9 1   0 0 10 10 0.1 0
expect_line '^1 cls_1 0.9000 432.0 272.8 ' "${post[@]}" e2e.npy --end2end
npy_f32 head_cn.npy '(1, 6, 1)' 320 320 64 64 0.1 0.9
printf 'a\nb\n' > names.txt
expect_line '^1 b 0.9000' "${post[@]}" head_cn.npy --layout cn --names names.txt
npy_f32 two.npy '(2, 6)' 320 320 64 64 0.9 0.1   322 320 64 64 0.1 0.8
expect_line '^1 detection' "${post[@]}" two.npy --agnostic
# [1, 84, 8400] looks channel-first: refused with the hint; --layout nc reads it as rows.
npy_custom cn.npy 1 0 "{'descr': '<f4', 'fortran_order': False, 'shape': (1, 84, 8400)}" "x$((84 * 8400 * 4))"
expect_error "cn.npy: the head is \[84, 8400\], which looks channel-first; pass --layout cn" "${post[@]}" cn.npy
expect_line '^0 detection' "${post[@]}" cn.npy --layout nc

# Usage errors, numeric options that would wrap or narrow, failed writes: one
# line naming the option or path, exit status below 128.
mkdir names.d
while IFS='|' read -r pattern args; do
  # shellcheck disable=SC2086
  expect_error "$pattern" $args </dev/null
done <<'EOF'
no such file: missing.png|yolo-preprocess missing.png -o x.npy
WIDTHxHEIGHT|yolo-preprocess --size 640 scene.png -o x.npy
--size asks for 100000 x 100000 pixels, more than the pixel budget|yolo-preprocess --size 100000x100000 scene.png -o x.npy
rows of 6 values|yolo-postprocess head_cn.npy --input-size 640x640 --image scene.png --end2end
is not an .npy file|yolo-postprocess scene.png --input-size 640x640 --image scene.png
--names: names.d is a directory|yolo-postprocess head.npy --names names.d --input-size 640x640 --image scene.png
--max-det: expects an integer from 1 to|yolo-postprocess head.npy --input-size 640x640 --image scene.png --max-det -1
--max-det|yolo-postprocess head.npy --input-size 640x640 --image scene.png --max-det 18446744073709551616
--conf: expects a finite number|yolo-postprocess head.npy --input-size 640x640 --image scene.png --conf nan
--iou: expects a finite number|yolo-postprocess head.npy --input-size 640x640 --image scene.png --iou 1e39
--thickness: expects an integer|yolo-postprocess head.npy --input-size 640x640 --image scene.png --thickness 2147483648
cannot write /dev/full: No space left on device|yolo-preprocess scene.png -o /dev/full
cannot write /dev/full: No space left on device|yolo-postprocess head.npy --input-size 640x640 --image scene.png --draw /dev/full
cannot write nodir/x.npy: No such file or directory|yolo-preprocess scene.png -o nodir/x.npy
EOF
expect_stdout_error "${post[@]}" head.npy
echo "cli_yolo: ok"
