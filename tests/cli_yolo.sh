#!/usr/bin/env bash
# Drives the vemoproc tool as a person would, on files made here.
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"


# demo: annotated PNG, stage times, detections
"$exe" demo -o scene.png > demo.txt || fail "demo"
[ -s scene.png ] || fail "demo wrote no image"
grep -q '^\[6/6\] write scene.png .* done (' demo.txt || fail "demo stage times"
grep -q '^5 detection(s)' demo.txt || fail "demo detections: $(cat demo.txt)"

# preprocess: the tensor shape follows --size WxH
"$exe" yolo-preprocess --size 320x256 scene.png scene.png -o batch.npy | grep '\[2, 3, 256, 320\]' >/dev/null \
  || fail "yolo-preprocess shape"
[ -s batch.npy ] || fail "yolo-preprocess wrote nothing"

# postprocess: one box of class 1 on a 960x640 image seen at 640x640 (gain 2/3, pad_y 106.57)
npy_f32 head.npy '(2, 6)' 320 320 64 64 0.1 0.9   100 100 10 10 0.2 0.1
"$exe" yolo-postprocess head.npy --input-size 640x640 --image scene.png --draw drawn.png > post.txt \
  || fail "yolo-postprocess"
grep -q '^1 detection(s)' post.txt || fail "postprocess count: $(cat post.txt)"
grep -q '^1 cls_1 0.9000 432.1 ' post.txt || fail "postprocess row: $(cat post.txt)"
[ -s drawn.png ] || fail "--draw wrote nothing"
# the channel-first layout of common exports, with a batch axis
npy_f32 head_cn.npy '(1, 6, 1)' 320 320 64 64 0.1 0.9
printf 'a\nb\n' > names.txt
"$exe" yolo-postprocess head_cn.npy --layout cn --names names.txt --input-size 640x640 --image scene.png \
  | grep '^1 b 0.9000' >/dev/null || fail "--layout cn"

# Images from standard input and raw frames give the file's tensor.
"$exe" yolo-preprocess scene.png -o from_file.npy >/dev/null || fail "preprocess from a file"
"$exe" yolo-preprocess - -o from_stdin.npy < scene.png >/dev/null || fail "preprocess from stdin"
cmp -s from_file.npy from_stdin.npy || fail "preprocess from stdin differs"
{ printf 'P6\n33 21\n255\n'; head -c $((33 * 21 * 3)) /dev/urandom; } > small.ppm
tail -c $((33 * 21 * 3)) small.ppm > small.raw
"$exe" yolo-preprocess small.ppm small.ppm -o ppm.npy >/dev/null || fail "preprocess ppm"
"$exe" yolo-preprocess small.raw - --raw 33x21:rgb -o raw.npy < small.raw >/dev/null ||
  fail "preprocess --raw"
cmp -s ppm.npy raw.npy || fail "preprocess --raw differs"
"$exe" yolo-postprocess head.npy --input-size 640x640 --image - < scene.png |
  grep '^1 cls_1 0.9000 432.1 ' >/dev/null || fail "postprocess --image -"

# --exact maps back with the applied geometry (640 x 427 at top 106): x1 =
# 288 / (640 / 960) = 432.0, y1 = (288 - 106) / (427 / 640) = 272.8.
"$exe" yolo-postprocess head.npy --input-size 640x640 --image scene.png --exact > exact.txt ||
  fail "--exact"
grep -q '^letterbox: 960x640 scaled by 0.666667 to 640x427 at (0, 106)' exact.txt ||
  fail "--exact geometry: $(cat exact.txt)"
grep -q '^1 cls_1 0.9000 432.0 272.8 ' exact.txt || fail "--exact row: $(cat exact.txt)"
# Two overlapping boxes of different classes: both kept per class, one agnostic.
npy_f32 two.npy '(2, 6)' 320 320 64 64 0.9 0.1   322 320 64 64 0.1 0.8
"$exe" yolo-postprocess two.npy --input-size 640x640 --image scene.png | grep '^2 detection' >/dev/null ||
  fail "per-class NMS"
