#!/bin/bash
# What the installed library shows to the world: its name, its flags, its symbols. Runs on a private
# host.
set -uo pipefail

library=$(find /usr/lib* -name libtesauth.so.1 | head -n 1)
[ -n "$library" ] || { echo "libtesauth.so.1 is not installed" >&2 && exit 1; }
failed=0

expect() { # WHAT TEXT PATTERN
    grep -Eq -- "$3" <<<"$2" || { echo "$1: nothing like '$3' in:" >&2 && echo "$2" >&2 && failed=1; }
}

dynamic=$(readelf -Wd "$library")
expect name "$dynamic" 'Library soname: \[libtesauth\.so\.1\]'
expect flags "$dynamic" 'FLAGS_1.*\bNOW\b'
expect flags "$dynamic" 'FLAGS_1.*\bNODELETE\b'
expect segments "$(readelf -Wl "$library")" 'GNU_RELRO'
! grep -Eq 'RPATH|RUNPATH|TEXTREL' <<<"$dynamic" || { echo "unwanted: $dynamic" >&2 && failed=1; }

# Ours, and what the compiler makes of ours: type information, tables, guards, thunks; and the
# function templates, whose names begin with what they return.
strangers=$(nm -DC --defined-only "$library" | cut -d' ' -f3- |
    grep -Ev '^(typeinfo (name )?for |vtable for |VTT for |guard variable for |(non-virtual|virtual) thunk to |construction vtable for )?(tessary::authentication|SystemConfiguration)::' |
    grep -Ev '^std::[^()]*> tessary::authentication::(Constructor|string_cast)<' || true)
[ -z "$strangers" ] || { echo "exported, but not ours:" >&2 && echo "$strangers" >&2 && failed=1; }

symbols=$(nm -DC --defined-only "$library")
for wanted in 'ThrowMappedException\(unsigned int\)' 'ThrowMappedProxyException\(unsigned int\)' \
    'typeinfo for tessary::authentication::WSATimedOutException' \
    'RequestState::WaitResult\(int\)' 'TesauthThreadUtil::SetScheduler' \
    'ActiveDirectoryStore::StartOrAttachToRequest' 'GetKeyValuePair' \
    'Provider::PAMModule\[abi:cxx11\]\(\) const' 'Provider::PAMModuleParameters\[abi:cxx11\]\(\) const' \
    'Provider::NSSModule\[abi:cxx11\]\(\) const' 'Provider::NSSModuleParameters\[abi:cxx11\]\(\) const' \
    'Provider::GetAPIVersion\(\) const' \
    'operator>>\(.*SystemConfiguration::PAMPolicy&\)' 'typeinfo for SystemConfiguration::InvalidDatabaseException' \
    'Singleton<tessary::authentication::AuthenticationStoreFactory>::_instance'; do
    expect symbols "$symbols" "$wanted"
done
exit "$failed"
