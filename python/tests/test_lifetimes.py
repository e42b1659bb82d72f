"""Deletion order, threads and the status mapping of the package."""
import ctypes
import gc
import json
import os
import signal
import subprocess
import sys
import threading
import time
import warnings
from unittest.mock import ANY

import pytest

import ztsdlib
from conftest import OFFSET_NS, ROOT

HOST = ztsdlib.HOST_TIMESCALE_URI


class _Recording:
    """Stands in for the library on one object: records its deletion, then
    deletes for real."""

    def __init__(self, lib, log, name):
        self._lib, self._log, self._name = lib, log, name

    def __getattr__(self, attribute):
        function = getattr(self._lib, attribute)
        if not attribute.endswith("_delete"):
            return function
        return lambda handle: (self._log.append(self._name), function(handle))


def _recorded(log, **objects):
    for name, value in objects.items():
        value._lib = _Recording(value._lib, log, name)
    return objects


def _correlator_over_remote(sim, log):
    a, b = ztsdlib.HostTimescale(), ztsdlib.TimescaleProxy(*sim.daemon(1))
    linear = ztsdlib.LinearCorrelator("/localhost/test/correlators/g", a, b, 10, 4, 5000)
    caching = ztsdlib.CachingCorrelator("/localhost/test/correlators/c", linear)
    return _recorded(log, a=a, b=b, linear=linear, caching=caching)


# Who goes first: the user's closes in a bad order, or nothing at all.
@pytest.mark.parametrize("closes", [[], ["a", "b"], ["a", "b", "linear"], ["b", "linear", "a"]])
@pytest.mark.parametrize("cycle", [False, True])
def test_handles_outlive_their_users(sim, closes, cycle):
    log = []
    objects = _correlator_over_remote(sim, log)
    objects["caching"].start()
    for name in closes:
        objects[name].close()
    caching = objects.pop("caching")
    if cycle:  # the collector then finalises the cycle's objects in any order
        for name in objects:
            objects[name].cycle = objects
    objects = None
    gc.collect()
    now = ztsdlib.HostTimescale().get_time()  # both timescales still read, the offset as the chassis'
    assert abs(caching.correlate(now, HOST).nanoseconds - now.nanoseconds - OFFSET_NS[1]) < 10**9 // 20
    caching = None
    gc.collect()
    assert sorted(log) == ["a", "b", "caching", "linear"]
    assert log.index("caching") < log.index("linear") < min(log.index("a"), log.index("b"))


def test_domain_outlives_nothing_it_uses(own_sim):
    log = []
    timescale, pool = ztsdlib.TimescaleProxy(*own_sim.daemon()), ztsdlib.ThreadPool(2)
    device = ztsdlib.SyncableDevice(own_sim.device_uri())
    domain = ztsdlib.SyncDomain("/localhost/test/syncDomains/g", timescale, pool)
    domain.add_syncable_device(device)
    _recorded(log, timescale=timescale, pool=pool, device=device, domain=domain)
    pool.close()
    timescale = pool = device = None
    gc.collect()
    assert domain.start(10) and domain.is_coherent()
    domain = None
    gc.collect()
    assert log[0] == "domain" and sorted(log[1:]) == ["device", "pool", "timescale"]


def test_a_closed_object_refuses_calls():
    timescale = ztsdlib.HostTimescale()
    timescale.close()
    for call in (lambda: timescale.get_time(), lambda: ztsdlib.NopCorrelator("/x/c", timescale, timescale)):
        with pytest.raises(ValueError):
            call()


THREADS = 8
ROUNDS = 25


