#!/bin/sh
# subpull -i SRC -track N OUT
#
# Writes subtitle track N (from 0) of a video as SubRip text to OUT, whole or not at all.
# Subtitles that are stored as pictures are refused: there is no text in them. The encoder
# beside this script does the reading, so its limits on files and protocols hold here too.

set -u

usage() {
  echo "usage: subpull -i SRC -track N OUT" >&2
  exit 2
}

[ $# -eq 5 ] && [ "$1" = -i ] && [ "$3" = -track ] || usage
case $4 in '' | *[!0-9]*) usage ;; esac

# A name never becomes an option or a protocol.
absolute() {
  case $1 in /*) printf '%s\n' "$1" ;; *) printf '%s/%s\n' "$(pwd)" "$1" ;; esac
}
source=$(absolute "$2")
track=$4
out=$(absolute "$5")

fail() {
  echo "subpull: $*" >&2
  exit 1
}
[ -f "$source" ] || fail "$2 is no file"

part=$out.part.$$
log=$out.log.$$
child=
cleanup() {
  rm -f -- "$part"
}
stop() {
  [ -n "$child" ] && kill "$child" 2>/dev/null && wait "$child" 2>/dev/null
  exit 143
}

# Others may write in this folder: both files have to be new, and are only written and read
# through their descriptors, so that no link in their place leads elsewhere.
set -C
{ command exec 3>"$part"; } 2>/dev/null || fail "cannot write $5"
trap cleanup EXIT
trap stop TERM INT HUP
{ command exec 4>"$log"; } 2>/dev/null || fail "cannot write $5"
rm -f -- "$log"
said=/proc/self/fd/4

"$(dirname -- "$0")/ffmpeg" -v error -i "$source" -map "0:s:$track" -c:s srt -f srt - \
  >&3 2>&4 3>&- 4>&- &
child=$!
wait "$child"
status=$?
child=

if [ "$status" -ne 0 ]; then
  grep -q 'only possible from text to text' <$said &&
    fail "subtitle track $track of $2 is stored as pictures and holds no text"
  grep -q 'matches no streams' <$said && fail "$2 has no subtitle track $track"
  grep -q 'Decoder .* not found' <$said &&
    fail "subtitle track $track of $2 is of a kind that cannot be read"
  fail "$(tail -n 1 <$said)"
fi
mv -fT -- "$part" "$out" || fail "cannot write $5"
