#!/bin/bash
# Programs that use the installed packages, in a simulated host over a clean Debian with compilers: the README's clients,
# and the ones that are their own service. clients_test.sh PROCESSOR
set -uo pipefail
source "${0%/*}/../support/check.sh"
cd "${0%/*}/../.." || exit
tests=$PWD/tests/install
reply='{"result":0,"vpd_channel":"16"}'
export DEBIAN_FRONTEND=noninteractive
apt-get -q -y install ./dist/{vexprod,ksctl,libkservice1,libkservice-dev}_*_"$1".deb ./dist/python3-kservice_*_all.deb \
    >/tmp/apt.log 2>&1 || { cat /tmp/apt.log && exit 1; }
/etc/init.d/vexprod start || exit

mkdir /tmp/client
# The README's blocks whose first line is a comment with the file's name.
awk '/^```/ { inside = !inside; file = ""; next }
    inside && /^(\/\*|\/\/|#) client\.(c|cpp|py)( |$)/ { file = "/tmp/client/" $2 }
    file { print > file }' README.md
cd /tmp/client || exit
check "clients" "$(ls | xargs)" "client.c client.cpp client.py"
cp "$tests/client.c" self.c
cp "$tests/client.cpp" self.cpp

flags=$(pkg-config --cflags --libs libkservice)
# shellcheck disable=SC2086
cc client.c -o by-pkg-config-c $flags && c++ -std=c++17 client.cpp -o by-pkg-config-cpp $flags
check "C by pkg-config" "$(./by-pkg-config-c)" "$reply"
check "C++ by pkg-config" "$(./by-pkg-config-cpp)" "$reply"

cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.25)
project(client LANGUAGES C CXX)
find_package(kservice 1.0 REQUIRED)
foreach(name client self)
    foreach(target kservice static)
        add_executable(${name}-c-${target} ${name}.c)
        add_executable(${name}-cpp-${target} ${name}.cpp)
        target_link_libraries(${name}-c-${target} kservice::${target})
        target_link_libraries(${name}-cpp-${target} kservice::${target})
    endforeach()
endforeach()
END
cmake -S . -B build >cmake.log && cmake --build build >>cmake.log || cat cmake.log
for target in kservice static; do
    check "C by CMake, $target" "$(build/client-c-$target)" "$reply"
    check "C++ by CMake, $target" "$(build/client-cpp-$target)" "$reply"
    check "C service by CMake, $target" "$(build/self-c-$target @/tmp/self)" served
    check "C++ service by CMake, $target" "$(build/self-cpp-$target @/tmp/self | head -n 1)" served
done
check "the shared library is used" "$(readelf -d build/client-c-kservice | grep -c 'libkservice.so.1')" 1
check "the static library is used" "$(readelf -d build/client-c-static | grep -c libkservice)" 0

check "Python" "$(python3 client.py)" "$reply"
check "the Python package's version" \
    "$(python3 -c 'import importlib.metadata as m; print(m.version("kservice"))')" "$(dpkg-query -W -f '${Version}' python3-kservice)"

apt-get -q -y purge vexprod ksctl libkservice1 libkservice-dev python3-kservice >/tmp/apt.log 2>&1
check "purging" $? 0
check "what is left of Python's" "$(find / -xdev -path /proc -prune -o -path "$tests/../.." -prune -o -name '*kservice*' -print)" ""
exit $failed