"$exe" yolo-postprocess two.npy --input-size 640x640 --image scene.png --agnostic |
  grep '^1 detection' >/dev/null || fail "--agnostic"
# An NMS-free head: rows above the threshold, in order, mapped back.
npy_f32 e2e.npy '(2, 6)' 288 288 352 352 0.9 1   0 0 10 10 0.1 0
"$exe" yolo-postprocess e2e.npy --input-size 640x640 --image scene.png --end2end > e2e.txt ||
  fail "--end2end"
grep -q '^1 cls_1 0.9000 432.0 272.8 ' e2e.txt || fail "--end2end row: $(cat e2e.txt)"
expect_error "rows of 6 values" \
  yolo-postprocess head_cn.npy --input-size 640x640 --image scene.png --end2end

# usage errors: one line, non-zero exit, no crash
expect_error "no such file: missing.png" yolo-preprocess missing.png -o x.npy
expect_error "WIDTHxHEIGHT" yolo-preprocess --size 640 scene.png -o x.npy
expect_error "layout cn" yolo-postprocess head_cn.npy --input-size 640x640 --image scene.png
expect_error "is not an .npy file" yolo-postprocess scene.png --input-size 640x640 --image scene.png

# Numeric options that would wrap or narrow are refused naming the option.
expect_error "--max-det: expects an integer from 1 to" \
  yolo-postprocess head.npy --input-size 640x640 --image scene.png --max-det -1
expect_error "--max-det" yolo-postprocess head.npy --input-size 640x640 --image scene.png --max-det 0
expect_error "--max-det" \
  yolo-postprocess head.npy --input-size 640x640 --image scene.png --max-det 18446744073709551616
expect_error "--conf: expects a finite number" \
  yolo-postprocess head.npy --input-size 640x640 --image scene.png --conf nan
expect_error "--iou: expects a finite number" \
  yolo-postprocess head.npy --input-size 640x640 --image scene.png --iou 1e39
expect_error "--thickness: expects an integer" \
  yolo-postprocess head.npy --input-size 640x640 --image scene.png --thickness 2147483648
expect_error "--size asks for 100000 x 100000 pixels, more than the pixel budget" \
  yolo-preprocess --size 100000x100000 scene.png -o x.npy
expect_error "--size asks for" demo --size 100000x100000 -o x.png

# Failed writes: the path and the reason, exit status 1.
expect_error "cannot write /dev/full: No space left on device" yolo-preprocess scene.png -o /dev/full
expect_error "cannot write /dev/full: No space left on device" \
  yolo-postprocess head.npy --input-size 640x640 --image scene.png --draw /dev/full
expect_error "cannot write /dev/full: No space left on device" demo -o /dev/full
expect_error "cannot write nodir/x.npy: No such file or directory" yolo-preprocess scene.png -o nodir/x.npy
expect_stdout_error yolo-postprocess head.npy --input-size 640x640 --image scene.png
expect_stdout_error yolo-preprocess scene.png -o ok.npy

# A channel-first head without --layout: refused with the hint; --layout nc
# reads it as rows when that is really meant.
npy_custom cn.npy 1 0 "{'descr': '<f4', 'fortran_order': False, 'shape': (1, 84, 8400), }" \
  "x$((84 * 8400 * 4))"
expect_error "cn.npy: the head is \[84, 8400\], which looks channel-first; pass --layout cn" \
  yolo-postprocess cn.npy --input-size 640x640 --image scene.png
"$exe" yolo-postprocess cn.npy --layout cn --input-size 640x640 --image scene.png | grep '^0 detection' >/dev/null ||
  fail "--layout cn on [1, 84, 8400]"
"$exe" yolo-postprocess cn.npy --layout nc --input-size 640x640 --image scene.png | grep '^0 detection' >/dev/null ||
  fail "--layout nc on [1, 84, 8400]"
# --names given a directory.
mkdir names.d
expect_error "--names: names.d is a directory" \
  yolo-postprocess head.npy --names names.d --input-size 640x640 --image scene.png
echo "cli_yolo: ok"
