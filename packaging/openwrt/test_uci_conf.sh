#!/bin/sh
# shellcheck disable=SC2016  # the scripts in single quotes run in the shell under test
# The UCI-to-key=value conversion of the OpenWrt package, with a fake "uci"
# that prints what "uci -q show bandherd" prints, under the shells at hand
# (dash, and busybox ash as on the router); and the init script and the
# conversion checked with "sh -n" and shellcheck.
#   packaging/openwrt/test_uci_conf.sh
set -u
here=$(cd "$(dirname "$0")" && pwd)
files=$here/bandherd/files
failed=0

# What the conversion must make of the show output below.
cat >/tmp/bandherd_uci_want.$$ <<'WANT'
bandherd.enable=1
bandherd.ess=wlan0,wlan1;wlan2
bandherd.log_path=/tmp/a b='c'
bandherd.pt_sta=02:aa:00:00:00:01,02:aa:00:00:00:02
bandherd.rssi.5to6=-80,0;1;-9.775,0.1486;0
bandherd.x=y=z
bandherd.lrssi_5=-72
weft.node_steering=1
WANT

# What "uci -q show bandherd" prints: every value and list item in single
# quotes (a quote inside written '\''), anonymous sections by type and index.
cat >/tmp/bandherd_uci_show.$$ <<'SHOW'
bandherd.main=bandherd
bandherd.main.enable='1'
bandherd.main.ess='wlan0,wlan1;wlan2'
bandherd.main.log_path='/tmp/a b='\''c'\'''
bandherd.main.pt_sta='02:aa:00:00:00:01' '02:aa:00:00:00:02'
bandherd.main.banner='two
lines'
bandherd.main.set='bandherd.rssi.5to6=-80,0;1;-9.775,0.1486;0' 'bandherd.x=y=z'
bandherd.@bandherd[1]=bandherd
bandherd.@bandherd[1].lrssi_5='-72'
bandherd.@weft[0]=weft
bandherd.@weft[0].node_steering='1'
SHOW

# The conversion under the shell "$@", the fake uci answering from that file.
run() {
	"$@" -c '
		. "$1/uci_conf.sh"
		show=$2
		uci() { [ "$*" = "-q show bandherd" ] && cat "$show"; }
		bandherd_uci_conf bandherd
	' sh "$files" /tmp/bandherd_uci_show.$$
}

check() {
	name=$1
	shift
	if ! out=$(run "$@" 2>/tmp/bandherd_uci_err.$$); then
		echo "FAIL ($name): the conversion failed: $(cat /tmp/bandherd_uci_err.$$)"
		failed=1
	elif [ "$out" != "$(cat /tmp/bandherd_uci_want.$$)" ]; then
		echo "FAIL ($name): got"
		printf '%s\n' "$out"
		failed=1
	elif [ "$(cat /tmp/bandherd_uci_err.$$)" != "bandherd: bandherd.main.banner spans lines, left out" ]; then
		echo "FAIL ($name): warnings: $(cat /tmp/bandherd_uci_err.$$)"
		failed=1
	fi
	# Whether the daemon may start, from the last bandherd.enable line.
	for case in "1:yes" "0:no" "0x10:yes" "00:no" ":no" "1 :no" "yes:no" "-:no"; do
		printf 'bandherd.enable=1\nbandherd.enable=%s\n' "${case%%:*}" >/tmp/bandherd_uci_conf.$$
		got=$("$@" -c '. "$1/uci_conf.sh"; bandherd_conf_enabled "$2" && echo yes || echo no' \
			sh "$files" /tmp/bandherd_uci_conf.$$ 2>&1)
		[ "$got" = "${case#*:}" ] || { echo "FAIL ($name): enable='${case%%:*}' gives '$got'"; failed=1; }
	done
	printf 'bandherd.ess=wlan0\n' >/tmp/bandherd_uci_conf.$$
	got=$("$@" -c '. "$1/uci_conf.sh"; bandherd_conf_enabled "$2" && echo yes || echo no' \
		sh "$files" /tmp/bandherd_uci_conf.$$ 2>&1)
	[ "$got" = no ] || { echo "FAIL ($name): no enable line gives '$got'"; failed=1; }
}

check dash sh
if command -v busybox >/dev/null 2>&1; then
	check "busybox ash" busybox sh
else
	echo "test_uci_conf: no busybox, ash not tried"
fi
rm -f /tmp/bandherd_uci_show.$$ /tmp/bandherd_uci_want.$$ /tmp/bandherd_uci_err.$$ /tmp/bandherd_uci_conf.$$

# Every option of the shipped /etc/config/bandherd, commented out or not,
# names a key of the example configuration (which the unit tests hold to the
# keys the daemon reads).
example=$here/../bandherd.conf.example
keys=$(awk '
	{ sub(/^[ \t]*#?[ \t]*/, "") }
	$1 == "config" { type = $2; next }
	($1 == "option" || $1 == "list") && $2 == "set" { v = $3; gsub(/'\''/, "", v); sub(/=.*/, "", v); print v; next }
	$1 == "option" || $1 == "list" { print type "." $2 }
' "$files/bandherd.config")
[ -n "$keys" ] || { echo "FAIL: no option in bandherd.config"; failed=1; }
known=$(sed -n 's/^#\{0,1\}\([a-z0-9_.]*\)=.*/\1/p' "$example")
for key in $keys; do
	printf '%s\n' "$known" | grep -qxF "$key" || { echo "FAIL: bandherd.config sets $key, which the daemon does not read"; failed=1; }
done

for f in "$files/bandherd.init" "$files/uci_conf.sh"; do
	sh -n "$f" || { echo "FAIL: sh -n $f"; failed=1; }
done
if command -v shellcheck >/dev/null 2>&1; then
	(cd "$files" && shellcheck -x bandherd.init uci_conf.sh) || { echo "FAIL: shellcheck"; failed=1; }
else
	echo "test_uci_conf: no shellcheck, not run"
fi
[ $failed -eq 0 ] && echo "test_uci_conf: ok"
exit $failed
