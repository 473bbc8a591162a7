"""The manual pages: no complaints from the checkers, 80 columns, and in step with what they describe."""

import os
import re
import subprocess
import unicodedata
from pathlib import Path

import pytest

TREE = Path(__file__).parents[2]
BUILD = Path(os.environ["BUILD"])
MADE = BUILD / "man/pages"
FILES = sorted(MADE.glob("man*/*"))
PAGES = [path for path in FILES if not path.is_symlink()]
each_page = pytest.mark.parametrize("page", PAGES, ids=lambda path: path.name)


def run(*command):
    return subprocess.run(list(map(str, command)), capture_output=True, text=True)


def as_shown(page, columns=80):
    """A page as man(1) shows it on a terminal, without emphasis, and the formatter's warnings."""
    done = run("groff", "-man", "-t", "-ww", "-Tutf8", "-P-cbou", f"-rLL={columns - 2}n", page)
    assert done.returncode == 0, done.stderr
    return done.stdout, done.stderr


def width(line):
    return sum(2 if unicodedata.east_asian_width(char) in "WF" else 1 for char in line)


def words(text):
    """The text with single blanks for all white space."""
    return " ".join(text.split())


def test_all_pages_are_there():
    assert [path.name for path in PAGES] == [
        "ksctl.1", "ks_call.3", "ks_constants.3", "ks_helpers.3", "ks_io.3", "ks_records.3", "ks_service.3",
        "ks_signal.3", "libkservice.3", "ks-protocol.7", "vexprod-commands.7", "vexprod-events.7", "vexprod.8",
    ]  # fmt: skip


@each_page
def test_checkers_find_nothing(page):
    lint = run("mandoc", "-T", "lint", "-W", "warning", page)
    assert (lint.stdout + lint.stderr, lint.returncode) == ("", 0)
    assert as_shown(page)[1] == ""


@each_page
def test_fits_80_columns(page):
    shown, _ = as_shown(page)
    assert [line for line in shown.splitlines() if width(line) > 80] == []


@each_page
def test_nothing_of_the_source_is_left(page):
    shown, _ = as_shown(page, 1000)
    assert not re.search(r"\.md\b|<!--|\]\(|```|(\*+)[-\w]+\1(?!\w)", shown)


def test_printed_client_is_whole():
    """Unlike JSON, a program cannot be broken at the width of the page."""
    document = (TREE / "docs/protocol.md").read_text()
    [client] = re.findall(r"^```python\n(.*?)^```$", document, re.MULTILINE | re.DOTALL)
    shown, _ = as_shown(MADE / "man7/ks-protocol.7")
    assert [line for line in client.splitlines() if f" {line}\n" not in shown and line] == []


@each_page
def test_pages_of_ours_that_it_names_are_there(page):
    named = re.findall(r"\\fB((?:ks|vex|lib).*?)\\fR\((\d)\)", page.read_text())
    names = {f"{name}.{n}".replace("\\", "") for name, n in named}
    assert names <= {path.name for path in FILES}


def test_every_function_is_found_by_its_name():
    exported = re.findall(r"^    (\w+);", (TREE / "framework/kservice.map").read_text(), re.MULTILINE)
    assert len(exported) > 40
    for name in set(exported) - {"signal_handler"}:  # a variable
        page = (MADE / "man3" / f"{name}.3").resolve(strict=True)
        head = re.search(r"^\.SH NAME\n(.*) \\- ", page.read_text(), re.MULTILINE)[1]
        assert name in head.split(", "), name
    assert {path.stem for path in FILES if path.is_symlink()} <= set(exported)


def test_ksctl_page_says_what_its_help_says():
    page = words(as_shown(MADE / "man1/ksctl.1", 10000)[0])

    def help_of(*subcommand):
        return run(BUILD / "bin/ksctl", *subcommand, "--help").stdout

    everything = help_of()
    names = re.findall(r"^  (\w+) {3,}", everything.split("Subcommands:")[1], re.MULTILINE)
    assert len(names) > 5
    statuses = re.findall(r"^ +(\d+)  (.*)", everything, re.MULTILINE)
    missing = [text for text in map(" ".join, statuses) if f" {text} " not in page]
    helps = [help_of(name) for name in names]
    begins = [page.index(words(re.search("Usage: (.*)", text)[1])) for text in helps]
    for name, text, begin, end in zip(names, helps, begins, [*begins[1:], page.index(" EXIT STATUS ")]):
        section = page[begin:end]
        expected = [text.splitlines()[0] + "."]
        text, examples = text.split("\n\nExample:\n")
        lists, *details = re.split(r"\n\n(?=\S)", text.split("\n\n", 1)[1].replace("\n\nOptions:", ""))
        for option, meaning in re.findall(r"^  (\S.*?) {2,}(\S.*)$", lists, re.MULTILINE):
            term, _, default = re.sub(r"^(\w+) TEXT.*", r"\1", option).partition("=")
            if not term.startswith("-h,"):
                expected.append(f"{term.replace(',', ', ')} {meaning}" + (f". Default: {default}" if default else ""))
        missing += [f"{name}: {line}" for line in [*expected, *details] if words(line) not in section]
        missing += [f"{name}: {line}" for line in examples.splitlines() if words(line) not in page]
    assert missing == []


def test_installed(tmp_path):
    done = run("cmake", "--install", BUILD, "--prefix", tmp_path)
    assert done.returncode == 0, done.stderr
    found = {path.name for path in (tmp_path / "share/man").glob("man*/*") if path.resolve(strict=True)}
    assert found == {path.name for path in FILES}
