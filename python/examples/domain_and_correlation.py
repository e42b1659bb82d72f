"""A sync domain over one chassis, one watch round and a correlation.

    python3 domain_and_correlation.py '<networkDeviceParamsJson>'

(the JSON ztsd-sim prints for a chassis, or your chassis' own description).
"""
import sys
import time

import ztsdlib

params = sys.argv[1]
device, timescales = ztsdlib.load_proxy_resources(params)
host = ztsdlib.HostTimescale()
with ztsdlib.ThreadPool(4) as pool, \
        ztsdlib.SyncDomain("/localhost/example/syncDomains/py", timescales[0], pool,
                           max_offset_ns=1000, min_sync_duration_ms=100) as domain:
    domain.add_syncable_device(device)
    print("coherent at start:", domain.start(10))
    time.sleep(1)
    print("still coherent after 1 s:", domain.is_coherent_since_last_checked())
    domain.stop()

with ztsdlib.LinearCorrelator("/localhost/example/correlators/py", host, timescales[0],
                              sampling_interval_ms=20, max_sample_size=50,
                              max_wait_for_first_correlate_ms=5000, symmetric=True) as correlator:
    correlator.start()
    time.sleep(1.5)  # the history fills at once; then it spans 50 x 20 ms
    now = host.get_time()
    there = correlator.correlate(now, host)
    print("host %s is %s s on %s" % (now.to_datetime(), there.to_decimal(), timescales[0].uri))
    print("rate %+.3f ppm" % (correlator.quality().rate_ppb / 1000))
    # +/- one standard uncertainty, and the bound that holds whatever the path.
    fit = correlator.quality_v2()
    print("offset %+d ns +/- %.0f ns, within +/- %.0f ns at the newest sample"
          % (fit.quality.offset_at_newest.nanoseconds, fit.offset_std_error_corrected_ns, fit.offset_bound_ns))
for handle in (device, host, *timescales):
    handle.close()
