#!/usr/bin/env bash
# The systemd units as they are installed: whether systemd understands them, how exposed it finds them, and whether the
# folders of tmpfiles.d let members of the group share the lock files.
#
# usage: systemd_units_test.sh BUILD PACKCTL     (77: no systemd-analyze here)
set -euo pipefail

build=$1
packctl=$2
command -v systemd-analyze > /dev/null || exit 77

# The most exposure that is allowed, in tenths.
readonly most_exposure=20

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
DESTDIR=$stage cmake --install "$build/packaging/systemd" --prefix /usr > /dev/null
units=$stage/usr/lib/systemd/system

fail() {
  printf '%s\n' "$*" >&2
  exit 1
}

# The programs are the build's: those of this machine are not to be asked for.
sed -i "s|/usr/bin/packctl|$packctl|g" "$units"/*.service

complaints=$(systemd-analyze verify --man=no --recursive-errors=no "$units"/orbamira-*.service "$units"/orbamira-*.timer 2>&1) ||
  fail "verify: $complaints"
[ -z "$complaints" ] || fail "verify: $complaints"

for service in "$units"/orbamira-*.service; do
  report=$(systemd-analyze security --offline=yes --no-pager --threshold="$most_exposure" "$service") ||
    fail "$report"
  grep 'Overall exposure level' <<< "$report"
done

# Every command that a unit gives is one that packctl has.
mapfile -t commands < <(grep -hoE "$packctl [a-z]+" "$units"/*.service | awk '{ print $2 }' | sort -u)
[ "${commands[*]}" = 'check recover update web' ] || fail "commands: ${commands[*]}"
for command in "${commands[@]}"; do
  "$packctl" "$command" --help > /dev/null || fail "packctl has no command $command"
done

# What a recovery does after an update that systemd ended, and after one that ended by itself.
stop=$(sed -n "s|^ExecStopPost=/bin/sh -c '\(.*\)'\$|\1|p" "$units/orbamira-update.service")
stop=${stop//\$\$/\$}
stop=${stop//$packctl/echo}
for result in timeout signal core-dump oom-kill; do
  [ "$(SERVICE_RESULT=$result sh -c "$stop")" = recover ] || fail "no recovery after $result"
done
for result in success exit-code protocol; do
  [ -z "$(SERVICE_RESULT=$result sh -c "$stop")" ] || fail "a recovery after $result"
done

for timer in "$units"/*.timer; do
  [ -f "${timer%.timer}.service" ] || fail "$timer starts nothing"
  when=$(sed -n 's/^OnCalendar=//p' "$timer")
  systemd-analyze calendar "$when" > /dev/null || fail "$timer: $when"
done

# Only root can give files to a group.
if [ "$(id -u)" = 0 ]; then
  mkdir -p "$stage/etc"
  printf 'root:x:0:0:root:/root:/bin/sh\n' > "$stage/etc/passwd"
  printf 'root:x:0:\n' > "$stage/etc/group"
  systemd-sysusers --root="$stage" orbamira.conf
  systemd-tmpfiles --root="$stage" --create orbamira.conf
  group=$(sed -nE 's/^orbamira:[^:]*:([0-9]+):.*/\1/p' "$stage/etc/group")
  [ -n "$group" ] || fail 'no group orbamira'
  run=$stage/run/orbamira
  [ "$(stat -c '%a %g' "$run/lock")" = "2750 $group" ] || fail "lock folder: $(stat -c '%a %g' "$run/lock")"
  for lock in status codec-requirements; do
    [ "$(stat -c '%a %g' "$run/lock/$lock.lock")" = "660 $group" ] || fail "$lock.lock is not the group's"
  done
  for lock in account packctl; do
    [ "$(stat -c '%a %g' "$run/lock/$lock.lock")" = '600 0' ] || fail "$lock.lock is not root's alone"
  done
  # A member reads the record with its lock; nobody else can.
  chmod 0755 "$stage"
  ORBAMIRA_ROOT=$stage setpriv --reuid 65534 --regid 65534 --groups "$group" "$packctl" status > /dev/null ||
    fail 'a member of the group cannot read the record'
  if ORBAMIRA_ROOT=$stage setpriv --reuid 65534 --regid 65534 --clear-groups "$packctl" status > /dev/null 2>&1; then
    fail 'one outside the group can take the lock'
  fi
fi
