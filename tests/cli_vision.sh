#!/usr/bin/env bash
# Drives the vemoproc tool as a person would, on files made here.
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

# Images as PNM, which the decoder reads: a random RGB 64x48 and a black grey 30x20.
{ printf 'P6\n64 48\n255\n'; head -c $((64 * 48 * 3)) /dev/urandom; } > rgb.ppm
{ printf 'P5\n30 20\n255\n'; head -c 600 /dev/zero; } > black.pgm

"$exe" convnext rgb.ppm --size 224 --crop-pct 0.875 -o c.npy >/dev/null || fail "convnext"
[ "$(shape_of c.npy)" = "'shape': (3, 224, 224)" ] || fail "convnext shape: $(shape_of c.npy)"

"$exe" zentil black.pgm --size 4 -o z.npy >/dev/null || fail "zentil"
[ "$(shape_of z.npy)" = "'shape': (1, 3, 4, 4)" ] || fail "zentil shape: $(shape_of z.npy)"
# Black maps to -1.0f (bits bf800000) in all 48 values.
values=$(tail -c 192 z.npy | od -An -v -tx4 | tr -s ' ' '\n' | grep -v '^$' | sort -u)
[ "$values" = "bf800000" ] || fail "zentil values: $values"

# 48 x 64 -> 56 x 56 (grid 4 x 4); 20 x 30 -> 84 x 84 (grid 6 x 6); rows of 3*2*14*14.
out=$("$exe" qwen2vl rgb.ppm black.pgm -o q.npy) || fail "qwen2vl"
grep -q "rgb.ppm: grid (t, h, w) = (1, 4, 4), 16 patch rows" <<<"$out" || fail "qwen2vl grid 1: $out"
grep -q "black.pgm: grid (t, h, w) = (1, 6, 6), 36 patch rows" <<<"$out" || fail "qwen2vl grid 2: $out"
[ "$(shape_of q.npy)" = "'shape': (52, 1176)" ] || fail "qwen2vl shape: $(shape_of q.npy)"
"$exe" qwen2vl rgb.ppm --patch-size 8 --merge-size 1 --temporal-patch-size 1 \
  --min-pixels 0 --max-pixels 1000000 -o q8.npy >/dev/null || fail "qwen2vl options"
[ "$(shape_of q8.npy)" = "'shape': (48, 192)" ] || fail "qwen2vl options shape: $(shape_of q8.npy)"

# Standard input and pipes: encoded bytes on '-', or /dev/stdin as a path
# (read once), give the file's result.
"$exe" convnext - -o s.npy < rgb.ppm >/dev/null || fail "convnext from stdin"
cmp -s s.npy c.npy || fail "convnext from stdin differs"
cat rgb.ppm | "$exe" convnext /dev/stdin -o p.npy >/dev/null || fail "convnext from a pipe path"
cmp -s p.npy c.npy || fail "convnext from a pipe path differs"
# Raw frames: the PPM's own pixels as rgb, swapped as bgr, the PGM's as gray.
tail -c $((64 * 48 * 3)) rgb.ppm > rgb.raw
perl -0777 -pe 's/(.)(.)(.)/$3$2$1/gs' rgb.raw > bgr.raw
"$exe" convnext rgb.raw --raw 64x48:rgb -o r.npy >/dev/null || fail "convnext --raw rgb"
cmp -s r.npy c.npy || fail "convnext --raw rgb differs"
"$exe" convnext - --raw 64x48:bgr -o b.npy < bgr.raw >/dev/null || fail "convnext --raw bgr"
cmp -s b.npy c.npy || fail "convnext --raw bgr differs"
tail -c 600 black.pgm | "$exe" zentil - --raw 30x20:gray --size 4 -o zg.npy >/dev/null ||
  fail "zentil --raw gray"
