#!/bin/bash
# The systemd units as they are installed: systemd takes them, they run what is there, and nothing
# enables them. Runs on a private host.
set -uo pipefail

units=/usr/lib/systemd/system
service=tesauth-rotate-key.service
timer=tesauth-rotate-key.timer
failed=0

fail() {
    echo "$*" >&2
    failed=1
}

# Which man pages this host can show is none of the units' business.
said=$(systemd-analyze verify --man=no "$units/$service" "$units/$timer" 2>&1) ||
    fail "systemd refuses the units"
# It also looks at what they depend on; only what it says about ours counts.
! grep -F tesauth-rotate-key <<<"$said" >&2 || fail "systemd complains about the units"

value() { # KEY FILE
    sed -n "s/^$1=//p" "$units/$2"
}

read -r -a command <<<"$(value ExecStart "$service")"
[ "${command[*]:1}" = 'rotate-key --older-than 30' ] || fail "it runs: ${command[*]}"
[ -x "${command[0]}" ] || fail "not there: ${command[0]}"
"${command[@]:0:2}" --help >/dev/null || fail "the command does not know its verb"

systemd-analyze calendar "$(value OnCalendar "$timer")" >/dev/null || fail "no such calendar event"
[ "$(value Persistent "$timer")" = yes ] || fail "the timer does not make up for a missed day"
[ "$(value ConditionPathExists "$service")" = /var/lib/tessary/domain_state ] ||
    fail "it would run on a host in no domain"

enabled=$(find /etc/systemd /usr/lib/systemd -path '*.wants/*' -name 'tesauth-*')
[ -z "$enabled" ] || fail "enabled by the installation: $enabled"
exit "$failed"
