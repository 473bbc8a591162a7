# For tests that are shell scripts, which end with $failed.
failed=0

check() { # check WHAT ACTUAL EXPECTED
    if [ "$2" = "$3" ]; then
        echo "ok   $1"
    else
        echo "FAIL $1: got '$2', expected '$3'"
        failed=1
    fi
}
