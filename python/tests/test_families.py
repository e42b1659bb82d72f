"""Every family over the simulator's real HTTP web services and Thrift
timestamp daemons, and the mapping of their failures."""
import json
import math

import pytest

import ztsdlib
from conftest import OFFSET_NS

HOST = ztsdlib.HOST_TIMESCALE_URI
SECOND = 1_000_000_000


@pytest.mark.parametrize("chassis", [0, 1])
def test_timescale_proxy_reads_the_daemon_clock(sim, chassis):
    uri, host, port = sim.daemon(chassis)
    with ztsdlib.HostTimescale() as local, ztsdlib.TimescaleProxy(uri, host, port) as remote:
        before = local.get_time().nanoseconds
        remote_ns = remote.get_time().nanoseconds
        after = local.get_time().nanoseconds
        assert before + OFFSET_NS[chassis] - SECOND // 10 <= remote_ns <= after + OFFSET_NS[chassis] + SECOND // 10
        assert remote.uri == uri
        assert json.loads(remote.to_json())["port"] == port


def _linear(a, b, symmetric=False):
    return ztsdlib.LinearCorrelator("/localhost/test/correlators/l", a, b, sampling_interval_ms=10,
                                    max_sample_size=4, max_wait_for_first_correlate_ms=5000, symmetric=symmetric)


# kind, make(host, remote) -> (correlator, objects to close after it), expected shift host -> remote in ns
CORRELATORS = {
    "linear": lambda a, b: (_linear(a, b), []),
    "symmetric": lambda a, b: (_linear(a, b, symmetric=True), []),
    "caching": lambda a, b: (lambda inner: (ztsdlib.CachingCorrelator("/localhost/test/correlators/c", inner),
                                            [inner]))(_linear(a, b)),
    "nop": lambda a, b: (ztsdlib.NopCorrelator("/localhost/test/correlators/n", a, b), []),
}


@pytest.mark.parametrize("kind,json_type,shift_ns", [
    ("linear", "linear", OFFSET_NS[1]), ("symmetric", "linear", OFFSET_NS[1]),
    ("caching", "linear", OFFSET_NS[1]), ("nop", "nop", 0),
])
def test_correlators_map_both_ways(sim, kind, json_type, shift_ns):
    with ztsdlib.HostTimescale() as host, ztsdlib.TimescaleProxy(*sim.daemon(1)) as remote:
        correlator, inner = CORRELATORS[kind](host, remote)
        with correlator:
            correlator.start()
            assert correlator.is_running()
            assert (correlator.timescale1_uri, correlator.timescale2_uri) == (HOST, remote.uri)
            assert json.loads(correlator.to_json())["type"] == json_type
            now = host.get_time()
            there = correlator.correlate(now, HOST)
            assert abs(there.nanoseconds - now.nanoseconds - shift_ns) < SECOND // 20
            back = correlator.correlate(there, remote)
            assert abs(back.nanoseconds - now.nanoseconds) < SECOND // 1000
            assert correlator.correlate(now, HOST) == there or kind not in ("caching", "nop")
            if json_type == "linear":
                quality = correlator.quality() if kind != "caching" else inner[0].quality()
                assert quality.sample_count >= 2
                assert abs(quality.offset_at_newest.nanoseconds - shift_ns) < SECOND // 20
            if kind in ("linear", "symmetric"):
                _check_stated_accuracy(correlator, host, remote)
            correlator.stop()
        for other in inner:
            other.close()


def _check_stated_accuracy(correlator, host, remote):
    """A reading of the remote clock between two host readings lies on the
    fitted line within the stated bounds (and the round trip's half), for
    either sampling; no bound is narrower than half the narrowest round trip
    (the sequential one's is nearer the whole round trip, but a sample whose
    residual cancels its pairing shift may narrow it)."""
    before = host.get_time().nanoseconds
    reading = remote.get_time().nanoseconds
    after = host.get_time().nanoseconds
    fit = correlator.quality_v2()
    assert fit.offset_bound_ns >= fit.narrowest_half_round_trip_ns
    middle = (before + after) // 2
    since = middle - fit.newest_timescale1.nanoseconds
    on_line = fit.quality.offset_at_newest.nanoseconds + fit.quality.rate_ppb * 1e-9 * since
    allowed = fit.offset_bound_ns + fit.rate_bound_ppb * 1e-9 * abs(since) + (after - before) / 2 + 1000
    assert abs(reading - middle - on_line) <= allowed
    assert 0 < fit.offset_bound_ns < SECOND // 20
    assert 3 * fit.offset_std_error_corrected_ns >= fit.offset_bound_ns


