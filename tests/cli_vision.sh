#!/usr/bin/env bash
# Drives the vemoproc tool's vision commands as a person would: options,
# files, standard input and pipes, raw frames, messages and exit codes.
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

# Images as PNM, which the decoder reads: a random RGB 64x48 and a black grey 30x20.
{ printf 'P6\n64 48\n255\n'; head -c $((64 * 48 * 3)) /dev/urandom; } > rgb.ppm
{ printf 'P5\n30 20\n255\n'; head -c 600 /dev/zero; } > black.pgm

# made FILE SHAPE ARGS...: the command writes FILE, an .npy of shape SHAPE
# (its standard output passes through).
# same FILE ARGS...: the command's output has the bytes of FILE.
made() {
  local file=$1 shape=$2; shift 2
  "$exe" "$@" -o "$file" || fail "$*"
  [ "$(shape_of "$file")" = "'shape': $shape" ] || fail "$* shape: $(shape_of "$file")"
}
same() { local f=$1; shift; "$exe" "$@" -o s.npy >/dev/null && cmp -s s.npy "$f" || fail "$*"; }
made c.npy "(3, 224, 224)" convnext rgb.ppm --size 224 --crop-pct 0.875
made z.npy "(1, 3, 4, 4)" zentil black.pgm --size 4
# 48 x 64 -> 56 x 56 (grid 4 x 4); 20 x 30 -> 84 x 84 (grid 6 x 6); rows of 3*2*14*14.
out=$(made q.npy "(52, 1176)" qwen2vl rgb.ppm black.pgm)
[[ $out == *"rgb.ppm: grid (t, h, w) = (1, 4, 4), 16 patch rows"* ]] || fail "qwen2vl: $out"
[[ $out == *"black.pgm: grid (t, h, w) = (1, 6, 6), 36 patch rows"* ]] || fail "qwen2vl: $out"
made q8.npy "(48, 192)" qwen2vl rgb.ppm --patch-size 8 --merge-size 1 --temporal-patch-size 1 \
  --min-pixels 0 --max-pixels 1000000
# A 5 x 3 NV21 frame (15 luma bytes, 3 x 2 interleaved chroma pairs), enlarged
# to the minimum budget: 420 x 420, 30 x 30 patches.
head -c $((15 + 12)) /dev/urandom > f.nv21
made qv.npy "(900, 1176)" qwen2vl f.nv21 --raw 5x3:nv21+full

# Encoded bytes on '-', /dev/stdin as a path (read once), and raw frames (the
# PPM's own pixels as rgb, swapped as bgr, the PGM's as gray) give the file's result.
tail -c $((64 * 48 * 3)) rgb.ppm > rgb.raw
perl -0777 -pe 's/(.)(.)(.)/$3$2$1/gs' rgb.raw > bgr.raw
same c.npy convnext - < rgb.ppm
cat rgb.ppm | same c.npy convnext /dev/stdin
same c.npy convnext rgb.raw --raw 64x48:rgb
same c.npy convnext - --raw 64x48:bgr < bgr.raw
tail -c 600 black.pgm | same z.npy zentil - --raw 30x20:gray --size 4

# Bad input: one error line, exit status 1, no output file.
expect_error "frame is 27 bytes, got 26" qwen2vl - --raw 5x3:nv12 -o m.npy < <(head -c 26 f.nv21)
# A raw frame reads only the bytes it needs (and one more) from standard input.
expect_error "frame is 3 bytes, got more than 3" zentil - --raw 1x1:rgb -o m.npy < <(head -c 1000000 /dev/zero)
head -c 4 f.nv21 > four.raw
expect_error "frame is 3 bytes, got 4$" zentil four.raw --raw 1x1:rgb -o m.npy
expect_error "--raw expects" convnext rgb.raw --raw 64x48:yuv -o m.npy
expect_error "--raw expects" convnext rgb.raw --raw 64x48:rgb+full -o m.npy
expect_error "only once" qwen2vl - - -o m.npy < rgb.ppm
expect_error "standard input: Failed to decode image bytes" zentil - -o m.npy < /dev/null
printf 'not an image' > junk.png
# Each row: the expected message | the arguments (options that would narrow or
# wrap in the library's int arithmetic among them).
while IFS='|' read -r message args; do
  expect_error "$message" $args -o m.npy
done <<'ROWS'
no such file: missing.png|convnext missing.png
Failed to load image: junk.png|qwen2vl junk.png
--size: expects an integer from 1 to 2147483647, got .-2.|zentil rgb.ppm --size -2
--max-pixels: expects an integer from 1 to 2147483647, got '0'|qwen2vl rgb.ppm --max-pixels 0
--max-pixels: expects an integer from 1 to 2147483647, got '-1'|qwen2vl rgb.ppm --max-pixels -1
--max-pixels: expects an integer from 1 to 2147483647, got '4294967296'|qwen2vl rgb.ppm --max-pixels 4294967296
--min-pixels: expects an integer from 0 to 2147483647|qwen2vl rgb.ppm --min-pixels -5
--patch-size 65536 times --merge-size 32768 must fit int|qwen2vl rgb.ppm --patch-size 65536 --merge-size 32768
--patch-size: expects an integer|qwen2vl rgb.ppm --patch-size -14
--temporal-patch-size: expects an integer from 1 to 16|qwen2vl rgb.ppm --temporal-patch-size 17
--min-pixels 5000 is above --max-pixels 4000|qwen2vl rgb.ppm --min-pixels 5000 --max-pixels 4000
--size: expects an integer|convnext rgb.ppm --size 4294967297
--size asks for 100000 x 100000 pixels|convnext rgb.ppm --size 100000
--crop-pct: expects a finite number|convnext rgb.ppm --crop-pct nan
ROWS
[ ! -e m.npy ] || fail "an output file was written on error"

# Failed writes: the path and the reason.
expect_error "cannot write /dev/full: No space left on device" qwen2vl rgb.ppm -o /dev/full
expect_stdout_error qwen2vl rgb.ppm -o ok.npy
echo "cli_vision: ok"
