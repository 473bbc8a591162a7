"""The version of project() in CMakeLists.txt is the one that users see everywhere."""

import os
import re
import subprocess
from pathlib import Path

import pytest

TREE = Path(__file__).parents[2]
BUILD = Path(os.environ["BUILD"])
PAGES = sorted(path for path in BUILD.glob("man/pages/man*/*") if not path.is_symlink())


def found_in(pattern, path):
    return re.search(pattern, path.read_text(), re.MULTILINE)[1]


VERSION = found_in(r"^project\(vexprod VERSION (\d+\.\d+\.\d+) ", TREE / "CMakeLists.txt")


def test_ksctl():
    done = subprocess.run([BUILD / "bin/ksctl", "--version"], capture_output=True, text=True)
    assert done.stdout == f"ksctl {VERSION}\n"


def test_library():
    assert found_in(r"^Version: (.*)", BUILD / "framework/libkservice.pc") == VERSION
    assert found_in(r'PACKAGE_VERSION "(.*)"', BUILD / "framework/kserviceConfigVersion.cmake") == VERSION
    assert (BUILD / "lib/libkservice.so").resolve(strict=True).name == f"libkservice.so.{VERSION}"


def test_python_package():
    assert found_in(r'^version = "(.*)"', TREE / "python/pyproject.toml") == VERSION


def test_changelog():
    releases = re.findall(r"^## \[(\d.*)\] - (\d{4}-\d\d-\d\d)$", (TREE / "CHANGELOG.md").read_text(), re.MULTILINE)
    assert releases[0][0] == VERSION
    assert releases == sorted(releases, key=lambda one: tuple(map(int, one[0].split("."))), reverse=True)
    assert [date for _, date in releases] == sorted((date for _, date in releases), reverse=True)


@pytest.mark.parametrize("page", PAGES, ids=lambda path: path.name)
def test_page(page):
    date = found_in(rf"^## \[{re.escape(VERSION)}\] - (.*)$", TREE / "CHANGELOG.md")
    assert found_in(r"^(\.TH .*)", page).endswith(f' "{date}" "vexprod {VERSION}"')
