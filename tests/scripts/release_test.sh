#!/bin/bash
# scripts/check-release tells each property that is missing, and each figure that is too large: release_test.sh PROJECT
set -uo pipefail
source "$(dirname "$0")/../support/check.sh"
cd "$1" || exit
command -v hardening-check >/dev/null || { echo "skip: no hardening-check" && exit 77; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
cat >"$work/program.c" <<'END'
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
    char text[16];
    strcpy(text, argv[argc - 1]);
    return puts(text) == EOF;
}
END
branches=-fcf-protection no_branches=-fcf-protection=none
[ "$(uname -m)" != aarch64 ] || branches=-mbranch-protection=standard no_branches=-mbranch-protection=none

build() { # build OPTION...: a program that is as it should be, but for the options
    cc -O2 -D_FORTIFY_SOURCE=2 -fstack-protector-strong $branches -fPIE "$@" -c "$work/program.c" -o "$work/program.o" &&
        cc -pie -Wl,-z,relro,-z,now "$work/program.o" "$@" -o "$work/bin/program"
}

faults() { # faults LIMITS...: what is wrong with the program
    echo "$work/bin/program $*" >"$work/limits"
    scripts/check-release --limits "$work/limits" 2>/dev/null | sed -n "s|^FAULT: $work/bin/program:* ||p"
}
loose='1000000 2.99 libc.so.6 ld-linux-aarch64.so.1'

build
check "nothing is wrong" "$(faults $loose)" ''
scripts/check-release --limits "$work/limits" >/dev/null 2>&1
check "its status" $? 0
check "bytes" "$(faults "1000 ${loose#* }" | grep -c '^has [0-9]* bytes, more than 1000$')" 1
check "the C library" "$(faults 1000000 2.2 libc.so.6 ld-linux-aarch64.so.1 | sed 's/_[0-9.]*,/_N,/')" \
    'needs GLIBC_N, newer than 2.2'
scripts/check-release --limits "$work/limits" >/dev/null 2>&1
check "the status of what is not as it should be" $? 1

while IFS='|' read -r options fault; do
    # shellcheck disable=SC2086
    build $options
    check "$options" "$(faults $loose)" "$fault"
done <<END
-Wl,-z,norelro|Read-only relocations: no, not found!
-Wl,-z,lazy|Immediate binding: no, not found!
-no-pie|Position Independent Executable: no, normal executable!
-fno-stack-protector|Stack protected: no, not found!
-U_FORTIFY_SOURCE|Fortify Source functions: no, only unprotected functions found!
$no_branches|control-flow protection: 0 of 1 objects have it
-Wl,--no-as-needed -lm|needs libm.so.6
END
exit $failed
