#!/bin/bash
# The kernel is told of the emulator for as long as a command runs, and no longer: emulate_test.sh PROJECT
set -uo pipefail
source "$(dirname "$0")/../support/check.sh"
cd "$1" || exit

entry() { # entry PID: whether the run that is this process has an entry
    unshare --mount sh -c 'mount -t binfmt_misc none /proc/sys/fs/binfmt_misc 2>/dev/null
        ls /proc/sys/fs/binfmt_misc' | grep -q "^vexprod-arm64-$1-" && echo there || echo gone
}
comes_to() { # comes_to there|gone PID: waits for it, ten seconds at most
    local tries
    for ((tries = 0; tries < 200; ++tries)); do
        [ "$(entry "$2")" != "$1" ] || break
        sleep 0.05
    done
    entry "$2"
}

scripts/emulate sh -c 'exit 7'
check "the command's status" $? 7
if ! unshare --mount true 2>/dev/null; then
    echo "skip: what the kernel is told: only root can look"
    exit $((failed ? 1 : 77))
fi

exec {first}> >(exec scripts/emulate cat)
first_run=$!
exec {second}> >(exec {first}>&- && exec scripts/emulate cat)
second_run=$!
check "a run" "$(comes_to there $first_run)" there
check "a second one beside it" "$(comes_to there $second_run)" there
exec {second}>&-
check "the second has ended" "$(comes_to gone $second_run)" gone
check "the first has not" "$(entry $first_run)" there
kill -KILL $first_run
check "it is killed" "$(comes_to gone $first_run)" gone
exec {first}>&-

exit $failed