def test_calls_from_several_threads(sim):
    with ztsdlib.HostTimescale() as host, ztsdlib.TimescaleProxy(*sim.daemon(1)) as remote, \
            ztsdlib.SyncableDevice(sim.device_uri(1)) as device, \
            ztsdlib.LinearCorrelator("/localhost/test/correlators/t", host, remote, 10, 8, 5000) as linear:
        linear.start()
        done, failures = [], []

        def work():
            try:
                for _ in range(ROUNDS):
                    now = host.get_time()
                    there = linear.correlate(now, HOST)
                    assert abs(remote.get_time().nanoseconds - there.nanoseconds) < 10**9
                    assert device.coherency() == (True, 0)
                done.append(1)
            except Exception as error:  # reported by the main thread
                failures.append(error)

        threads = [threading.Thread(target=work) for _ in range(THREADS)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(60)
        assert not failures and len(done) == THREADS
        linear.stop()


_Callee = ctypes.CFUNCTYPE(None, ctypes.POINTER(ztsdlib._Status))


@pytest.mark.parametrize("code,text,raised,warned", [
    (0, None, None, False),
    (7, '{"error_constant":"w","x_debug":{"message":"slow"}}', None, True),
    (-9, '{"error_constant":"e","nested_error":[{"y_debug":{"message":"deep"}}]}', "deep", False),
    (-9, "not json", "not json", False),
])
def test_status_codes_become_exceptions_and_warnings(code, text, raised, warned):
    lib = ztsdlib._library()

    def callee(status):  # reports through the record's own callback, as the library does
        status.contents.code = code
        if text is not None:
            data = text.encode() + b"\0"
            assert status.contents.reallocate and lib.ztsdlib_Status_defaultReallocate(status, len(data))
            ctypes.memmove(status.contents.json, data, len(data))

    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        if raised:
            with pytest.raises(ztsdlib.ZtsdError) as error:
                ztsdlib._call(_Callee(callee))
            assert (error.value.code, error.value.message) == (code, raised)
        else:
            ztsdlib._call(_Callee(callee))
    assert [(w.category, w.message.code, w.message.report) for w in caught] == (
        [(ztsdlib.ZtsdWarning, code, json.loads(text))] if warned else [])


def test_a_missing_library_names_every_place_tried(monkeypatch):
    monkeypatch.setenv("ZTSDLIB_LIBRARY", "/nonexistent/libztsdlib.so")
    monkeypatch.setattr(ztsdlib.ctypes.util, "find_library", lambda name: "libztsdlib-none.so.9")
    with pytest.raises(OSError) as caught:
        ztsdlib.load_library()
    for place in ("/nonexistent/libztsdlib.so", "libztsdlib-none.so.9", "ztsdlib/libztsdlib.so"):
        assert place in str(caught.value)


# Where the library is looked for, in order, with a fake loader that finds
# only the places given: "add" and "close" are os.add_dll_directory and the
# closing of what it returned, "load" an attempt to load; P the package.
@pytest.mark.parametrize("platform,explicit,on_path,present,events", [
    ("win32", None, {}, r"P\libztsdlib.dll", r"add P,load P\libztsdlib.dll"),
    ("win32", None, {}, r"P\ztsdlib.dll", r"add P,load P\libztsdlib.dll,close P,add P,load P\ztsdlib.dll"),
    ("win32", r"D:\b\libztsdlib.dll", {}, r"D:\b\libztsdlib.dll,P\libztsdlib.dll",
     r"add D:\b,load D:\b\libztsdlib.dll"),
    ("win32", None, {"ztsdlib": r"E:\bin\ztsdlib.dll"}, r"E:\bin\ztsdlib.dll", r"add P,load P\libztsdlib.dll,"
     r"close P,add P,load P\ztsdlib.dll,close P,load libztsdlib.dll,add E:\bin,load E:\bin\ztsdlib.dll"),
    ("win32", r"D:\missing\x.dll", {}, "", r"add P,load P\libztsdlib.dll,close P,add P,load P\ztsdlib.dll,"
     "close P,load libztsdlib.dll,load ztsdlib.dll"),
    ("linux", None, {}, "libztsdlib.so.1", "load P/libztsdlib.so,load libztsdlib.so.1"),
])
def test_the_library_search_order(platform, explicit, on_path, present, events):
    log, package = [], r"C:\py\ztsdlib"
    present, events = present.replace("P", package).split(","), events.replace("P", package).split(",")

    def load(path):
        log.append("load " + path)
        if path not in present:
            raise OSError("not here")
        return path

    def add_dll_directory(directory):
        if "missing" in directory:
            raise FileNotFoundError(directory)
        log.append("add " + directory)
        return type("Added", (), {"close": lambda self: log.append("close " + directory)})()

    try:
        assert ztsdlib._search_library(platform, load, explicit, package, on_path.get, add_dll_directory) == (
            events[-1][len("load "):], None if platform != "win32" else ANY)
    except OSError as error:  # found nowhere: the error names every place tried
        places = [explicit] + [event[len("load "):] for event in events if event.startswith("load ")]
        assert present == [""] and all("%s (" % place in str(error) for place in places)
    assert log == events


def _incoherent_domain(sim, timescale, pool, device):
    sim.control(0, "devices/chassis0/incoherent")
    domain = ztsdlib.SyncDomain("/localhost/test/syncDomains/w", timescale, pool, 1000, 50)
    domain.add_syncable_device(device)
    return domain


def test_cancel_start_from_another_thread_ends_a_waiting_start(own_sim):
    with ztsdlib.TimescaleProxy(*own_sim.daemon()) as timescale, ztsdlib.ThreadPool(2) as pool, \
            ztsdlib.SyncableDevice(own_sim.device_uri()) as device, \
            _incoherent_domain(own_sim, timescale, pool, device) as domain:
        assert domain.cancel_start() is False  # none under way: nothing to end
        cancelled = []
        timer = threading.Timer(0.3, lambda: cancelled.append(domain.cancel_start()))
        began = time.monotonic()
        timer.start()
        with pytest.raises(ztsdlib.ZtsdError) as caught:
            domain.start(30)
        took = time.monotonic() - began
        timer.join(5)
        assert cancelled == [True] and took < 5
        assert caught.value.code == -52007 and caught.value.report["ztsyncdomain_debug"]["cancelled"] is True
        assert not domain.is_running()



def test_a_start_with_a_wrong_argument_raises_its_error_in_the_callers_thread():
    # The start runs on a worker thread; what the call raises there must
    # still reach the caller as itself, for both starts.
    with ztsdlib.HostTimescale() as timescale, ztsdlib.ThreadPool(1) as pool, \
            ztsdlib.SyncDomain("/localhost/test/syncDomains/a", timescale, pool) as domain:
        for start in (lambda: domain.start("1"), lambda: domain.start_v2(True, False, "1")):
            with pytest.raises(TypeError, match="timeout_s"):
                start()
        assert not domain.is_running()

CTRL_C_SCRIPT = r"""
import sys, ztsdlib
uri, host, port, device_uri = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
with ztsdlib.TimescaleProxy(uri, host, port) as ts, ztsdlib.ThreadPool(2) as pool, \
        ztsdlib.SyncableDevice(device_uri) as device, ztsdlib.SyncDomain("/localhost/t/syncDomains/c", ts, pool) as d:
    d.add_syncable_device(device)
    print("starting", flush=True)
    try:
        d.start(60)
    except KeyboardInterrupt:
        print("interrupted running=%s" % d.is_running(), flush=True)
"""


def test_ctrl_c_ends_a_waiting_start_at_once(own_sim):
    own_sim.control(0, "devices/chassis0/incoherent")
    uri, host, port = own_sim.daemon()
    env = dict(os.environ, PYTHONPATH=os.path.join(ROOT, "python"))
    child = subprocess.Popen([sys.executable, "-c", CTRL_C_SCRIPT, uri, host, str(port), own_sim.device_uri()],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=env, text=True)
    try:
        assert child.stdout.readline().strip() == "starting"
        time.sleep(0.3)
        began = time.monotonic()
        child.send_signal(signal.SIGINT)
        out, _ = child.communicate(timeout=10)
        assert time.monotonic() - began < 2, out
    finally:
        if child.poll() is None:
            child.kill()
            child.wait(10)
    assert out.strip().endswith("interrupted running=False") and child.returncode == 0, out
