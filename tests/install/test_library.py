"""The library as programs outside this tree find it: by pkg-config and by CMake, in a tree that may lie anywhere."""

import os
import subprocess
from pathlib import Path

import pytest

HERE = Path(__file__).parent
WARNINGS = "-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror"


def run(command, **more_environment):
    """What the shell command prints; the test fails when it does."""
    done = subprocess.run(
        command, shell=True, text=True, capture_output=True, env={**os.environ, **more_environment}
    )
    assert done.returncode == 0, f"{command}\n{done.stdout}{done.stderr}"
    return done.stdout


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    """An installed tree, moved since."""
    folder = tmp_path_factory.mktemp("installed")
    run(f"cmake --install '{os.environ['BUILD']}' --prefix '{folder}/first' --component kservice")
    return (folder / "first").rename(folder / "another place")


def pkg_config(prefix, options):
    path = next(prefix.glob("**/libkservice.pc")).parent
    return run(f"pkg-config {options} libkservice", PKG_CONFIG_PATH=str(path)).strip()


def serve_with(program, prefix):
    """What the program prints that serves the name it is given, and calls it."""
    library_path = next(prefix.glob("**/libkservice.so")).parent
    return run(f"'{program}' @/tmp/installed-library-test", LD_LIBRARY_PATH=str(library_path))


def test_c_program_by_pkg_config(prefix, tmp_path):
    flags = pkg_config(prefix, "--cflags --libs")
    run(f"$CC -std=c11 {WARNINGS} '{HERE}/client.c' -o '{tmp_path}/program' {flags}")
    assert serve_with(tmp_path / "program", prefix) == "served\n"


@pytest.mark.parametrize(
    "options, output", [("", "served\nno such service\n"), ("-fno-exceptions -fno-rtti", "served\n")]
)
def test_cpp_program_by_pkg_config(prefix, tmp_path, options, output):
    flags = pkg_config(prefix, "--cflags --libs")
    run(f"$CXX -std=c++17 {options} {WARNINGS} '{HERE}/client.cpp' -o '{tmp_path}/program' {flags}")
    assert serve_with(tmp_path / "program", prefix) == output


@pytest.mark.parametrize("target", ["kservice", "static"])
def test_programs_by_cmake(prefix, tmp_path, target):
    (tmp_path / "CMakeLists.txt").write_text(f"""
        cmake_minimum_required(VERSION 3.25)
        project(client LANGUAGES C CXX)
        find_package(kservice 1.0 REQUIRED)
        add_executable(c_client "{HERE}/client.c")
        add_executable(cpp_client "{HERE}/client.cpp")
        target_link_libraries(c_client PRIVATE kservice::{target})
        target_link_libraries(cpp_client PRIVATE kservice::{target})
        target_compile_features(cpp_client PRIVATE cxx_std_17)
    """)
    run(f"cmake -G Ninja -S '{tmp_path}' -B '{tmp_path}/build' -DCMAKE_PREFIX_PATH='{prefix}'")
    run(f"cmake --build '{tmp_path}/build'")
    assert serve_with(tmp_path / "build/c_client", prefix) == "served\n"
    assert serve_with(tmp_path / "build/cpp_client", prefix) == "served\nno such service\n"


def test_cmake_refuses_another_major_version(prefix, tmp_path):
    (tmp_path / "CMakeLists.txt").write_text("""
        cmake_minimum_required(VERSION 3.25)
        project(client LANGUAGES C)
        find_package(kservice 2.0)
        if(kservice_FOUND)
            message(FATAL_ERROR "version 1 is not version 2")
        endif()
    """)
    run(f"cmake -G Ninja -S '{tmp_path}' -B '{tmp_path}/build' -DCMAKE_PREFIX_PATH='{prefix}'")
