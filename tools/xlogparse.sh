#!/bin/sh
# xlogparse.sh LOG
#
# Reports, as its exit status, how many percent of its input an encoder has done, from the log
# that the encoder writes to its standard error. 0 when that cannot be told yet.
#
# Only the start (length of the input) and the end (last position) of the log are read. Lines
# are recognised from their first column on, where the encoder's own words stand, so that tags
# of the media cannot pass for them.

log=$1
[ -f "$log" ] && [ -r "$log" ] || exit 0

{ head -c 131072 -- "$log"; echo; tail -c 8192 -- "$log"; } 2>/dev/null | tr '\r' '\n' | LC_ALL=C awk '
  function seconds(text,   part) {
    if (text !~ /^[0-9]+:[0-9][0-9]:[0-9][0-9](\.[0-9]+)?$/) return -1
    split(text, part, ":")
    return part[1] * 3600 + part[2] * 60 + part[3]
  }
  /^  Duration: / && total <= 0 {
    text = $2
    sub(/,$/, "", text)
    total = seconds(text)
  }
  /^(frame|size)=/ {
    if (match($0, /[ ]time=[^ ]*/)) {
      position = seconds(substr($0, RSTART + 6, RLENGTH - 6))
      if (position >= 0) done = position
    }
  }
  END {
    if (total <= 0) exit 0
    percent = int(done * 100 / total)
    exit percent > 100 ? 100 : percent
  }'
