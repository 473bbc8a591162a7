#!/bin/sh
# static_objects.sh NM LIBRARY... - fails when an object of the libraries registers a destructor for the process's end.
#
# The mail service is left to process exit, so its workers may run requests while static objects are destroyed. The one
# exception is lifecycle.cpp: its owners of the listeners are empty by then, and no worker knows them.
set -eu
nm=$1
shift
found=$("$nm" -A "$@" | grep -w '__cxa_atexit' | grep -v 'lifecycle\.cpp\.o' || true)
if [ -n "$found" ]; then
    echo "static objects with destructors, or a function's that are made on first use:"
    echo "$found"
    exit 1
fi
