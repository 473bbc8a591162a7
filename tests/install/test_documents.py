"""What README and the documents tell a reader to type, typed: in a root whose /usr/local is empty at first, beside the
real daemon, from the installed tree.

A block of code whose first line is a comment with a file's name is that file; a block of "sh" is run.
"""

import ctypes
import html
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

TREE = Path(__file__).parents[2]
BUILD = Path(os.environ["BUILD"])
REPLY = '{"result":0,"vpd_channel":"16"}\n'
CLONE_NEWNS = 0x00020000


def blocks(document, languages):
    """The document's blocks of code in `languages`, as (language, text)."""
    found = re.findall(r"^```(\w+)\n(.*?)^```$", (TREE / document).read_text(), re.MULTILINE | re.DOTALL)
    return [(language, text) for language, text in found if language in languages]


class Shell:
    """Runs blocks in a folder that looks like a built tree."""

    def __init__(self, folder):
        self.folder = folder
        (folder / "build").symlink_to(BUILD)
        shutil.copytree(TREE / "python", folder / "python")
        path = f"/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin:{BUILD}/bin"
        kept = {key: value for key, value in os.environ.items() if not key.startswith(("PYTHON", "LD_", "VIRTUAL_"))}
        self._environment = {**kept, "PATH": path}

    def start(self, command):
        return subprocess.Popen(
            ["sh", "-ec", command],
            cwd=self.folder,
            env=self._environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            start_new_session=True,
        )

    def run(self, command):
        """What it printed. What it started in the background ends with it."""
        process = self.start(command + "\nkill $(jobs -p) 2>/dev/null || true")
        output, _ = process.communicate(timeout=300)
        assert process.returncode == 0, f"{command}\n{output}"
        return output


@pytest.fixture(scope="module")
def shell(tmp_path_factory):
    if ctypes.CDLL(None).unshare(CLONE_NEWNS) != 0:
        pytest.skip("an empty /usr/local of one's own needs a mount namespace")
    subprocess.run(["mount", "--make-rprivate", "/"], check=True)
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/usr/local"], check=True)
    return Shell(tmp_path_factory.mktemp("tree"))


@pytest.fixture(scope="module")
def installed(shell):
    """The first block of README has been run, and the installed daemon with it."""
    language, install = blocks("README.md", {"sh"})[0]
    assert install.startswith("cmake --install build")
    shell.run(install)
    daemon = shell.start("exec /usr/local/sbin/vexprod")
    shell.run("ksctl wait VexHubServer-vexprod")
    yield shell
    daemon.terminate()
    output, _ = daemon.communicate(timeout=60)
    assert daemon.returncode == 0, output


def test_readme(installed):
    clients = set()
    for language, text in blocks("README.md", {"c", "cpp", "python", "sh"})[1:]:
        named = re.match(r"(?:/\*|//|#) (client\.\w+)", text)
        if named:
            (installed.folder / named[1]).write_text(text)
            clients.add(language)
        else:
            assert language == "sh"
            assert installed.run(text).endswith(REPLY)
    assert clients == {"c", "cpp", "python"}


def test_library_is_found_as_readme_says(installed):
    flags = installed.run("pkg-config --cflags --libs libkservice").split()
    assert "-lkservice" in flags
    assert (Path("/usr/local") / "lib/cmake/kservice/kserviceConfig.cmake").exists()


def test_commands_document(installed):
    (_, call), *_ = blocks("docs/commands.md", {"sh"})
    assert installed.run(call) == '{\n  "result": 0,\n  "vpd_channel": "16"\n}\n'


def test_events_document(installed):
    (_, events), *others = blocks("docs/events.md", {"sh"})
    assert not others
    heard = installed.folder / "heard"
    # As it stands there, but the listener ends after the three records that follow.
    assert "ksctl listen VexHubServer_notify-vexprod &\n" in events
    events = events.replace("-vexprod &", f"-vexprod --count 3 >'{heard}' &")
    installed.run(events + "wait")
    assert [line.split()[0] for line in sorted(heard.read_text().splitlines())] == [
        "notify_conn",
        "notify_event",
        "notify_log",
    ]


def test_nothing_else_is_told_to_be_run():
    elsewhere = {"docs/commands.md": 1, "docs/events.md": 1}
    for document in TREE.glob("docs/*.md"):
        name = str(document.relative_to(TREE))
        assert len(blocks(name, {"sh", "bash"})) == elsewhere.get(name, 0), name


def test_contributings_diff_is_in_the_tree():
    """The diff that CONTRIBUTING shows has been applied: its lines stand in their files, in its order."""
    [(_, diff)] = blocks("CONTRIBUTING.md", {"diff"}) or [("", "")]
    files = re.split(r"^\+\+\+ (.*)\n", diff, flags=re.MULTILINE)[1:]
    assert len(files) >= 2
    for name, hunks in zip(files[::2], files[1::2]):
        text = (TREE / name).read_text()
        for hunk in re.split(r"^@@.*\n", hunks, flags=re.MULTILINE)[1:]:
            lines = [line[1:] for line in hunk.splitlines() if line[:1] in ("+", " ")]
            added = "\n".join(lines).strip("\n")
            assert added in text, f"{name}:\n{added}"


def test_picture_is_drawn_from_its_source():
    source = (TREE / "docs/request.dot").read_text()
    drawn = html.unescape((TREE / "docs/request.svg").read_text())
    texts = [line for label in re.findall(r'label="([^"]+)"', source) for line in label.split("\\n")]
    assert len(texts) > 15
    assert sorted(texts) == sorted(re.findall(r"<text[^>]*>([^<]*)</text>", drawn))
