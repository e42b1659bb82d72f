// The timestamp service of the timestamp daemon "zttimestampd": the daemon
// reports the current time of the clock of its target and the timescales
// that clock is on. Binary protocol over a buffered socket transport.
//
// C++ code is generated from this file at build time; nothing generated is
// committed.

namespace cpp ztsdlib.timestampservice

// A point in time, sign and magnitude: seconds + nanos / 1e9, negative when
// isNegative. seconds carries the bit pattern of the unsigned 64-bit count of
// the library's ztsdlib_Timestamp; fractionalNanos is a fraction of a
// nanosecond passed through as it is.
struct Timestamp {
    1: i64 seconds,
    2: i32 nanos,
    3: i32 fractionalNanos,
    4: bool isNegative,
}

// A point in time with the URI of the timescale it is on.
struct TimestampInfo {
    1: i64 seconds,
    2: i32 nanos,
    3: i32 fractionalNanos,
    4: bool isNegative,
    5: string uri,
}

// The time and the URIs of the timescales the target currently serves.
struct TimeInfo {
    1: Timestamp timestamp,
    2: list<string> timescaleUris,
}

// A failure reported by the daemon, carrying the daemon's own status: its
// code and its JSON report.
exception thrift_zterr {
    1: i32 code,
    2: string json,
}

service timestampService {
    // The time of the timescale selected by id, with that timescale's URI.
    TimestampInfo getTime(1: i32 id) throws (1: thrift_zterr err),

    // The daemon's API version: 1 serves getTime only; 2 and above also
    // serve getTimeAndCurrentTimescales.
    i32 getApiVersion(),

    // The time with the list of timescales the target is on right now.
    TimeInfo getTimeAndCurrentTimescales() throws (1: thrift_zterr err),
}