def test_a_second_start_raises_the_librarys_code():
    with ztsdlib.HostTimescale() as a, ztsdlib.HostTimescale("/localhost/test/timescales/b") as b, \
            ztsdlib.LinearCorrelator("/localhost/test/correlators/f", a, b, 10, 4, 0) as correlator:
        correlator.start()
        with pytest.raises(ztsdlib.ZtsdError) as caught:
            correlator.start()
        assert (caught.value.code, caught.value.constant) == (-52016, "ztapalerr_threadAlreadyStarted")


def _requirements(max_offset_ns):
    return {"version": 1, "syncDomainUri": "/localhost/test/syncDomains/d", "data": {}, "coherencyRequirements": {
        "requiredTimescaleUri": HOST, "maxOffset_ns": max_offset_ns, "minSyncDuration_ms": 50}}


def test_device_follows_the_chassis(own_sim):
    uri = own_sim.device_uri()
    with ztsdlib.SyncableDevice(uri) as device:
        assert device.uri == uri and device.coherency() == (True, 0)
        device.set_coherency_requirements("/localhost/test/syncDomains/d", _requirements(1000))
        assert "/localhost/test/syncDomains/d" in json.loads(device.to_json())["syncDomainUris"]
        with pytest.raises(ztsdlib.ZtsdError) as conflict:
            device.set_coherency_requirements("/localhost/test/syncDomains/e", _requirements(2000))
        assert conflict.value.code == -1074100993
        device.clear_coherency_requirements("/localhost/test/syncDomains/d")
        device.set_coherency_requirements("/localhost/test/syncDomains/e", json.dumps(_requirements(2000)))
        own_sim.control(0, "devices/chassis0/loss?count=3")
        own_sim.control(0, "devices/chassis0/incoherent")
        assert device.coherency() == (False, 3)
        assert device.is_coherent() is False


@pytest.mark.parametrize("kind", ["pool", "nop"])
def test_domains_start_and_notice_a_loss(own_sim, kind):
    with ztsdlib.TimescaleProxy(*own_sim.daemon()) as timescale, ztsdlib.ThreadPool(2) as pool, \
            ztsdlib.SyncableDevice(own_sim.device_uri()) as device:
        domain = ztsdlib.SyncDomain("/localhost/test/syncDomains/p", timescale, pool, 1000, 50) \
            if kind == "pool" else ztsdlib.NopSyncDomain("/localhost/test/syncDomains/n", timescale)
        with domain:
            domain.add_syncable_device(device)
            assert domain.is_member(device) and not domain.is_member(own_sim.device_uri(name="other"))
            assert domain.timescale_uri == timescale.uri and domain.uri in domain.to_json()
            assert domain.start(10) and domain.is_running() and domain.is_coherent()
            own_sim.control(0, "devices/chassis0/loss")
            assert domain.is_coherent_since_last_checked() is (kind == "nop")
            domain.stop()
            assert not domain.is_running()


@pytest.mark.parametrize("as_dict", [False, True])
def test_loading_a_chassis(sim, as_dict):
    params = sim.chassis[1]["networkDeviceParamsJson"]
    params = json.loads(params) if as_dict else params
    device, timescales = ztsdlib.load_proxy_resources(params)
    with device:
        assert device.uri == sim.device_uri(1)
        assert [t.uri for t in timescales] == sim.chassis[1]["timescales"]
        assert abs(timescales[0].get_time().nanoseconds - ztsdlib.HostTimescale().get_time().nanoseconds
                   - OFFSET_NS[1]) < SECOND // 10
        for timescale in timescales:
            timescale.close()
    root = "[%s]" % sim.chassis[1]["remoteHost"]
    assert ztsdlib.uri_roots_to_unload(params) == (root, root)


@pytest.mark.parametrize("make,code,constant,message", [
    (lambda s: ztsdlib.SyncableDevice(s.device_uri(name="nope")).coherency(),
     -52024, "ztapalerr_communicationsFault", "Server answered 404 Not Found."),
    (lambda s: ztsdlib.load_proxy_resources({"version": 1, "type": "networkDeviceParams",
                                             "params": {}}),
     -52005, "ztapalerr_invalidParameter", "Error parsing 'remoteHost' key from networkDeviceParamsJson"),
    (lambda s: ztsdlib.ThreadPool(0), -52005, "ztapalerr_invalidParameter", None),
    (lambda s: ztsdlib.uri_roots_to_unload("{}"), -52005, "ztapalerr_invalidParameter", None),
    (lambda s: ztsdlib.HostTimescale(None), -52005, "ztapalerr_invalidParameter", None),
])
def test_failures_map_to_the_innermost_cause(sim, make, code, constant, message):
    with pytest.raises(ztsdlib.ZtsdError) as caught:
        make(sim)
    error = caught.value
    assert (error.code, error.constant) == (code, constant)
    assert error.message == message if message else error.message
    assert error.report["error_constant"] == constant


