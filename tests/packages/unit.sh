# daemon_test.sh's part for hosts with systemd: the unit.
# shellcheck shell=bash disable=SC2154
state() { systemctl show --property "$1" --value vexprod; }

check "the unit" "$(state ActiveState) $(state UnitFileState)" "active enabled"
check "what systemd thinks of the unit" "$(systemd-analyze verify --man=no vexprod.service 2>&1)" ""

# A stop lets the request under way finish, and leaves alone what tools have started.
echo 1500 >$knobs/_sbin_hwctl/delay_ms
ksctl call main get_vpd_channel >$work/late &
call=$!
until [ -n "$(pgrep -x hwctl)" ]; do sleep 0.1; done
systemctl stop vexprod
wait $call
check "a request under way at a stop" "$(cat $work/late)" "$reply"
rm $knobs/_sbin_hwctl/delay_ms
check "the unit when stopped" "$(state ActiveState) $(state Result)" "inactive success"

rm -rf /run/ks
systemd-tmpfiles --create
systemctl start vexprod
check "a call as soon as it has started" "$(ksctl call main get_vpd_channel)" "$reply"
check "the run directory made anew" "$(stat -c '%a %U:%G' /run/ks)" "750 root:vexprod"

# What sandboxing could break: the crash report in the log, the restart, /tmp and the queues as the host sees them.
first=$(state MainPID)
kill -SEGV "$first"
until [ "$(state NRestarts)" = 1 ] && [ "$(state ActiveState)" = active ]; do sleep 0.1; done
check "a call after the crash" "$(ksctl call main get_vpd_channel)" "$reply"
check "the crash report" "$(grep -c 'vexprod_debug_backtrace_dump.*====' /share/VexHubServer/.log/.lyn_ks_vexprod.log)" 1
check "the namespaces" "$(ls -l "/proc/$(state MainPID)/ns" | sort | sed 's/.* //')" "$(ls -l /proc/1/ns | sort | sed 's/.* //')"

mv /etc/config/zpkg.conf $work
check "starting without an entry in the registry" "$(status_of systemctl restart vexprod)" 1
mv $work/zpkg.conf /etc/config
systemctl reset-failed vexprod
check "starting with it" "$(status_of systemctl start vexprod)" 0
