# shellcheck shell=bash
# shellcheck disable=SC2015,SC2016,SC2154 # lab, here and dir are lab's
# The lab's network and the machines on it. Sourced by `lab`.

address_of() { # MACHINE
    case $1 in
        lab) echo 10.99.0.1 ;;
        dc1) echo 10.99.0.10 ;;
        dc2) echo 10.99.0.20 ;;
        dc3) echo 10.99.0.30 ;;
        host*) echo "10.99.0.$((${1#host} <= 154 ? 100 + ${1#host} : ${1#host} - 115))" ;;
    esac
}

# Nothing where the kernel has no IPv6.
address6_of() { # MACHINE
    local address
    [ -e "$dir/ipv6" ] || return 0
    address=$(address_of "$1")
    echo "fd99::${address##*.}"
}

addresses_of() { # MACHINE
    address_of "$1"
    address6_of "$1"
}

domain_of() { # MACHINE
    case $1 in
        dc2) echo lab.example ;;
        dc3) echo third.example ;;
        *) echo corp.example ;;
    esac
}

hardware_of() { # MACHINE
    local address
    address=$(address_of "$1")
    printf '02:00:0a:63:00:%02x\n' "${address##*.}"
}

is_machine() { # NAME
    grep -qxF "$1" "$dir/names"
}

# Lists all machines' addresses once: with many hosts everybody needs them often.
list_addresses() { # NAME...
    local name address
    for name; do
        for address in $(addresses_of "$name"); do
            echo "$name $address $(hardware_of "$name")"
        done
    done >"$dir/addresses"
}

# Every machine knows the others' hardware addresses for good. One that is cut off can then not be
# told from one that says nothing: without that the kernel finds nobody home after three seconds.
know_neighbours() { # MACHINE DEVICE
    local name address hardware
    while read -r name address hardware; do
        [ "$name" = "$1" ] ||
            echo "neigh replace $address lladdr $hardware dev $2 nud permanent"
    done <"$dir/addresses"
}

# Nobody else has the address; without "nodad" a second would pass before it can be used.
take_addresses() { # MACHINE DEVICE
    local address
    for address in $(addresses_of "$1"); do
        case $address in
            *:*) echo "address replace $address/64 dev $2 nodad" ;;
            *) echo "address replace $address/24 dev $2" ;;
        esac
    done
}

# Brings the machine onto the network, whatever has been done to that end of it since.
connect_machine() { # NAME
    nsenter "--net=/run/netns/$1" ip -6 route flush table main 2>/dev/null
    nsenter "--net=/run/netns/$1" ip -batch - <<END
link set lo up
link set eth0 up
neigh flush dev eth0 nud all
route flush table main
address flush dev eth0
$(take_addresses "$1" eth0)
route add default via 10.99.0.1
$(know_neighbours "$1" eth0)
END
}

lay_network() { # CONTROLLERS HOSTS
    local i names=(lab) name
    for ((i = 1; i <= $1; i++)); do names+=("dc$i"); done
    for ((i = 1; i <= $2; i++)); do names+=("host$i"); done
    printf '%s\n' "${names[@]:1}" >"$dir/names"
    ip link add lan address "$(hardware_of lab)" type bridge forward_delay 0 &&
        ip link set lan up || return
    ! ip address add fd99::1/64 dev lan nodad 2>/dev/null || touch "$dir/ipv6"
    list_addresses "${names[@]}"
    ip -batch - <<END || return
$(take_addresses lab lan)
$(know_neighbours lab lan)
END
    for name in "${names[@]:1}"; do
        ip netns add "$name" &&
            ip link add "$name" type veth peer name eth0 netns "$name" \
                address "$(hardware_of "$name")" &&
            ip link set "$name" master lan up &&
            connect_machine "$name" || return
    done
}

