#!/bin/sh
# The operator's front end of bandherd: runs one command in the daemon.
#
#   steer_cli.sh help
#   steer_cli.sh sta -l 02:aa:00:00:00:01
#
# The arguments, joined by single blanks, are written as one command into the
# daemon's input FIFO; what the daemon answers on its output FIFO is printed;
# the exit status is the command's return code (negative codes give 1).
#
# A reader must hold the output FIFO before the command goes in (the daemon
# prints on its own standard output when nobody reads), and must read while
# the daemon writes (an answer may be larger than a pipe). So `cat` opens the
# FIFO first, and this script opens it for writing only to learn that cat has
# it: that open returns once a reader is there. The daemon writes the return
# code after the answer; then our end is closed and cat ends when the
# daemon's end is closed and everything is read.
#
# The daemon takes commands of at most 126 bytes and writes no return code
# for a longer or an empty one, so those are refused here with its own words.

IN=/var/run/steer_cmd_input
OUT=/var/run/steer_cmd_output
RET=/var/run/steer_cmd_ret
PID=/var/run/bandherd.pid
WAIT=${STEER_CLI_WAIT:-10}

me=steer_cli.sh

if [ $# -eq 0 ]; then
    echo "usage: $me COMMAND [ARGS...]   ($me help lists the commands)" >&2
    exit 2
fi
cmd=$*
if [ ${#cmd} -gt 126 ]; then
    echo "error: the command is too long (more then 127)"
    exit 1
fi

pid=$(cat "$PID" 2>/dev/null)
if [ -z "$pid" ] || ! kill -0 "$pid" 2>/dev/null || [ ! -p "$IN" ] || [ ! -p "$OUT" ]; then
    echo "$me: bandherd is not running" >&2
    exit 1
fi

cat "$OUT" &
reader=$!
exec 4>"$OUT"
rm -f "$RET"
printf '%s' "$cmd" >"$IN"

# Wait for the return code, a tenth of a second at a time.
tries=$((WAIT * 10))
while [ ! -s "$RET" ] && [ $tries -gt 0 ]; do
    if ! kill -0 "$pid" 2>/dev/null; then
        break
    fi
    sleep 0.1
    tries=$((tries - 1))
done
exec 4>&-

if [ ! -s "$RET" ]; then
    kill "$reader" 2>/dev/null
    wait "$reader" 2>/dev/null
    echo "$me: no answer from bandherd" >&2
    exit 1
fi
wait "$reader"
rc=$(cat "$RET")
case $rc in
    -*) exit 1 ;;
    '' | *[!0-9]*) exit 1 ;;
    *) exit "$rc" ;;
esac
