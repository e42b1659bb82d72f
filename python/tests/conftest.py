"""Fixtures: the package from the source tree, the built library, and the
simulator program ztsd-sim run on loopback ports."""
import json
import os
import selectors
import signal
import subprocess
import sys
import time
import urllib.request

import pytest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
sys.path.insert(0, os.path.join(ROOT, "python"))
if not os.environ.get("ZTSDLIB_LIBRARY") and os.path.exists(os.path.join(ROOT, "build/release/libztsdlib.so")):
    os.environ["ZTSDLIB_LIBRARY"] = os.path.join(ROOT, "build/release/libztsdlib.so")

START_TIMEOUT_S = 20
STOP_TIMEOUT_S = 10


def sim_program():
    """ztsd-sim of the build the library comes from."""
    if os.environ.get("ZTSD_SIM"):
        return os.environ["ZTSD_SIM"]
    library = os.environ.get("ZTSDLIB_LIBRARY", os.path.join(ROOT, "build/release/libztsdlib.so"))
    return os.path.join(os.path.dirname(os.path.abspath(library)), "tools", "ztsd-sim")


class Simulator:
    """A running ztsd-sim: chassis (its start-up JSON objects, in chassis
    order), control() for runtime changes, stop()."""

    def __init__(self, *options):
        program = sim_program()
        if not os.path.exists(program):
            pytest.skip("ztsd-sim not built: %s" % program)
        self.process = subprocess.Popen([program, "--host", "127.0.0.1", *options], stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
        self.chassis, self.control_url, seen = [], None, []
        try:
            for line in self._lines_until_ready(seen):
                if line.startswith("{"):
                    self.chassis.append(json.loads(line))
                elif line.startswith("control "):
                    self.control_url = line.split(" ", 1)[1]
        except BaseException:
            self.stop()
            raise

    def _lines_until_ready(self, seen):
        deadline = time.monotonic() + START_TIMEOUT_S
        selector = selectors.DefaultSelector()
        selector.register(self.process.stdout, selectors.EVENT_READ)
        buffered = b""
        try:
            while True:
                remaining = deadline - time.monotonic()
                if remaining <= 0 or not selector.select(remaining):
                    raise RuntimeError("ztsd-sim not ready in %d s: %r" % (START_TIMEOUT_S, seen))
                chunk = os.read(self.process.stdout.fileno(), 65536)
                if not chunk:
                    raise RuntimeError("ztsd-sim ended at start-up (%s): %r" % (self.process.wait(), seen))
                buffered += chunk
                while b"\n" in buffered:
                    line, buffered = buffered.split(b"\n", 1)
                    line = line.decode().strip()
                    seen.append(line)
                    if line == "ready":
                        return
                    yield line
        finally:
            selector.close()

    def device_uri(self, chassis=0, name=None):
        entry = self.chassis[chassis]
        if name is None:
            return entry["devices"][0]["uri"]
        return "/%s/ztsdwebs/resources/ztsd/syncableDevices/%s" % (entry["remoteHost"], name)

    def daemon(self, chassis=0):
        entry = self.chassis[chassis]
        return entry["timescales"][0], entry["daemonHost"], entry["daemonPort"]

    def control(self, chassis, path):
        """POSTs a runtime change (for example "devices/chassis0/incoherent")."""
        url = self.chassis[chassis]["control"] + path
        with urllib.request.urlopen(urllib.request.Request(url, data=b"", method="POST"), timeout=10) as reply:
            answer = json.loads(reply.read())
        assert answer == {"ok": True}, answer

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(STOP_TIMEOUT_S)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(STOP_TIMEOUT_S)
        self.process.stdout.close()


# Chassis 0 runs on the host's clock, chassis 1 five seconds ahead at +20 ppm.
OFFSET_NS = [0, 5_000_000_000]


@pytest.fixture(scope="session")
def sim():
    """Two chassis shared by the tests that change nothing on them."""
    simulator = Simulator("--chassis", "2", "--clock-offset-ns", *map(str, OFFSET_NS),
                          "--clock-rate-ppb", "0", "20000")
    yield simulator
    simulator.stop()


@pytest.fixture
def own_sim():
    """One chassis of the test's own, for tests that change its state."""
    simulator = Simulator()
    yield simulator
    simulator.stop()
