#!/bin/bash
# The proxy's systemd unit as it is installed: systemd takes it, it runs what is there as a user that
# is made, shuts out what it says, and nothing enables it. Runs on a private host.
#
# Exit status 77: what takes systemd-analyze was left out, since it is not here; the rest is right.
set -uo pipefail

units=/usr/lib/systemd/system
service=tesauth-apxd.service
failed=0

fail() {
    echo "$*" >&2
    failed=1
}

value() { # KEY
    sed -n "s/^$1=//p" "$units/$service"
}

expect() { # KEY VALUE
    [ "$(value "$1")" = "$2" ] || fail "$1 is '$(value "$1")'"
}

ask_systemd() {
    local said exposure
    systemd-sysusers /usr/lib/sysusers.d/tesauth-apxd.conf || fail "the user cannot be made"
    getent passwd tesauth-apxd >/dev/null || fail "there is no such user"
    # Which man pages this host can show is none of the unit's business.
    said=$(systemd-analyze verify --man=no "$units/$service" 2>&1) || fail "systemd refuses the unit"
    # It also looks at what the unit depends on; only what it says about ours counts.
    ! grep -F tesauth-apxd <<<"$said" >&2 || fail "systemd complains about the unit"
    # From 0, sealed, to 100. What is left: it is on the network, and has files of its own.
    exposure=$(systemd-analyze security --offline=true --threshold=20 "$units/$service" 2>&1) ||
        fail "more exposed than it need be: $(tail -n 1 <<<"$exposure")"
}

command=$(value ExecStart)
[ "$command" = /usr/sbin/tesauth-apxd ] && [ -x "$command" ] || fail "it runs: $command"
expect Type notify
expect User tesauth-apxd
expect RestartPreventExitStatus '2 3'
expect StateDirectory tesauth-apxd
expect StateDirectoryMode 0700
expect CapabilityBoundingSet ''
expect NoNewPrivileges yes
expect ProtectSystem strict
expect ProtectHome yes
expect PrivateTmp yes
[ "$(value LimitNOFILE)" -ge $((4096 + 256)) ] || fail "too few files for the connections"

# As it is shipped it serves nobody, and says what is missing.
said=$("$command" --check 2>&1) && fail "it would start as it is shipped"
for key in domain container account; do
    grep -q "^/etc/tessary/tesauth/apxd.toml:1:1: the key is missing: $key$" <<<"$said" ||
        fail "not said to be missing: $key"
done

enabled=$(find /etc/systemd /usr/lib/systemd -path '*.wants/*' -name 'tesauth-*')
[ -z "$enabled" ] || fail "enabled by the installation: $enabled"

if command -v systemd-analyze >/dev/null; then
    ask_systemd
elif [ "$failed" = 0 ]; then
    echo "no systemd-analyze here: whether systemd takes the unit was not tested" >&2
    exit 77
fi
exit "$failed"