# Each controller forwards questions about the others' domains to the lab. If they asked one another,
# a question about any third name would go round between them.
start_names() {
    local options=(--no-resolv --no-hosts --no-daemon --conf-file=/dev/null --user=root
        --listen-address=10.99.0.1 --bind-interfaces --cache-size=0 "--address=/#/")
    local name
    for name in $(grep '^dc' "$dir/names"); do
        options+=("--server=/$(domain_of "$name")/$(address_of "$name")")
    done
    with_tools dnsmasq "${options[@]}" </dev/null >"$dir/names.log" 2>&1 &
}

# The tools tree holds programs that this machine lacks; here they run where they are.
with_tools() {
    local tools=''
    [ ! -e "$dir/tools" ] || tools=$(<"$dir/tools")
    PATH=$PATH:/usr/sbin:/sbin${tools:+:$tools/usr/sbin:$tools/usr/bin} \
        LD_LIBRARY_PATH=${tools:+$tools/usr/lib/$(uname -m)-linux-gnu} "$@"
}

# Starts the machine's namespaces, if need be. Then machines/NAME holds its process 1.
wake_machine() { # NAME
    local options=() extra leader ready
    (
        flock 9
        [ ! -s "$dir/machines/$1" ] || exit 0
        mapfile -d '' -t options <"$dir/keep"
        [ ! -e "$dir/tools" ] || options+=(--keep "$(<"$dir/tools")" --stage "$(<"$dir/tools")")
        if [[ $1 == host* ]]; then
            mapfile -d '' -t extra <"$dir/stages"
            options+=("${extra[@]}")
        fi
        mkfifo "$dir/machines/$1.ready"
        setsid "$here/private-host" "${options[@]}" --keep "$dir" --netns "$1" --hostname "$1" --hold \
            </dev/null >"$dir/machines/$1.ready" 2>"$dir/machines/$1.log" 9>&- &
        leader=$!
        read -r ready <"$dir/machines/$1.ready"
        rm "$dir/machines/$1.ready"
        [ "$ready" = ready ] || { cat "$dir/machines/$1.log" >&2 && exit 125; }
        echo "$leader" >"$dir/machines/$1.leader"
        read -r leader _ <"/proc/$leader/task/$leader/children"
        echo "$leader" >"$dir/machines/$1"
        introduce "$1"
    ) 9>"$dir/machines/$1.lock"
}

# What the machine's administrator would have set up.
introduce() { # NAME
    local domain server
    domain=$(domain_of "$1")
    server=$(address_of dc1)
    [[ $1 != dc* ]] || server=$(address_of "$1")
    printf '127.0.0.1\tlocalhost\n%s\t%s.%s %s\n' "$(address_of "$1")" "$1" "$domain" "$1" |
        enter "$1" sh -c 'cat >/etc/hosts'
    printf 'search %s\nnameserver %s\n' "$domain" "$server" |
        enter "$1" sh -c 'cat >/etc/resolv.conf'
}

enter() { # NAME COMMAND...
    local name=$1
    shift
    TESAUTH_LAB_MACHINE=$name TMPDIR=/run/tmp PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin \
        nsenter --target "$(<"$dir/machines/$name")" --mount --uts --ipc --net --pid --root --wd \
        sh -c 'cd "$1" 2>/dev/null || cd /; shift; exec "$@"' sh "$PWD" "$@"
}

lab_host() { # NAME COMMAND...
    [[ $1 == host* ]] || sorry 2 "$1 is no host"
    wake_machine "$1" && enter "$@"
}

lab_fresh() { # NAME
    [[ $1 == host* ]] || sorry 2 "$1 is no host"
    [ ! -s "$dir/machines/$1" ] || kill -KILL "$(<"$dir/machines/$1.leader")"
    rm -f "$dir/machines/$1" "$dir/machines/$1.leader"
    connect_machine "$1" && wake_machine "$1"
}

lab_on() { # NAME COMMAND...
    wake_machine "$1" && enter "$@"
}

# A bridge port that is disabled takes frames and loses them; the machine's own end stays up.
lab_cut() { # NAME
    bridge link set dev "$1" state 0
}

lab_join() { # NAME
    bridge link set dev "$1" state 3
}