cmp -s zg.npy z.npy || fail "zentil --raw gray differs"
# A 5 x 3 NV21 frame (15 luma bytes, 3 x 2 interleaved chroma pairs), enlarged
# to the minimum budget: 420 x 420, 30 x 30 patches.
head -c $((15 + 12)) /dev/urandom > f.nv21
"$exe" qwen2vl f.nv21 --raw 5x3:nv21+full -o qv.npy >/dev/null || fail "qwen2vl --raw nv21"
[ "$(shape_of qv.npy)" = "'shape': (900, 1176)" ] || fail "qwen2vl nv21 shape: $(shape_of qv.npy)"
expect_error "frame is 27 bytes, got 26" qwen2vl - --raw 5x3:nv12 -o m.npy < <(head -c 26 f.nv21)
# A raw frame reads only the bytes it needs (and one more) from standard input.
expect_error "frame is 3 bytes, got more than 3" zentil - --raw 1x1:rgb -o m.npy < <(head -c 1000000 /dev/zero)
head -c 4 f.nv21 > four.raw
expect_error "frame is 3 bytes, got 4$" zentil four.raw --raw 1x1:rgb -o m.npy
expect_error "--raw expects" convnext rgb.raw --raw 64x48:yuv -o m.npy
expect_error "--raw expects" convnext rgb.raw --raw 64x48:rgb+full -o m.npy
expect_error "only once" qwen2vl - - -o m.npy < rgb.ppm
expect_error "standard input: Failed to decode image bytes" zentil - -o m.npy < /dev/null

# Bad input: one error line, exit status 1, no output file.
expect_error "no such file: missing.png" convnext missing.png -o m.npy
expect_error "crop_pct must be in (0, 1\]" convnext rgb.ppm --crop-pct 1.5 -o m.npy
expect_error "--size: expects an integer from 1 to 2147483647, got .-2." zentil rgb.ppm --size -2 -o m.npy
printf 'not an image' > junk.png
expect_error "Failed to load image: junk.png" qwen2vl junk.png -o m.npy
expect_error "patch-size" qwen2vl rgb.ppm --patch-size 0 -o m.npy
# Options that would narrow or wrap in the library's int arithmetic.
for v in 0 -1 4294967296; do
  expect_error "--max-pixels: expects an integer from 1 to 2147483647, got '$v'" \
    qwen2vl rgb.ppm --max-pixels "$v" -o m.npy
done
expect_error "--min-pixels: expects an integer from 0 to 2147483647" \
  qwen2vl rgb.ppm --min-pixels -5 -o m.npy
expect_error "--patch-size 65536 times --merge-size 32768 must fit int" \
  qwen2vl rgb.ppm --patch-size 65536 --merge-size 32768 -o m.npy
expect_error "--patch-size: expects an integer" qwen2vl rgb.ppm --patch-size -14 -o m.npy
expect_error "--temporal-patch-size: expects an integer from 1 to 16" \
  qwen2vl rgb.ppm --temporal-patch-size 17 -o m.npy
expect_error "--min-pixels 5000 is above --max-pixels 4000" \
  qwen2vl rgb.ppm --min-pixels 5000 --max-pixels 4000 -o m.npy
expect_error "--size: expects an integer" convnext rgb.ppm --size 4294967297 -o m.npy
expect_error "--size asks for 100000 x 100000 pixels" convnext rgb.ppm --size 100000 -o m.npy
expect_error "--crop-pct: expects a finite number" convnext rgb.ppm --crop-pct nan -o m.npy
expect_error "--size asks for" zentil rgb.ppm --size 20000 -o m.npy
[ ! -e m.npy ] || fail "an output file was written on error"

# Failed writes: the path and the reason.
expect_error "cannot write /dev/full: No space left on device" convnext rgb.ppm -o /dev/full
expect_error "cannot write /dev/full: No space left on device" zentil rgb.ppm --size 4 -o /dev/full
expect_error "cannot write /dev/full: No space left on device" qwen2vl rgb.ppm -o /dev/full
expect_stdout_error qwen2vl rgb.ppm -o ok.npy
echo "cli_vision: ok"
