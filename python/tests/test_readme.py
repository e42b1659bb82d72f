"""The README's Python block, as it stands there: a virtual environment over
Debian's packages, the package installed into it without a registry, and the
example script run against ztsd-sim. Then the installed package finds a
library placed next to it."""
import os
import re
import shutil
import subprocess
import sys

from conftest import ROOT, Simulator

MARKER = "<!-- the Python tests run the next block -->"


def _block():
    with open(os.path.join(ROOT, "README.md")) as readme:
        text = readme.read()
    block = re.search(r"```sh\n(.*?)\n```", text[text.index(MARKER):], re.S).group(1)
    return [line for line in block.replace("\\\n", " ").splitlines() if line.strip()]


def test_the_readme_block_installs_the_package_and_runs_the_example(tmp_path):
    lines = _block()
    sim_line = next(line for line in lines if line.startswith("ztsd-sim "))
    options = re.sub(r"--(port|daemon-port) \d+", "", sim_line[len("ztsd-sim "):].rstrip(" &")).split()
    simulator = Simulator(*options)
    library = os.environ["ZTSDLIB_LIBRARY"]
    web, daemon = simulator.chassis[0]["address"].split("@")
    source = tmp_path / "python"
    shutil.copytree(os.path.join(ROOT, "python"), source, ignore=shutil.ignore_patterns("tests", "__pycache__"))
    env = {k: v for k, v in os.environ.items() if k not in ("ZTSDLIB_LIBRARY", "PYTHONPATH", "LD_LIBRARY_PATH")}
    env["PATH"] = os.path.dirname(sys.executable) + os.pathsep + env.get("PATH", "")  # python3 is this one
    outputs = []
    try:
        for line in lines:
            if line.startswith(("ztsd-sim ", "kill ")) or "-m pytest" in line:
                continue
            command = (line.replace("build/release/libztsdlib.so", library)
                       .replace("python/examples/", os.path.join(ROOT, "python", "examples") + "/")
                       .replace("127.0.0.1:8080", web).replace(":9090", ":" + daemon))
            done = subprocess.run(["bash", "-c", command], cwd=tmp_path, capture_output=True, text=True, env=env,
                                  timeout=180)
            assert done.returncode == 0, "%s\n%s%s" % (line, done.stdout, done.stderr)
            outputs.append(done.stdout)
    finally:
        simulator.stop()
    printed = outputs[-1].splitlines()
    assert printed[:2] == ["coherent at start: True", "still coherent after 1 s: True"], outputs[-1]
    assert re.fullmatch(r"host \S+ \S+ is \d+\.\d{9} s on /%s/ztsdwebs/resources/ztsd/timescales/\S+" % web,
                        printed[2]), printed[2]
    rate_ppm = float(re.fullmatch(r"rate ([-+]\d+\.\d+) ppm", printed[3]).group(1))
    assert abs(rate_ppm - 20) < 10, printed[3]

    # The installed package alone: no library found, then the one beside it.
    python = str(tmp_path / ".venv" / "bin" / "python")
    where = subprocess.run([python, "-c", "import sysconfig; print(sysconfig.get_paths()['purelib'])"],
                           capture_output=True, text=True, env=env, timeout=60)
    package = os.path.join(where.stdout.strip(), "ztsdlib")
    read = [python, "-c", "import ztsdlib; print(ztsdlib.__file__); print(ztsdlib.HostTimescale().uri)"]
    missing = subprocess.run(read, capture_output=True, text=True, env=env, cwd=tmp_path, timeout=60)
    assert missing.returncode != 0 and "libztsdlib not found; tried:" in missing.stderr
    shutil.copy(library, os.path.join(package, "libztsdlib.so"))
    found = subprocess.run(read, capture_output=True, text=True, env=env, cwd=tmp_path, timeout=60)
    assert found.returncode == 0, found.stderr
    assert found.stdout.split() == [os.path.join(package, "__init__.py"), "/localhost/ztsds/timescales/system"]
