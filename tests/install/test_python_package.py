"""The package as pip installs it: built through setup.py (from the build tree
the tests run in, so nothing is compiled twice) into a fresh virtual
environment, imported from outside the source tree, and one run made with it
against the program's own."""

import os
import subprocess
import sys

EXAMPLES = os.path.join(os.environ["QUOLVENT_SOURCE_DIR"], "examples")


def test_installed_package_runs_as_the_program(tmp_path):
    # The environment sees the system's numpy and pip; pip puts the package
    # into the environment, never into the system's folders.
    venv = tmp_path / "venv"
    subprocess.run([sys.executable, "-m", "venv", "--system-site-packages", "--without-pip",
                    str(venv)], check=True)
    python = str(venv / "bin" / "python")
    env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    env["QUOLVENT_PACKAGE_BUILD"] = str(tmp_path / "package-build")
    subprocess.run([python, "-m", "pip", "install", "--no-build-isolation", "--no-index", "-q",
                    os.environ["QUOLVENT_SOURCE_DIR"]], check=True, env=env)

    control = tmp_path / "run.inp"
    control.write_text("\n".join(os.path.join(EXAMPLES, f) for f in ["mesh.txt", "obs.mag", "topo.txt"])
                       + "\nVALUE 1.0\ndaub2\nnull\n0\n")
    (tmp_path / "program").mkdir()
    subprocess.run([os.environ["QUOLVENT_EXE"], str(control), "1"], cwd=tmp_path / "program",
                   check=True, stdout=subprocess.DEVNULL)
    script = ("import sys, quolvent\n"
              "print(quolvent.__file__)\n"
              "quolvent.run(sys.argv[1], threads=1, outdir='module')\n"
              "print(quolvent.read_matrix('module/dulmarok.mtx').ndata)\n")
    shown = subprocess.run([python, "-c", script, str(control)], cwd=tmp_path, env=env, check=True,
                           capture_output=True, text=True).stdout.split()
    assert shown[0].startswith(str(venv)), shown[0]
    assert shown[1] == "403"
    assert ((tmp_path / "module" / "dulmarok.mtx").read_bytes()
            == (tmp_path / "program" / "dulmarok.mtx").read_bytes())
