#!/usr/bin/env bash
# Drives the vemoproc tool as a person would, on files made here.
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

# Compares the bytes a command writes with the expected bytes (printf format).
expect_out() {
  local want=$1
  shift
  "$@" >got
  printf "$want" >want
  cmp -s got want || fail "$* wrote $(od -An -c got | tr -s ' '), expected $(od -An -c want | tr -s ' ')"
}

# "Hello," then " w": the first line is the prompt and is skipped, the leading
# space of " w" is stripped, the empty line ends the generation.
printf '72 101 108 108 111 44\n32 119\n\n' >ids.txt
expect_out 'w\n' "$exe" stream ids.txt
expect_out 'w\n' "$exe" stream - <ids.txt
# Printing the prompt: the comma is held back (a flush with nothing written),
# then written with the next step; end() adds the line feed.
expect_out '|Hello, w|\n|' "$exe" stream --show-prompt --flush-marker '|' ids.txt

# A two-byte character split across steps is held as U+FFFD, a line end starts
# a new segment that keeps its leading spaces, and the end of the input ends the
# generation. A second generation skips its own prompt line again.
printf '1\n99 97 102 195\n169 44\n32 110 111 116 10\n32 32 104 105\n\n\n65\n32 66\n' >utf8.txt
expect_out '||caf\303\251, not\n|  hi|\n|B|\n|' "$exe" stream --flush-marker '|' utf8.txt
printf '1\n32 32 66\n' >spaces.txt
expect_out 'B\n' "$exe" stream spaces.txt
expect_out '  B\n' "$exe" stream --keep-leading-space spaces.txt

# Bad input: one-line errors, exit status 1.
for bad in '300' '-1' '7x' '0x41'; do
  if printf '1\n%s\n' "$bad" | "$exe" stream 2>err >/dev/null; then fail "accepted '$bad'"; fi
  grep -q "^vemoproc: error: stream: line 2: '$bad' is not a byte value (0 to 255)$" err ||
    fail "message for '$bad': $(cat err)"
done
if "$exe" stream missing.txt 2>err; then fail "missing file accepted"; fi
grep -q 'no such file: missing.txt' err || fail "missing file message: $(cat err)"

# Each step re-decodes its segment: one id per line stops once the segment has
# been decoded 2^27 ids over (line 16384); line feeds start new segments.
awk 'BEGIN { for (i = 1; i <= 20000; ++i) print 97 }' >long.txt
expect_error "stream: line 16384: the text since the last line feed" stream long.txt
awk 'BEGIN { for (i = 1; i <= 20000; ++i) print (i % 1000 ? 97 : 10) }' >lines.txt
"$exe" stream lines.txt >/dev/null || fail "segments ended by line feeds were refused"

# Standard output on a full device: one line naming it, exit status 1.
expect_stdout_error stream --show-prompt ids.txt
expect_stdout_error stream --help
echo "cli_stream: ok"