# A nop correlator hands every record back as it is, its fraction included.
@pytest.mark.parametrize("nanos,fraction", [
    (0, 7), (-1, -7), (0, -(1 << 31)), (ztsdlib._U64_MAX * SECOND + SECOND - 1, (1 << 32) - 1),
    (-(ztsdlib._U64_MAX * SECOND + SECOND - 1), 1 - (1 << 32)),
])
def test_time_values_cross_the_interface_exactly(nanos, fraction):
    with ztsdlib.HostTimescale() as a, ztsdlib.HostTimescale("/localhost/test/timescales/b") as b, \
            ztsdlib.NopCorrelator("/localhost/test/correlators/n", a, b) as nop:
        stamp = ztsdlib.Timestamp(nanos, fraction)
        assert nop.correlate(stamp, HOST) == stamp
        assert nop.correlate(stamp.to_decimal(), HOST) == stamp


@pytest.mark.parametrize("form", ["hosts", "paths"])
def test_listing_names_every_device_under_the_callers_host(form):
    from conftest import Simulator
    simulator = Simulator("--devices-per-chassis", "3", "--listing-form", form)
    try:
        params = simulator.chassis[0]["networkDeviceParamsJson"]
        uris = ztsdlib.list_syncable_device_uris(params)
        assert uris == [d["uri"] for d in simulator.chassis[0]["devices"]] and len(uris) == 3
        with ztsdlib.SyncableDevice(uris[2]) as last:
            assert last.coherency() == (True, 0)
    finally:
        simulator.stop()
    with pytest.raises(ztsdlib.ZtsdError) as refused:  # the chassis is gone
        ztsdlib.list_syncable_device_uris(params)
    assert refused.value.code == -52024 and refused.value.message


U32_END, LINEAR = 1 << 32, lambda o, **settings: ztsdlib.LinearCorrelator("/l/c", o.a, o.b, **settings)


# Each integer argument of every family, out of its C type's range or of
# the wrong kind, refused by name before the call.
@pytest.mark.parametrize("call,error,name", [
    (lambda o: ztsdlib.ThreadPool(-1), ValueError, "thread_count"),
    (lambda o: ztsdlib.ThreadPool(True), TypeError, "thread_count"),
    (lambda o: ztsdlib.TimescaleProxy("/h/ztsdwebs/resources/p/timescales/x", "127.0.0.1", -1), ValueError, "port"),
    (lambda o: LINEAR(o, sampling_interval_ms=-1), ValueError, "sampling_interval_ms"),
    (lambda o: LINEAR(o, max_sample_size=U32_END, symmetric=True), OverflowError, "max_sample_size"),
    (lambda o: LINEAR(o, max_wait_for_first_correlate_ms=False), TypeError, "max_wait_for_first_correlate_ms"),
    (lambda o: ztsdlib.SyncDomain("/l/d", o.a, o.pool, max_offset_ns=5 * SECOND), OverflowError, "max_offset_ns"),
    (lambda o: ztsdlib.SyncDomain("/l/d", o.a, o.pool, 1, -1), ValueError, "min_sync_duration_ms"),
    (lambda o: o.domain.start(-1), ValueError, "timeout_s"),
    (lambda o: o.domain.start_v2(True, False, U32_END), OverflowError, "timeout_s"),
    (lambda o: o.domain.start_v2(2, False, 1), TypeError, "wait_to_become_coherent"),
    (lambda o: o.domain.start_v2(True, 1.0, 1), TypeError, "save_initial_coherency"),
])
def test_integer_arguments_are_checked_against_their_c_type(call, error, name):
    class Objects:
        a, b, pool = ztsdlib.HostTimescale(), ztsdlib.HostTimescale("/l/b"), ztsdlib.ThreadPool(1)
        domain = ztsdlib.NopSyncDomain("/l/n", ztsdlib.HostTimescale())
    with pytest.raises(error, match=name):
        call(Objects)
    o = Objects  # nothing is kept on failure
    assert (o.a._users, o.b._users, o.pool._users, o.domain.is_running()) == (0, 0, 0, False)
