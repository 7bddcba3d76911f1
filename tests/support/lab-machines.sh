# shellcheck shell=bash
# shellcheck disable=SC2015,SC2016,SC2154 # lab, here and dir are lab's
# The lab's network and the machines on it. Sourced by `lab`.

address_of() { # MACHINE
    case $1 in
        lab) echo 10.99.0.1 ;;
        dc1) echo 10.99.0.10 ;;
        dc2) echo 10.99.0.20 ;;
        host*) echo 10.99.0.$((100 + ${1#host})) ;;
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

# Every machine knows the others' hardware addresses for good. One that is cut off can then not be
# told from one that says nothing: without that the kernel finds nobody home after three seconds.
know_neighbours() { # MACHINE DEVICE NAME...
    local machine=$1 device=$2 name
    shift 2
    for name; do
        [ "$name" = "$machine" ] ||
            echo "neigh replace $(address_of "$name") lladdr $(hardware_of "$name")" \
                "dev $device nud permanent"
    done
}

lay_network() { # CONTROLLERS HOSTS
    local i names=(lab) name
    for ((i = 1; i <= $1; i++)); do names+=("dc$i"); done
    for ((i = 1; i <= $2; i++)); do names+=("host$i"); done
    printf '%s\n' "${names[@]:1}" >"$dir/names"
    ip -batch - <<END || return
link add lan address $(hardware_of lab) type bridge forward_delay 0
link set lan up
address add 10.99.0.1/24 dev lan
$(know_neighbours lab lan "${names[@]}")
END
    for name in "${names[@]:1}"; do
        ip netns add "$name" &&
            ip link add "$name" type veth peer name eth0 netns "$name" \
                address "$(hardware_of "$name")" &&
            ip link set "$name" master lan up &&
            nsenter "--net=/run/netns/$name" ip -batch - <<END || return
link set lo up
link set eth0 up
address add $(address_of "$name")/24 dev eth0
route add default via 10.99.0.1
$(know_neighbours "$name" eth0 "${names[@]}")
END
    done
}

# Each controller forwards questions about the other's domain to the lab. If they asked one another,
# a question about any third name would go round between them.
start_names() {
    local options=(--no-resolv --no-hosts --no-daemon --conf-file=/dev/null --user=root
        --listen-address=10.99.0.1 --bind-interfaces --cache-size=0 "--address=/#/")
    local name reverse
    for name in $(<"$dir/names"); do
        reverse=$(address_of "$name")
        case $name in
            dc1) options+=("--server=/corp.example/$reverse") ;;
            dc2) options+=("--server=/lab.example/$reverse") ;;
        esac
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
    local domain=corp.example server
    [ "$1" != dc2 ] || domain=lab.example
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
    wake_machine "$1"
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
