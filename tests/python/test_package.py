"""The package as pip installs it from the tree, without a network."""

import os
import shutil
import subprocess

from conftest import PYTHON_TREE


def test_pip_installs_it(tmp_path):
    shutil.copytree(PYTHON_TREE, tmp_path / "python")  # pip builds in the folder that it is given
    environment = {key: value for key, value in os.environ.items() if key != "PYTHONPATH"}

    def run(*command):
        done = subprocess.run(command, env=environment, cwd=tmp_path, capture_output=True, text=True)
        assert done.returncode == 0, done.stdout + done.stderr
        return done.stdout

    run("/usr/bin/python3", "-m", "venv", "--system-site-packages", "venv")
    run("venv/bin/pip", "install", "--no-index", "--no-build-isolation", "./python")
    where = run("venv/bin/python", "-c", "import kservice; print(kservice.__file__, kservice.socket_path('abc'))")
    assert where.startswith(str(tmp_path / "venv"))
    assert where.endswith("/var/run/ks/A9993E36.sock\n")
    typed = "import importlib.resources as r; print((r.files('kservice') / 'py.typed').is_file())"
    assert run("venv/bin/python", "-c", typed) == "True\n"
