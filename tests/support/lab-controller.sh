# shellcheck shell=bash
# shellcheck disable=SC2015,SC2016,SC2154 # lab, here and dir are lab's
# The lab's domain controllers. Sourced by `lab`.

# Exports what tests know the lab by.
describe_lab() { # CONTROLLERS
    local secret
    secret=$(od -An -N12 -tx1 /dev/urandom | tr -d ' \n')
    export TESAUTH_LAB=$lab TESAUTH_LAB_USER_PASSWORD=User-$secret
    describe_controller '' dc1 corp "Admin1-$secret"
    export TESAUTH_LAB_PROXY_ACCOUNT=svc-apxd TESAUTH_LAB_PROXY_KEYTAB=$dir/svc-apxd.keytab \
        TESAUTH_LAB_PROXY_CONTAINER=OU=Hosts,DC=corp,DC=example
    [ "$1" -lt 2 ] || describe_controller 2 dc2 lab "Admin2-$secret"
    [ "$1" -lt 3 ] || describe_controller 3 dc3 third "Admin3-$secret"
}

describe_controller() { # SUFFIX NAME NETBIOS PASSWORD
    local domain=$3.example
    export "TESAUTH_LAB_DOMAIN$1=$domain" "TESAUTH_LAB_REALM$1=${domain^^}" \
        "TESAUTH_LAB_NETBIOS$1=${3^^}" "TESAUTH_LAB_ADMIN$1=Administrator" \
        "TESAUTH_LAB_PASSWORD$1=$4" "TESAUTH_LAB_DC${1:-1}=$2.$domain" \
        "TESAUTH_LAB_DC${1:-1}_ADDRESS=$(address_of "$2")" \
        "TESAUTH_LAB_DC${1:-1}_ADDRESS6=$(address6_of "$2")"
}

start_controllers() { # CONTROLLERS
    local i provisioning=()
    for ((i = 1; i <= $1; i++)); do
        { provision "dc$i" && lab_start "dc$i"; } >"$dir/dc$i.log" 2>&1 &
        provisioning+=($!)
    done
    for ((i = 1; i <= $1; i++)); do
        wait "${provisioning[i - 1]}" || broken "dc$i" "did not start"
    done
    [ "$1" -lt 2 ] || trust 2 forest both >>"$dir/dc1.log" 2>&1 || broken dc1 "made no trust"
    [ "$1" -lt 3 ] || trust 3 external outgoing >>"$dir/dc1.log" 2>&1 ||
        broken dc1 "made no one-way trust"
}

broken() { # CONTROLLER PROBLEM
    cat "$dir/$1.log" >&2
    sorry 125 "$1 $2"
}

settings_of() { # CONTROLLER; sets realm, netbios, password
    local suffix=${1#dc} name
    [ "$suffix" != 1 ] || suffix=
    name=TESAUTH_LAB_REALM$suffix && realm=${!name}
    name=TESAUTH_LAB_NETBIOS$suffix && netbios=${!name}
    name=TESAUTH_LAB_PASSWORD$suffix && password=${!name}
}

provision() { # CONTROLLER
    local realm netbios password address address6
    settings_of "$1"
    address=$(address_of "$1")
    address6=$(address6_of "$1")
    wake_machine "$1" || return
    # Whatever this machine is itself to Samba, the controller starts from nothing.
    enter "$1" sh -c '
        rm -rf /etc/samba /var/lib/samba /var/cache/samba /var/log/samba
        mkdir -p /etc/samba /var/lib/samba/private /var/cache/samba /var/log/samba /run/samba' &&
        enter "$1" samba-tool domain provision --realm="$realm" --domain="$netbios" \
            --server-role=dc --dns-backend=SAMBA_INTERNAL --adminpass="$password" \
            --host-name="$1" --host-ip="$address" ${address6:+--host-ip6="$address6"} \
            --option="interfaces=lo $address $address6" \
            --option="bind interfaces only=yes" --option="dns forwarder=10.99.0.1" &&
        enter "$1" /usr/bin/python3 "$here/lab_accounts.py" "$dir/svc-apxd.keytab"
}

lab_start() { # CONTROLLER
    local with_clock=()
    controller_only "$1"
    enter "$1" pidof samba >/dev/null 2>&1 && return
    # Waits take as long as ever. Modules of the database would find the C library's clock before
    # the false one, unless told.
    [ ! -e "$dir/$1.clock" ] ||
        with_clock=(env 'LD_PRELOAD=/usr/$LIB/faketime/libfaketime.so.1' DONT_FAKE_MONOTONIC=1
            LDB_MODULES_DISABLE_DEEPBIND=1 "FAKETIME=$(<"$dir/$1.clock")")
    # A group of its own: it outlives the command that started it, and no signal meant for that
    # command reaches it.
    enter "$1" setsid "${with_clock[@]}" samba -F --no-process-group \
        </dev/null >>"$dir/$1.log" 2>&1 &
    await_controller "$1" $!
}

# Waits until all of its services listen, on all their ports; what is asked of them from then on waits
# in the socket until they come to it.
await_controller() { # CONTROLLER SAMBA-PID
    local address port listening deadline=$((SECONDS + 60))
    for address in $(addresses_of "$1"); do
        for port in udp:{53,88,389,464} tcp:{53,88,135,389,445,464,636,3268}; do
            while true; do
                listening=$(nsenter "--net=/run/netns/$1" ss -Hlntu "sport = :${port#*:}")
                grep -q "^${port%:*}.*[[ ]$address[]:]" <<<"$listening" && break
                kill -0 "$2" 2>/dev/null && [ "$SECONDS" -lt "$deadline" ] || return 1
                sleep 0.05
            done
        done
    done
}

# The first controller's domain trusts another's, and the other way about if "both".
trust() { # NUMBER TYPE DIRECTION
    local realm netbios password
    settings_of "dc$1"
    enter dc1 samba-tool domain trust create "${realm,,}" --type="$2" \
        --direction="$3" --create-location=both -U "$netbios\\Administrator%$password" \
        --local-dc-username=Administrator --local-dc-password="$TESAUTH_LAB_PASSWORD"
}

controller_only() { # NAME
    [[ $1 == dc* ]] || sorry 2 "$1 is no domain controller"
}

# Twice, for what was started meanwhile.
signal_all() { # CONTROLLER SIGNAL
    controller_only "$1"
    enter "$1" bash -c "kill -$2 -1; kill -$2 -1" 2>/dev/null
    true
}

lab_freeze() { signal_all "$1" STOP; }
lab_thaw() { signal_all "$1" CONT; }
# A process that ends is out of sight before its sockets are.
lab_kill() {
    signal_all "$1" KILL
    while enter "$1" pidof samba >/dev/null || [ -n "$(nsenter "--net=/run/netns/$1" ss -Hlnt)" ]; do
        sleep 0.01
    done
}

lab_clock() { # CONTROLLER OFFSET
    controller_only "$1"
    [[ ${2:-} =~ ^([+-][0-9]+[smhdy]?|0)$ ]] || sorry 2 "clock: by how much is $1's to be off?"
    [ "$2" = 0 ] && rm -f "$dir/$1.clock" || echo "$2" >"$dir/$1.clock"
    lab_kill "$1"
    lab_start "$1"
}

lab_log() { # CONTROLLER
    controller_only "$1"
    cat "$dir/$1.log"
}
