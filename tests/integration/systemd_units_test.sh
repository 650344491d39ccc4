#!/usr/bin/env bash
# The systemd units as they are installed: whether systemd understands them, how exposed it finds them, and whether the
# folders of tmpfiles.d let members of the group share the lock files.
#
# usage: systemd_units_test.sh BUILD PACKCTL RECOVER     (77: no systemd-analyze here)
set -euo pipefail

build=$1
packctl=$2
recover=$3
command -v systemd-analyze > /dev/null || exit 77

# The most exposure that is allowed, in tenths. Four of them are for PrivateTmp and PrivateDevices, whose work others do.
# Two more are for the look at the processes of others, and are given up before a plugin runs.
readonly most_exposure=24
readonly most_exposure_of_automatic=26

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
DESTDIR=$stage cmake --install "$build/packaging/systemd" --prefix /usr > /dev/null
units=$stage/usr/lib/systemd/system

fail() {
  printf '%s\n' "$*" >&2
  exit 1
}

# in_list NAME: where the build has that folder of the appliance
in_list() {
  python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))[sys.argv[2]])' "$build/paths.json" "$1"
}

# The programs are the build's: those of this machine are not to be asked for.
sed -i "s|/usr/bin/packctl|$packctl|g; s|$(in_list ORBAMIRA_HELPERS_FOLDER)/orba-recover|$recover|g" "$units"/*.service
grep -q "^ExecStart=$recover\$" "$units/orbamira-recover.service" || fail 'the boot does not recover by orba-recover'

complaints=$(systemd-analyze verify --man=no --recursive-errors=no "$units"/orbamira-*.{service,timer,socket} 2>&1) ||
  fail "verify: $complaints"
[ -z "$complaints" ] || fail "verify: $complaints"

for service in "$units"/orbamira-*.service; do
  most=$most_exposure
  [ "${service##*/}" != orbamira-automatic.service ] || most=$most_exposure_of_automatic
  report=$(systemd-analyze security --offline=yes --no-pager --threshold="$most" "$service") ||
    fail "$report"
  grep 'Overall exposure level' <<< "$report"
done

# On a full disk or a read-only root systemd fails to start a service with one of these: it makes folders for them first.
if needs_room=$(grep -E '^(PrivateTmp|PrivateDevices|DynamicUser|RootDirectory|RootImage)=' "$units"/*.service); then
  fail "needs room on the disk: $needs_room"
fi

# Every command that a unit gives is one that packctl has.
mapfile -t commands < <(grep -hoE "$packctl [a-z]+" "$units"/*.service | awk '{ print $2 }' | sort -u)
[ "${commands[*]}" = 'check metrics recover update web' ] || fail "commands: ${commands[*]}"
for command in "${commands[@]}"; do
  "$packctl" "$command" --help > /dev/null || fail "packctl has no command $command"
done

# What a recovery does after an update that systemd ended, and after one that ended by itself.
for name in automatic update; do
  stop=$(sed -n "s|^ExecStopPost=/bin/sh -c '\(.*\)'\$|\1|p" "$units/orbamira-$name.service")
  stop=${stop//\$\$/\$}
  stop=${stop//$packctl/echo}
  for result in timeout signal core-dump oom-kill; do
    [ "$(SERVICE_RESULT=$result sh -c "$stop")" = recover ] || fail "$name: no recovery after $result"
  done
  for result in success exit-code protocol; do
    [ -z "$(SERVICE_RESULT=$result sh -c "$stop")" ] || fail "$name: a recovery after $result"
  done
done

# A timer waits as the settings say, once a check has found a pack; what a person starts does not.
grep -qx 'Unit=orbamira-automatic.service' "$units/orbamira-update.timer" || fail 'the timer waits for nothing'
grep -qx "ExecStart=$packctl update --automatic" "$units/orbamira-automatic.service" || fail 'no policy applies'
grep -qx "ConditionPathExists=$(in_list ORBAMIRA_STATE_FOLDER)/offer.json" "$units/orbamira-automatic.service" ||
  fail 'a program is started where no pack waits'
grep -qx "ExecStart=$packctl update" "$units/orbamira-update.service" || fail 'a person has to wait'

for timer in "$units"/*.timer; do
  [ -f "${timer%.timer}.service" ] || fail "$timer starts nothing"
done

# A daily check that was missed is made up for by a timer of its own, and by that alone.
timer=$units/orbamira-check.timer
when=$(sed -n 's/^OnCalendar=//p' "$timer")
systemd-analyze calendar "$when" > /dev/null || fail "$timer: $when"
grep -qx 'Wants=orbamira-missed@check.timer' "$timer" || fail "$timer: nothing looks whether it was missed"
if grep -q '^Persistent=' "$timer"; then
  fail "$timer runs twice after a boot"
fi

# Whether one was missed, by the age of the last answer.
answered=$stage/answered
missed=$(sed -n "s|^ExecCondition=/bin/sh -c '\(.*\)'\$|\1|p" "$units/orbamira-missed@.service")
missed=${missed//\$\$/\$}
checked=$(in_list ORBAMIRA_CACHE_FOLDER)/checked
[[ $missed = *" $checked "* ]] || fail "what was missed is not told by the last answer: $missed"
missed=${missed//"$checked"/$answered}
sh -c "$missed" || fail 'nothing was missed, where there never was an answer'
for case in '1 minute ago:no' '19 hours ago:no' '21 hours ago:yes' '3 days ago:yes' '2 hours:yes'; do
  touch -d "${case%:*}" "$answered"
  seen=$(sh -c "$missed" && echo yes || echo no)
  [ "$seen" = "${case#*:}" ] || fail "an answer of ${case%:*}: missed: $seen"
done
grep -qxF 'ExecStart=systemctl start --no-block orbamira-%i.service' "$units/orbamira-missed@.service" ||
  fail 'what was missed is not started'

# The port is systemd's from the boot on, and the page starts an update where its drop-ins apply.
grep -qx 'ListenStream=127.0.0.1:8642' "$units/orbamira-web.socket" || fail 'the port is not held'
grep -qx 'Requires=orbamira-web.socket' "$units/orbamira-web.service" || fail 'the page goes without the held port'
update_unit=$(sed -nE 's/^ExecStart=.* --update-unit ([^ ]+).*/\1/p' "$units/orbamira-web.service")
[ -f "$units/${update_unit:-none}" ] || fail "the page's update has no unit: $update_unit"

# Only root can give files to a group.
if [ "$(id -u)" = 0 ]; then
  mkdir -p "$stage/etc"
  printf 'root:x:0:0:root:/root:/bin/sh\n' > "$stage/etc/passwd"
  printf 'root:x:0:\n' > "$stage/etc/group"
  systemd-sysusers --root="$stage" orbamira.conf
  systemd-tmpfiles --root="$stage" --create orbamira.conf
  group=$(sed -nE "s/^$(in_list ORBAMIRA_GROUP):[^:]*:([0-9]+):.*/\1/p" "$stage/etc/group")
  [ -n "$group" ] || fail 'no group of the updater'
  run=$stage$(in_list ORBAMIRA_RUN_FOLDER)
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
