# Shared by the tool's shell checks: run with the vemoproc executable as $1.
# Sets up a scratch folder (removed on exit), checks --help, and defines the
# helpers below.
set -euo pipefail
exe=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
fail() { echo "FAIL: $*" >&2; exit 1; }

"$exe" --help >/dev/null || fail "--help"

# expect_error PATTERN ARGS...: the command fails with an exit code below 128
# (no crash) and prints exactly one line, which contains PATTERN.
expect_error() {
  local pattern=$1; shift
  local err status=0
  err=$("$exe" "$@" 2>&1 >/dev/null) || status=$?
  [ "$status" -ne 0 ] && [ "$status" -lt 128 ] || fail "'$*' exited $status"
  [ "$(printf '%s\n' "$err" | wc -l)" -eq 1 ] || fail "'$*' printed more than one line: $err"
  grep -q -- "$pattern" <<<"$err" || fail "'$*' said: $err"
}

# npy FILE DESCR SHAPE BYTES VALUE...: a version 1.0 .npy file whose elements
# are BYTES-wide little-endian words (integers, or float bit patterns in hex).
npy() {
  local file=$1 descr=$2 shape=$3 width=$4
  shift 4
  local header="{'descr': '$descr', 'fortran_order': False, 'shape': $shape, }"
  local pad=$(((64 - (10 + ${#header} + 1) % 64) % 64))
  header="$header$(printf '%*s' "$pad" '')"
  local len=$((${#header} + 1))
  {
    printf '\x93NUMPY\x01\x00'
    printf "\\x$(printf %02x $((len & 255)))\\x$(printf %02x $((len >> 8)))"
    printf '%s\n' "$header"
    for v in "$@"; do
      for ((b = 0; b < width; b++)); do printf "\\x$(printf %02x $(((v >> (8 * b)) & 255)))"; done
    done
  } >"$file"
}
# npy_f32 FILE SHAPE VALUE...: a float32 .npy file of decimal values.
npy_f32() {
  local name=$1 shape=$2; shift 2
  perl -e '
    my ($shape, @v) = @ARGV;
    my $h = "{\x27descr\x27: \x27<f4\x27, \x27fortran_order\x27: False, \x27shape\x27: $shape, }";
    $h .= " " x (63 - (10 + length($h)) % 64) . "\n";
    print "\x93NUMPY\x01\x00", pack("v", length($h)), $h, pack("f<*", @v);' "$shape" "$@" > "$name"
}

# values FILE TYPE: the elements of an .npy file as od prints them (TYPE: d4, d8, f4).
values() {
  local hl
  hl=$(od -An -t u2 -j 8 -N 2 "$1" | tr -d ' ')
  od -An -v -t "$2" -j $((10 + hl)) "$1" | xargs
}
# descr FILE / shape_of FILE: an .npy file's element type and shape.
descr() { head -c 100 "$1" | grep -a -o "'descr': '[^']*'" | cut -d"'" -f4; }
shape_of() { head -c 128 "$1" | tr -d '\0' | grep -o "'shape': ([0-9, ]*)"; }

# npy_custom FILE VERSION HEADERLEN DICT FORMAT VALUE...: an .npy file of format
# VERSION (1, 2 or 3) whose header is DICT padded with spaces and a newline to
# HEADERLEN bytes (0: to a 64-byte boundary, as numpy does), then the values
# packed with perl's pack FORMAT (f<* float32, d<* float64, l<* int32, q<* int64, C* uint8).
npy_custom() {
  local file=$1; shift
  perl -e '
    my ($ver, $len, $dict, $fmt, @v) = @ARGV;
    my $pre = $ver == 1 ? 10 : 12;
    $len = int(($pre + length($dict) + 1 + 63) / 64) * 64 - $pre if $len == 0;
    my $h = $dict . (" " x ($len - length($dict) - 1)) . "\n";
    print "\x93NUMPY", chr($ver), "\x00", ($ver == 1 ? pack("v", $len) : pack("V", $len)),
      $h, pack($fmt, @v);' "$@" > "$file"
}

# expect_stdout_error ARGS...: with standard output on a full device the
# command fails with one line naming standard output and the reason.
expect_stdout_error() {
  local err status=0
  err=$("$exe" "$@" 2>&1 >/dev/full) || status=$?
  [ "$status" -ne 0 ] && [ "$status" -lt 128 ] || fail "'$*' >/dev/full exited $status"
  [ "$(printf '%s\n' "$err" | wc -l)" -eq 1 ] || fail "'$*' >/dev/full printed: $err"
  [ "$err" = "vemoproc: error: cannot write standard output: No space left on device" ] ||
    fail "'$*' >/dev/full said: $err"
}
