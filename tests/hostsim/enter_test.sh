#!/bin/bash
# Tests hostsim/enter and hostsim/probe from outside: enter_test.sh ENTER BUILD
# Exit status 77: all that could be checked here passed; what could not is named.
set -uo pipefail
source "$(dirname "$0")/../support/check.sh"

enter=("$1" --build "$2")
build=$2
scratch=$(mktemp -d "$build/enter_test.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

skipped=0
skip() { # skip REASON
    echo "skip: $1"
    skipped=1
}
status_of() { # runs the rest, prints only its status
    "$@" >/dev/null 2>&1
    echo $?
}
eventually() { # eventually COMMAND...: retries it for ten seconds
    local tries
    for ((tries = 0; tries < 200; ++tries)); do
        "$@" && return 0
        sleep 0.05
    done
    return 1
}

if [ "${HOSTSIM_IN_PLACE-}" = 1 ]; then
    skip "hostsim/enter makes no host of its own here, but lays it over the machine"
    exit 77
fi

# --- The command's own view: status, streams, arguments, folder, environment -----------------------------------------
check "exit status" "$(status_of "${enter[@]}" sh -c 'exit 7')" 7
check "death by a signal" "$(status_of "${enter[@]}" sh -c 'kill -KILL $$')" 137
check "unknown command" "$(status_of "${enter[@]}" /nonexistent)" 127
check "not executable" "$(status_of "${enter[@]}" /etc/passwd)" 126
check "no command" "$(status_of "${enter[@]}")" 2
check "unknown option" "$(status_of "${enter[@]}" --nope true)" 2
check "no such build folder" "$(status_of "$1" --build /nope true)" 2
check "no such build folder in the environment" "$(HOSTSIM_BUILD=$scratch/no status_of "$1" true; ls "$scratch")" 2
check "standard streams" "$(echo text | "${enter[@]}" sh -c 'cat; echo error >&2' 2>&1)" "text
error"
check "arguments" "$("${enter[@]}" printf '[%s]' 'two words' '' "*" -x)" "[two words][][*][-x]"
check "current folder" "$(cd /usr/lib && "${enter[@]}" pwd)" /usr/lib
check "environment" "$(ODD='a b' "${enter[@]}" sh -c 'echo "$ODD $HOSTSIM"')" "a b 1"
if [ -e /etc/debian_version ]; then
    check "prompt" "$(HOME=/ "${enter[@]}" bash -ic 'echo "${PS1@P}"' 2>/dev/null | grep -o '^(hostsim)')" "(hostsim)"
fi
check "nested use" "$("${enter[@]}" "${enter[@]}" sh -c 'echo $$; exit 3' && echo no || echo $?)" "2
3"

# --- Isolation --------------------------------------------------------------------------------------------------------
probe=hostsim_probe_$$_$RANDOM
check "the host can be changed" "$("${enter[@]}" sh -c "
    echo a >/etc/$probe && echo b >/tmp/$probe && echo c >/run/$probe && echo d >/usr/lib/$probe &&
    echo e >/dev/kmsg && echo f >/dev/shm/$probe && rm /etc/passwd &&
    cat /etc/$probe /tmp/$probe /var/run/$probe /usr/lib/$probe /dev/kmsg /dev/shm/$probe")" "a
b
c
d
e
f"
check "and the machine is not" "$(ls -d /{etc,tmp,run,usr/lib,dev/shm}/$probe /etc/passwd 2>/dev/null)" /etc/passwd
check "no mount is left" "$(grep -c '^hostsim ' /proc/self/mounts)" 0
queue=$("${enter[@]}" sh -c 'ipcmk -Q >/dev/null; ipcs -q' | grep -o '^0x[0-9a-f]*')
check "queues are the host's own" "${#queue} $(ipcs -q | grep -c "$queue")" "10 0"
check "a network of its own: loopback, which works" "$("${enter[@]}" sh -c '
    sed -n "3,\$s/:.*//p" /proc/net/dev | tr -d " "
    python3 -c "import socket
server = socket.create_server((\"127.0.0.1\", 58080))
socket.create_connection(server.getsockname())" && echo connected')" "lo
connected"
# The project's own mount may lie in /tmp, and the folders that lead to it.
check "the next host is fresh" "$("${enter[@]}" sh -c 'find /tmp -xdev ! -type d; ipcs -q | grep -c 0x')" 0
check "only its own processes" "$("${enter[@]}" sh -c 'set -- /proc/[0-9]*; echo $#')" 2
check "the build folder is the real one" "$("${enter[@]}" sh -c "echo x >'$scratch/out'" && cat "$scratch/out")" x
check "the tools are there" "$("${enter[@]}" /sbin/cfgread VexHubServer Install_Path -f /etc/config/zpkg.conf)" \
    /share/VexHubServer

# --- Life and death ---------------------------------------------------------------------------------------------------
mark=hostsim_$$_$RANDOM # recognises this test's processes from outside
is_running() { grep -qsl "$mark" /proc/[0-9]*/cmdline; }
is_gone() { ! is_running; }
check "orphans end with the command" \
    "$("${enter[@]}" bash -c "(exec -a $mark sleep 1000) & exit 0"; eventually is_gone && echo gone)" gone
check "orphans are collected" "$("${enter[@]}" sh -c '
    (sh -c "exit 0" &) ; i=0
    while [ $i -lt 200 ]; do ls /proc | grep "^[0-9]" >/tmp/now; grep -q " Z " /proc/[0-9]*/stat 2>/dev/null || break
        i=$((i + 1)); sleep 0.02; done; grep -c " Z " /proc/[0-9]*/stat 2>/dev/null | grep -vc ":0$"')" 0

"${enter[@]}" bash -c "exec -a $mark sleep 1000" &
eventually is_running
kill -TERM $!
wait $! 2>/dev/null
check "SIGTERM reaches the command" $? 143

# A background job of a script starts with SIGINT ignored, which passes through; `trap -` cannot undo that, env can.
env --default-signal=INT "${enter[@]}" bash -c "trap 'exit 9' INT; touch '$scratch/ready'; while :; do sleep 0.01; done" &
eventually test -e "$scratch/ready"
kill -INT $!
wait $! 2>/dev/null
check "SIGINT reaches the command" $? 9

"${enter[@]}" bash -c "(exec -a $mark sleep 1000) & exec -a $mark sleep 1000" &
eventually is_running
kill -KILL $!
wait $! 2>/dev/null
check "SIGKILL takes everything along" "$(eventually is_gone && echo gone)" gone

# --- The probe --------------------------------------------------------------------------------------------------------
probe=${enter[0]%enter}probe
none_here='hostsim/probe: no simulated host can be made here'
check "the probe finds all that is needed" "$("$probe" 2>&1; echo $?)" 0
check "and leaves nothing behind" "$(grep -c '^hostsim ' /proc/self/mounts)" 0
check "it knows no option" "$(status_of "$probe" --nope)" 2

# --- As root of the machine, or of a container that may do as much ---------------------------------------------------
if [ "$(id -u)" != 0 ]; then
    skip "most of what root can do: only root can make a chroot, lay a host over a machine, and become another user"
elif ! unshare --mount true 2>/dev/null; then
    skip "most of what root can do: here is a plain chroot, or no right to mount"
fi
[ $skipped = 0 ] || exit $((failed ? 1 : 77))

# --- In a plain chroot: "/" is no mount point -------------------------------------------------------------------------
# Its mount is one that others share, as under systemd: what the host mounts must stay in the host.
in_chroot() {
    unshare --mount --propagation private bash -c '
        mount -t tmpfs none /run && mount --make-rshared / && mkdir /run/root && cd /run/root || exit
        for folder in /*; do
            if [ -L "$folder" ]; then ln -s "$(readlink "$folder")" ".$folder"
            elif [ -d "$folder" ]; then mkdir ".$folder" && mount --rbind "$folder" ".$folder"; fi
        done
        chroot . "$@" 2>&1; echo "$?, $(grep -c " hostsim " /proc/self/mountinfo) mounts left"' sh "$@"
}
check "a chroot is entered from" "$(in_chroot "${enter[@]}" sh -c '/sbin/cfgread CP_APP tvLounge -f /etc/kos.ui.cp.conf
    echo a >/etc/hostsim_probe && cat /etc/hostsim_probe; exit 4')" "1
a
4, 0 mounts left"

# The probe where something is missing.
check "it agrees with a chroot" "$(in_chroot "$probe")" "0, 0 mounts left"
check "users cannot enter from there" "$(in_chroot setpriv --reuid=65534 --clear-groups sh <"$probe")" \
    "$none_here: \"/\" is no mount point (a plain chroot), and users make no namespaces there; run it as root
1, 0 mounts left"
# Nobody in a chroot makes user namespaces: like a container that allows none.
check "root without the right" "$(in_chroot setpriv --bounding-set -sys_admin "$probe")" "$none_here: root may make \
no namespaces (a container without CAP_SYS_ADMIN, or a filter); start the container with docker or \
podman run --privileged, or as hostsim/README.md says; or, if this machine may be overwritten, set HOSTSIM_IN_PLACE=1
1, 0 mounts left"
check "root without a network" "$(setpriv --bounding-set -net_admin "$probe" 2>&1; echo $?)" "$none_here: root may \
not raise the loopback interface (no CAP_NET_ADMIN); start the container with docker or \
podman run --privileged, or as hostsim/README.md says; or, if this machine may be overwritten, set HOSTSIM_IN_PLACE=1
1"
# Namespaces switched off: their largest number set to 0 for a child user namespace.
limit=/proc/sys/user/max_mnt_namespaces
switched_off() { unshare --user --map-root-user sh -c "echo 0 >$limit && exec \"\$@\"" sh "$@"; }
if switched_off true 2>/dev/null; then
    check "namespaces switched off" "$(switched_off "$probe" 2>&1; echo $?)" \
        "$none_here: namespaces are switched off: $limit is 0; as root: echo 10000 >$limit
1"
    refused=$(switched_off "${enter[@]}" true 2>&1; echo $?)
    check "a refusal is plain" "$(tail -n 1 <<<"$refused") $(grep -c '^hostsim/enter: ' <<<"$refused")" "125 2"
else
    skip "what is said when namespaces are switched off: $limit cannot be written"
fi

# --- In place: laid over a machine that may be overwritten, which here is a host itself --------------------------------
# in_place SCRIPT: runs it in such a machine, with a host in it as "$@".
project=${1%/hostsim/enter}
in_place() {
    "${enter[@]}" bash -c "cd '$project'; HOSTSIM= HOSTSIM_IN_PLACE=1; export HOSTSIM HOSTSIM_IN_PLACE
        machine() { find /etc /tmp /run /share /usr /var -xdev ! -name 'hostsim-in-place*' \\
            \( -type d -printf '%p %m\\n' -o -printf '%p %m %s\\n' \) | sort; }
        echo old >/etc/old; echo old >/etc/vpd.conf; rm /sbin/hwctl; $1" sh "${enter[@]}"
}
check "in place: the host is there, and gone" "$(in_place '
    : >"/tmp/$(printf "two\nlines, \377 no text")"
    machine >/root/before
    "$@" sh -c "grep -c VH-464 /etc/vpd.conf; rm /etc/old; echo new >/etc/profile; mkdir -p /share/new/er; touch /tmp/new
        ipcmk -Q >/dev/null; sleep 1000 & test -x /sbin/hwctl && exit 7"; echo $?
    machine >/root/after; diff /root/before /root/after; cat /etc/old /etc/vpd.conf; ipcs -q | grep -c 0x
    grep -lx sleep /proc/[0-9]*/comm; echo "none left"')" "1
7
old
old
0
none left"
check "in place: what a killed run had copied in part is not put back" "$(in_place '
    mkdir /root/bin; cat >/root/bin/cp <<-"END"
		#!/bin/sh
		/bin/cp "$@"
		find "$3" -name passwd -exec truncate -s 9 {} +
		kill -KILL $PPID
	END
    chmod +x /root/bin/cp
    machine >/root/before
    PATH=/root/bin:$PATH "$@" true; echo $?
    "$@" true; machine >/root/after; diff /root/before /root/after && echo same' 2>/dev/null)" "137
same"
check "in place: what is of another kind or mode than before" "$(in_place '
    mkdir -p /etc/kinds/file /etc/kinds/gone /etc/kinds/open /etc/kinds/link; echo in >/etc/kinds/file/in
    chown 5:6 /etc/kinds/gone; chmod 2750 /etc/kinds/gone; chmod 700 /etc/kinds/open; echo text >/etc/kinds/text
    owners() { find /etc/kinds -printf "%p %U:%G %m %l\n" | sort; }; owners >/root/owners
    machine >/root/before
    "$@" sh -c "cd /etc/kinds; rm -r file gone link; touch file; chmod 755 open; ln -s /root link; rm text; mkdir text"
    echo $?; machine >/root/after; diff /root/before /root/after; owners | diff /root/owners -
    cat /etc/kinds/file/in /etc/kinds/text; ls /root/owners')" "0
in
text
/root/owners"
check "in place: what was mounted meanwhile is left alone" "$(in_place '
    mkdir /root/data /root/share; echo mine | tee /root/data/file >/root/share/file; echo mine >/root/etc_file
    "$@" sh -c "mkdir -p /run/media/stick /run/media/new; mount --bind /root/data /run/media/stick
        mount --bind /root/share /share; mount --bind /root/etc_file /etc/old"; echo $?
    cat /root/data/file /root/share/file /root/etc_file; ls /run/media; umount /etc/old; cat /etc/old' 2>&1 | sort)" "0
hostsim/enter: /etc/old was mounted meanwhile; it is left alone
hostsim/enter: /run/media/stick was mounted meanwhile; it is left alone
hostsim/enter: /share was mounted meanwhile; it is left alone
mine
mine
mine
old
stick"
# Sent to all, as by a terminal; what passes it on is stopped until the command has died of it.
check "in place: an interrupt ends the command and what it left running" "$(in_place '
    state_is() { until grep -q "^State:.$2" "/proc/$1/status"; do sleep 0.01; done; }
    setsid env --default-signal=INT "$@" sh -c "sleep 20 & echo \$\$ >/root/ready; wait" & pid=$!
    until [ -s /root/ready ]; do sleep 0.01; done
    kill -STOP $pid; state_is $pid T
    kill -INT -- -$pid; state_is "$(cat /root/ready)" Z
    kill -CONT $pid; wait $pid; echo $?; grep -lx sleep /proc/[0-9]*/comm')" 130
check "in place: a signal before the command starts" "$(in_place '
    mkdir /root/bin; printf "#!/bin/sh\nkill -TERM \$PPID; exec /bin/cp \"\$@\"\n" >/root/bin/cp; chmod +x /root/bin/cp
    machine >/root/before
    PATH=/root/bin:$PATH "$@" echo started; echo $?
    machine >/root/after; diff /root/before /root/after && echo same')" "143
same"
# in_killed SCRIPT: the same as in_place, behind a run that was killed.
in_killed() {
    in_place 'machine >/root/before
    "$@" sh -c "rm /etc/old; ipcmk -Q >/dev/null; setsid sleep 1000 & touch /tmp/new /root/ready; exec sleep 1000" &
    until [ -e /root/ready ]; do sleep 0.05; done; kill -KILL $!; wait $! 2>/dev/null
    left() { machine >/root/after; diff /root/before /root/after; ipcs -q | grep -c 0x; grep -lx sleep /proc/[0-9]*/comm
        echo "none left"; }
    '"$1"
}
check "in place: a killed run is put back and ended by the next" "$(in_killed '"$@" true; left')" "0
none left"
check "in place: or before something is installed" "$(in_killed 'scripts/setup >/dev/null 2>&1; left')" "0
none left"
check "in place: and leaves the project that does it" "$(in_killed 'mkdir -p /tmp/new_one/project
    cp -r hostsim /tmp/new_one/project; touch /tmp/new_one/file; cd /; /tmp/new_one/project/hostsim/in_place --put-back
    ls /tmp/new_one /tmp/new_one/project/hostsim/in_place')" "/tmp/new_one/project/hostsim/in_place

/tmp/new_one:
project"
check "in place: a run that is killed while it puts back" "$(in_place '
    mkdir /root/bin; cat >/root/bin/cp <<-"END"
		#!/bin/sh
		case $2 in *before/etc/old) kill -KILL $PPID ;; *) exec /bin/cp "$@" ;; esac
	END
    chmod +x /root/bin/cp
    machine >/root/before
    PATH=/root/bin:$PATH "$@" sh -c "rm /etc/old; touch /tmp/new"; echo $?
    "$@" true; machine >/root/after; diff /root/before /root/after && echo same' 2>/dev/null)" "137
same"
check "in place: what cannot be put back is kept for the next run" "$(in_place '
    mkdir /root/bin; cat >/root/bin/cp <<-"END"
		#!/bin/sh
		case $2 in *before/etc/old) exit 1 ;; esac
		exec /bin/cp "$@"
	END
    chmod +x /root/bin/cp
    PATH=/root/bin:$PATH "$@" rm /etc/old /etc/vpd.conf 2>&1 | cut -d " " -f 2-6; cat /etc/old /etc/vpd.conf
    "$@" true; cat /etc/old' 2>&1)" "/var/lib/hostsim-in-place/before/etc/old cannot be put back:
cannot lay the host over
cat: /etc/old: No such file or directory
old
old"
check "in place: no command" "$(in_place 'hostsim/in_place . build >/dev/null 2>&1; echo $?')" 2
check "in place: never without the word" "$("${enter[@]}" "${1%enter}in_place" "$PWD" "$build" true 2>&1; echo $?)" \
    "hostsim/enter: only root, and only with HOSTSIM_IN_PLACE=1, may overwrite this machine
125"

# --- Without root -----------------------------------------------------------------------------------------------------
user=(setpriv --reuid=65534 --regid=65534 --clear-groups)
if "${user[@]}" sh <"$probe" 2>/dev/null; then
    # The project may stand in a folder that is closed to others, such as root's home: the user gets it elsewhere.
    as_user() {
        unshare --mount sh -c 'set -e; project=$1 build=$2; shift 2
            mount -t tmpfs -o mode=755 none /mnt
            mkdir /mnt/project /mnt/build
            mount --bind "$project" /mnt/project
            mount --bind "$build" /mnt/build
            cd /mnt
            exec "$@"' sh "${enter[0]%/hostsim/enter}" "$build" \
            "${user[@]}" /mnt/project/hostsim/enter --build /mnt/build "$@"
    }
    check "an ordinary user enters as root" "$(as_user sh -c 'id -u; echo a >/etc/hostsim_probe &&
        cat /etc/hostsim_probe; /sbin/cfgread CP_APP tvLounge -f /etc/kos.ui.cp.conf; exit 4'; echo $?)" "0
a
1
4"
    check "and writes where the host does" \
        "$(as_user sh -c 'echo a >/var/log/probe && mkdir /var/tmp/probe && rm /usr/bin/getfattr && echo "it does"')" "it does"
else
    skip "this system gives ordinary users no namespaces"
fi

[ $failed = 0 ] || exit 1
[ $skipped = 0 ] || exit 77
