#!/bin/bash
# The systemd units as they are installed: systemd takes them, they run what is there, nothing
# enables them, and a host in no domain has nothing to fear from them. Runs on a private host.
#
# Exit status 77: what takes systemd-analyze was left out, since it is not here; the rest is right.
set -uo pipefail

units=/usr/lib/systemd/system
service=tesauth-rotate-key.service
timer=tesauth-rotate-key.timer
failed=0

fail() {
    echo "$*" >&2
    failed=1
}

value() { # KEY FILE
    sed -n "s/^$1=//p" "$units/$2"
}

ask_systemd() {
    local said
    # Which man pages this host can show is none of the units' business.
    said=$(systemd-analyze verify --man=no "$units/$service" "$units/$timer" 2>&1) ||
        fail "systemd refuses the units"
    # It also looks at what they depend on; only what it says about ours counts.
    ! grep -F tesauth-rotate-key <<<"$said" >&2 || fail "systemd complains about the units"
    systemd-analyze calendar "$(value OnCalendar "$timer")" >/dev/null ||
        fail "no such calendar event"
}

read -r -a command <<<"$(value ExecStart "$service")"
[ "${command[*]:1}" = 'rotate-key --older-than 30' ] || fail "it runs: ${command[*]}"
[ -x "${command[0]}" ] || fail "not there: ${command[0]}"

# Whether there is a key is for the provider to say, and for nobody else.
! grep -E '^(Condition|Assert)' "$units/$service" >&2 || fail "it knows something of a provider"
# systemd makes this folder where it is missing, and cannot start a service that names another.
[ "$(value StateDirectory "$service")" = tessary ] || fail "its state is elsewhere"
[ "$(value StateDirectoryMode "$service")" = 0700 ] || fail "its state is open"
[ "$(value ReadWritePaths "$service")" = /etc ] || fail "it writes elsewhere"
rm -rf /var/lib/tessary
said=$("${command[@]}" 2>&1) || fail "it fails on a host in no domain"
[ "$said" = 'this host is in no domain: nothing to do' ] || fail "on a host in no domain: $said"

[ "$(value Persistent "$timer")" = yes ] || fail "the timer does not make up for a missed day"
enabled=$(find /etc/systemd /usr/lib/systemd -path '*.wants/*' -name 'tesauth-*')
[ -z "$enabled" ] || fail "enabled by the installation: $enabled"

if command -v systemd-analyze >/dev/null; then
    ask_systemd
elif [ "$failed" = 0 ]; then
    echo "no systemd-analyze here: whether systemd takes the units was not tested" >&2
    exit 77
fi
exit "$failed"
