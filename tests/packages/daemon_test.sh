#!/bin/bash
# The life of the packages, with systemd or without, in a simulated host over a clean Debian: daemon_test.sh PROCESSOR
set -uo pipefail
cd "${0%/*}/../.." || exit
project=$PWD
here=$project/tests/packages
source tests/support/check.sh
processor=$1
work=/run/packages-test # nothing of it may be taken for something left behind
mkdir $work
version=$(dpkg-deb -f dist/vexprod_*_"$processor".deb Version)
new=(dist/{vexprod,ksctl,libkservice1,libkservice-dev}_"${version}_$processor.deb")
reply='{"result":0,"vpd_channel":"16"}'

apt() { # what it says is shown when it fails
    DEBIAN_FRONTEND=noninteractive apt-get -q -y "$@" >$work/apt.log 2>&1 || { cat $work/apt.log && return 1; }
}

# Every file with its type, mode and owner, and the contents of the configuration. Not in it: the package manager's own
# books and logs, the simulated host's records and mounts, what systemd notes as it runs, and the second copies that the
# programs for accounts keep of /etc/group.
list_files() {
    find / \( -path /proc -o -path /sys -o -path /dev -o -path "$project" -o -path $work -o -path /mnt -o -path /run/systemd \
        -o -path /var/lib/hostsim -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache/apt -o -path /var/log/apt \
        -o -path /var/log/dpkg.log \) -prune -o -printf '%y %m %u:%g %p %l\n'
    find /etc -type f ! -name '*-' -exec cksum {} +
}

as() { # as USER COMMAND...
    setpriv --reuid "$1" --regid "$1" --init-groups "${@:2}"
}

status_of() { # runs the rest, prints only its status
    "$@" >/dev/null 2>&1
    echo $?
}

knobs=/var/lib/hostsim/knobs
mkdir -p $knobs/_sbin_hwctl
mkdir -p /share/VexHubServer/.log # the surveillance package's
for user in member stranger; do
    useradd --no-create-home $user
done
if [ ! -d /run/systemd/system ]; then
    # What the appliance's init has noted, see utmp(5): the runlevel is 2, and there was none before.
    { printf '\1\0\0\0002N\0\0' && head -c 392 /dev/zero; } >/run/utmp
    insserv >/dev/null 2>&1
fi
ldconfig # this and insserv: what the simulated host brings is noted before
list_files | sort >$work/before

# The version before is this one under a lower number.
for package in "${new[@]}"; do
    dpkg-deb -R "$package" $work/old
    sed -i "s/\b$version\b/0.9.9/" $work/old/DEBIAN/control
    dpkg-deb -b $work/old $work >/dev/null
    rm -r $work/old
done
apt install $work/*_0.9.9_*.deb
check "installing" $? 0
check "the daemon that has been started" "$(status_of service vexprod status)" 0
check "its version" "$(dpkg-query -W -f '${Version}' vexprod)" 0.9.9
check "what the doctor finds" "$(ksctl doctor | grep -c '^BAD')" 0
check "the doctor's status" "$(status_of ksctl doctor)" 0
check "a call" "$(ksctl call main get_vpd_channel)" "$reply"
check "the size of a queue" "$(sysctl -n kernel.msgmnb)" 1048576

timeout 60 ksctl listen VexHubServer_notify-vexprod --count 1 >$work/heard &
ksctl wait VexHubServer_notify-vexprod
build/bin/post_event log --user alice --content "door opened" --level 2
wait $!
check "an event" "$(grep -c '^notify_log .*"content":"door opened"' $work/heard)" 1

# Who may call.
usermod --append --groups vexprod member
check "the run directory" "$(stat -c '%a %U:%G' /run/ks)" "750 root:vexprod"
check "root's call" "$(status_of ksctl call main get_vpd_channel)" 0
check "a member's call" "$(as member ksctl call main get_vpd_channel)" "$reply"
check "a stranger's call" "$(status_of as stranger ksctl call main get_vpd_channel)" 12
echo "     a stranger is told: $(as stranger ksctl call main get_vpd_channel 2>&1)"

# The service itself, by whoever manages services here.
if [ -d /run/systemd/system ]; then
    source "${here}/unit.sh"
else
    source "${here}/init_script.sh"
fi

# The upgrade, while more callers wait than can be served at once. A caller that is told why it has no reply waits for
# the service and calls again.
echo 200 >$knobs/_sbin_hwctl/delay_ms
caller() { # caller NUMBER
    until [ -e $work/enough ]; do
        local answer status=0
        answer=$(ksctl call main get_vpd_channel --timeout 60 2>&1) || status=$?
        [ $status != 0 ] || [ "$answer" = "$reply" ] || status=wrong
        echo "$status $answer" >>"$work/calls.$1"
        [ $status = 0 ] || ksctl wait main --timeout 60
    done
}
callers=()
for number in {1..12}; do
    caller "$number" &
    callers+=($!)
done
until [ "$(cat $work/calls.* 2>/dev/null | wc -l)" -gt 12 ]; do sleep 0.1; done
first=$(pgrep -x vexprod)
apt install "${new[@]/#/./}"
check "upgrading" $? 0
check "the new version" "$(dpkg-query -W -f '${Version}' vexprod)" "$version"
check "another process after the upgrade" "$([ "$(pgrep -x vexprod)" != "$first" ] && echo yes)" yes
served=$(cat $work/calls.* | wc -l)
until [ "$(cat $work/calls.* | wc -l)" -gt $((served + 24)) ]; do sleep 0.1; done
touch $work/enough
wait "${callers[@]}"
sent=$(cat $work/calls.* | wc -l)
answered=$(cat $work/calls.* | grep -c '^0 ')
told=$(cat $work/calls.* | grep -cE '^(12|13|14|15|16|18) ')
echo "     calls: $sent sent, $answered answered, $told told of the restart:"
cat $work/calls.* | grep -v '^0 ' | sort | uniq -c
check "calls that were lost" $((sent - answered - told)) 0
check "callers who were told" "$([ "$told" -gt 0 ] && echo some)" some
check "callers who were answered in the end" "$(tail -qn 1 $work/calls.* | grep -c '^0 ')" 12

# Away with it.
kill -KILL "$(pgrep -x vexprod)" # leaves its sockets and queues behind
while pgrep -x vexprod >/dev/null; do sleep 0.1; done
apt remove vexprod ksctl libkservice1 libkservice-dev
check "removing" $? 0
check "packages that are still installed" "$(dpkg-query -W -f '${Package} ${db:Status-Abbrev}\n' | grep ' ii' | grep -E '^(vexprod|ksctl|libkservice)')" ""
check "the daemon when removed" "$(pgrep -x vexprod || echo gone)" gone
check "queues when removed" "$(ipcs -q | grep -c ^0x)" 0
apt purge vexprod
check "purging" $? 0
check "the log" "$(ls -A /share/VexHubServer/.log)" ""
list_files | sort >$work/after
check "files before and after" "$(wc -l <$work/before) $(diff $work/before $work/after)" "$(wc -l <$work/after) "
exit $failed
