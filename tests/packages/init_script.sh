# daemon_test.sh's part for hosts without systemd: the init script.
# shellcheck shell=bash disable=SC2154
init=/etc/init.d/vexprod
check "starting once more" "$(status_of $init start)" 0
check "a stranger's stop" "$(status_of as stranger $init stop)" 4
check "an unknown word" "$(status_of $init nonsense)" 2
check "stopping" "$(status_of $init stop)" 0
check "the status when stopped" "$(status_of $init status)" 3
check "stopping once more" "$(status_of $init stop)" 0
rm -rf /run/ks # as after a start of the system
check "starting" "$(status_of $init start)" 0
check "the run directory made anew" "$(stat -c '%a %U:%G' /run/ks)" "750 root:vexprod"
first=$(pgrep -x vexprod)
check "restarting" "$(status_of $init restart)" 0
check "another process" "$([ "$(pgrep -x vexprod)" != "$first" ] && ksctl call main get_vpd_channel)" "$reply"
check "the status when running" "$(status_of as stranger $init status)" 0
mv /etc/config/zpkg.conf $work
$init stop >/dev/null
check "starting without an entry in the registry" "$(status_of $init start)" 1
mv $work/zpkg.conf /etc/config
check "starting with it" "$(status_of $init start)" 0
