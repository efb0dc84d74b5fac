#!/bin/sh
# Installs a build into a temporary directory (DESTDIR) and checks the tree:
# exactly the files an integrator gets, the programs executable, the daemon
# runnable from there, the systemd unit starting the installed daemon and
# accepted by systemd-analyze where that is at hand.
#   packaging/check_install.sh BUILD_DIR
set -eu

build=${1:?usage: check_install.sh BUILD_DIR}
cache() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }
prefix=$(cache CMAKE_INSTALL_PREFIX)
systemd=$(cache BANDHERD_INSTALL_SYSTEMD)
unitdir=$(cache BANDHERD_SYSTEMD_UNIT_DIR)

dest=$(mktemp -d)
trap 'rm -rf "$dest"' EXIT
fail() { echo "check_install: $*" >&2; exit 1; }

DESTDIR=$dest cmake --install "$build" >/dev/null
root=$dest$prefix

want="bin/steer_cli.sh
sbin/bandherd
share/doc/bandherd/bandherd.conf.example"
case $systemd in
  ON|on|1|TRUE|true|YES|yes) unit=$unitdir/bandherd.service; want="$want
$unit" ;;
  *) unit= ;;
esac
got=$(cd "$root" && find . -type f | sed 's|^\./||' | LC_ALL=C sort)
want=$(printf '%s\n' "$want" | LC_ALL=C sort)
[ "$got" = "$want" ] || fail "installed under $prefix:
$got
expected:
$want"
[ "$(cd "$dest" && find . -type f | wc -l)" -eq "$(printf '%s\n' "$want" | wc -l)" ] ||
  fail "files installed outside $prefix"

for p in sbin/bandherd bin/steer_cli.sh; do
  [ -x "$root/$p" ] || fail "$p is not executable"
done
"$root/sbin/bandherd" -V | grep -q '^Version: ' || fail "the installed daemon does not run"
sh -n "$root/bin/steer_cli.sh" || fail "steer_cli.sh does not parse"

if [ -n "$unit" ]; then
  exec_start=$(sed -n 's/^ExecStart=//p' "$root/$unit")
  [ "$exec_start" = "$prefix/sbin/bandherd" ] || fail "the unit starts '$exec_start'"
  grep -qx 'Environment=BANDHERD_CONF=/etc/bandherd.conf' "$root/$unit" || fail "the unit sets no BANDHERD_CONF"
  if command -v systemd-analyze >/dev/null 2>&1; then
    # Against this machine's units, with the daemon where it was installed.
    mkdir "$dest/verify"
    sed "s|^ExecStart=.*|ExecStart=$root/sbin/bandherd|" "$root/$unit" >"$dest/verify/bandherd.service"
    out=$(systemd-analyze verify "$dest/verify/bandherd.service" 2>&1) || fail "systemd-analyze verify: $out"
    [ -z "$out" ] || fail "systemd-analyze verify: $out"
  else
    echo "check_install: no systemd-analyze, the unit is not verified"
  fi
fi
echo "check_install: $prefix tree complete"
