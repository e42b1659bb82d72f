"""ztsdlib over ctypes.

Every family of the C interface as a class: timescales, correlators, syncable
devices, sync domains and thread pools, plus load_proxy_resources(),
list_syncable_device_uris() and uri_roots_to_unload(). Failures raise
ZtsdError; warnings go through Python's
warnings module as ZtsdWarning.

Lifetimes: an object keeps the objects it was given (a correlator its
timescales, a caching correlator the correlator it wraps, a domain its
timescale, pool and devices) and counts itself as their user. Closing an
object that still has users only ends it for the caller: its C handle is
deleted when its last user is deleted. So neither close() in any order nor
the garbage collector (which may finalise a cycle's objects in any order)
can delete a handle before the handles that refer to it.
"""
import collections
import ctypes
import ctypes.util
import datetime
import decimal
import json
import ntpath
import os
import posixpath
import sys
import threading
import warnings

__all__ = ["ZtsdError", "ZtsdWarning", "Timestamp", "HOST_TIMESCALE_URI", "load_library",
           "HostTimescale", "TimescaleProxy", "LinearCorrelator", "CachingCorrelator", "NopCorrelator",
           "CorrelationQuality", "CorrelationQualityV2", "Coherency", "SyncableDevice", "ThreadPool",
           "SyncDomain", "NopSyncDomain",
           "load_proxy_resources", "list_syncable_device_uris", "uri_roots_to_unload"]

HOST_TIMESCALE_URI = "/localhost/ztsds/timescales/system"
_NANOS = 1_000_000_000
_EPOCH = datetime.datetime(1601, 1, 1, tzinfo=datetime.timezone.utc)
_U64_MAX = (1 << 64) - 1


def _message_of(error):
    """The "message" of an error object, at its top or in a details object."""
    if isinstance(error.get("message"), str):
        return error["message"]
    for value in error.values():
        if isinstance(value, dict) and isinstance(value.get("message"), str):
            return value["message"]
    return ""


def _innermost_message(report):
    """The message of the deepest nested error that has one (a failed HTTP
    request, say, nests the client's "Server answered 404 ..." under a
    report whose top has none), else the top's own."""
    chain = []
    inner = report if isinstance(report, dict) else {}
    while True:
        chain.append(inner)
        nested = inner.get("nested_error")
        if not (isinstance(nested, list) and nested and isinstance(nested[0], dict)):
            break
        inner = nested[0]
    for error in reversed(chain):
        if _message_of(error):
            return _message_of(error)
    return ""


class ZtsdError(Exception):
    """A failed call: code (< 0), constant (the report's "error_constant",
    naming the code), message (the innermost cause) and the parsed report."""

    def __init__(self, code, report):
        self.code = code
        self.report = report
        self.constant = report.get("error_constant") if isinstance(report, dict) else None
        self.message = _innermost_message(report)
        super().__init__("%d %s: %s" % (code, self.constant, self.message))


class ZtsdWarning(RuntimeWarning):
    """A call that succeeded with a warning (code > 0): code, constant,
    message and report as in ZtsdError."""

    def __init__(self, code, report):
        self.code = code
        self.report = report
        self.constant = report.get("error_constant") if isinstance(report, dict) else None
        self.message = _innermost_message(report)
        super().__init__("%d %s: %s" % (code, self.constant, self.message))


class _Status(ctypes.Structure):
    pass


_Reallocate = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.POINTER(_Status), ctypes.c_uint32)
_Status._fields_ = [("code", ctypes.c_int32), ("capacity", ctypes.c_uint32),
                    ("reallocate", ctypes.c_void_p), ("json", ctypes.c_void_p)]


class _CTimestamp(ctypes.Structure):
    _fields_ = [("seconds", ctypes.c_uint64), ("nanos", ctypes.c_uint32),
                ("fractionalNanos", ctypes.c_uint32), ("isNegative", ctypes.c_bool)]


def _search_library(platform, load, explicit, package_dir, find_library, add_dll_directory=None):
    """(library, DLL directory handle or None): load(path) of the first place
    that has the library: explicit (ZTSDLIB_LIBRARY) when given, then the
    package directory, then the system loader. On Windows (platform
    "win32") the DLL is looked for as libztsdlib.dll (the name the build
    gives it), then ztsdlib.dll, and before loading from a directory that
    directory is given to add_dll_directory (os.add_dll_directory), so that
    the DLLs beside the library (libcurl's) are found; it is taken back when
    the load fails. OSError names every place tried."""
    windows = platform == "win32"
    path = ntpath if windows else posixpath
    stems = ["libztsdlib", "ztsdlib"] if windows else ["libztsdlib"]
    candidates = [explicit] if explicit else []
    candidates += [path.join(package_dir, stem + (".dll" if windows else ".so")) for stem in stems]
    if windows:  # a bare name is not looked for along PATH, so find_library does that
        candidates += [find_library(stem) or stem + ".dll" for stem in stems]
    else:
        candidates.append(find_library("ztsdlib") or "libztsdlib.so.1")
    tried = []
    for candidate in candidates:
        directory = path.dirname(candidate) if windows else ""
        handle = None
        try:
            if directory:
                handle = add_dll_directory(directory)
            return load(candidate), handle
        except OSError as error:
            tried.append("%s (%s)" % (candidate, error))
            if handle is not None:
                handle.close()
    raise OSError("libztsdlib not found; tried: " + "; ".join(tried))


# The directory os.add_dll_directory was given for the loaded DLL, kept
# for the life of the process.
_dll_directory = None


def load_library():
    """The library named by ZTSDLIB_LIBRARY, else one next to the package
    (libztsdlib.so; on Windows libztsdlib.dll or ztsdlib.dll), else the
    system loader's; OSError names every place tried."""
    global _dll_directory
    library, _dll_directory = _search_library(
        sys.platform, ctypes.CDLL, os.environ.get("ZTSDLIB_LIBRARY"), os.path.dirname(os.path.abspath(__file__)),
        ctypes.util.find_library, getattr(os, "add_dll_directory", None))
    return library


_P = ctypes.c_void_p
_S = ctypes.POINTER(_Status)
_T = ctypes.POINTER(_CTimestamp)
_B = ctypes.c_bool
_U32 = ctypes.c_uint32
_TEXT = ctypes.c_char_p


class _CQuality(ctypes.Structure):
    _fields_ = [("sampleCount", ctypes.c_uint64), ("span_ns", ctypes.c_double), ("slope", ctypes.c_double),
                ("rate_ppb", ctypes.c_double), ("offsetAtNewest", _CTimestamp),
                ("residualStdDev_ns", ctypes.c_double), ("slopeStdError_ppb", ctypes.c_double),
                ("offsetStdError_ns", ctypes.c_double)]


class _CQualityV2(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("quality", _CQuality), ("newestTimescale1", _CTimestamp),
                ("residualLag1Correlation", ctypes.c_double), ("effectiveSampleCount", ctypes.c_double),
                ("slopeStdErrorCorrected_ppb", ctypes.c_double), ("offsetStdErrorCorrected_ns", ctypes.c_double),
                ("narrowestHalfRoundTrip_ns", ctypes.c_double), ("rateBound_ppb", ctypes.c_double),
                ("offsetBound_ns", ctypes.c_double)]


# The ctypes codes of C's integer types, each with whether it is signed
# (None for bool). ctypes itself wraps an int that does not fit silently
# (-1 becomes 4294967295 as a uint32_t), so _check_integer comes first.
_INTEGER_CODES = {"?": None, "b": True, "h": True, "i": True, "l": True, "q": True,
                  "B": False, "H": False, "I": False, "L": False, "Q": False}


def _check_integer(name, value, ctype):
    """Refuses value as the argument name of C integer type ctype unless it
    is an int within that type's range: TypeError for a bool (but for a C
    bool), a float or anything else, ValueError below the range,
    OverflowError above it."""
    if ctype._type_ == "?":
        if isinstance(value, bool) or (type(value) is int and value in (0, 1)):
            return
        raise TypeError("%s must be a bool, not %r" % (name, value))
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError("%s must be an int, not %r (a %s)" % (name, value, type(value).__name__))
    bits = 8 * ctypes.sizeof(ctype)
    low, high = (-(1 << (bits - 1)), (1 << (bits - 1)) - 1) if _INTEGER_CODES[ctype._type_] else (0, (1 << bits) - 1)
    if value < low:
        raise ValueError("%s must be at least %d, not %d" % (name, low, value))
    if value > high:
        raise OverflowError("%s must be at most %d (it is a %d-bit C integer), not %d" % (name, high, bits, value))


# The three settings of both linear correlator exports.
_LINEAR_SETTINGS = [("sampling_interval_ms", _U32), ("max_sample_size", _U32),
                    ("max_wait_for_first_correlate_ms", _U32)]

# Every export: name -> (result type, argument types). An integer argument
# is written (name, type): every call checks it with _check_integer first.
# Text an object owns (getUri) comes back as c_char_p, which copies it; text
# the caller owns (toJson) comes back as a plain address so that it can be
# given to free().
_EXPORTS = {
    "ztsdlib_Status_defaultReallocate": (_B, [_S, ("new_capacity", _U32)]),
    "ztsdlib_HostTimescale_create": (_P, [_TEXT, _S]),
    "ztsdlib_TimescaleProxy_create": (_P, [_TEXT, _TEXT, ("port", _U32), _S]),
    "ztsdlib_Timescale_getUri": (_TEXT, [_P, _S]),
    "ztsdlib_Timescale_getTime": (None, [_P, _T, _S]),
    "ztsdlib_Timescale_toJson": (_P, [_P, _S]),
    "ztsdlib_LinearCorrelator_create": (_P, [_TEXT, _P, _P, *_LINEAR_SETTINGS, _S]),
    "ztsdlib_LinearCorrelator_createSymmetric": (_P, [_TEXT, _P, _P, *_LINEAR_SETTINGS, _S]),
    "ztsdlib_CachingCorrelator_create": (_P, [_TEXT, _P, _S]),
    "ztsdlib_NopCorrelator_create": (_P, [_TEXT, _P, _P, _S]),
    "ztsdlib_TimestampCorrelator_correlate": (None, [_P, _T, _TEXT, _T, _S]),
    "ztsdlib_TimestampCorrelator_getUri": (_TEXT, [_P, _S]),
    "ztsdlib_TimestampCorrelator_getTimescale1Uri": (_TEXT, [_P, _S]),
    "ztsdlib_TimestampCorrelator_getTimescale2Uri": (_TEXT, [_P, _S]),
    "ztsdlib_TimestampCorrelator_start": (None, [_P, _S]),
    "ztsdlib_TimestampCorrelator_stop": (None, [_P, _S]),
    "ztsdlib_TimestampCorrelator_isRunning": (_B, [_P, _S]),
    "ztsdlib_TimestampCorrelator_toJson": (_P, [_P, _S]),
    "ztsdlib_TimestampCorrelator_getQuality": (None, [_P, ctypes.POINTER(_CQuality), _S]),
    "ztsdlib_TimestampCorrelator_getQualityV2": (None, [_P, ctypes.POINTER(_CQualityV2), _S]),
    "ztsdlib_SyncableDeviceProxy_create": (_P, [_TEXT, _S]),
    "ztsdlib_SyncableDevice_setCoherencyRequirements": (None, [_P, _TEXT, _TEXT, _S]),
    "ztsdlib_SyncableDevice_clearCoherencyRequirements": (None, [_P, _TEXT, _S]),
    "ztsdlib_SyncableDevice_isCoherent": (_B, [_P, ctypes.POINTER(_U32), _S]),
    "ztsdlib_SyncableDevice_getUri": (_TEXT, [_P, _S]),
    "ztsdlib_SyncableDevice_toJson": (_P, [_P, _S]),
    "ztsdlib_ThreadPool_create": (_P, [("thread_count", _U32), _S]),
    "ztsdlib_ThreadPool_delete": (None, [_P]),
    "ztsdlib_SyncDomain_create": (_P, [_TEXT, _P, ("max_offset_ns", _U32), ("min_sync_duration_ms", _U32), _P, _S]),
    "ztsdlib_NopSyncDomain_create": (_P, [_TEXT, _P, _S]),
    "ztsdlib_SyncDomain_isMember": (_B, [_P, _TEXT, _S]),
    "ztsdlib_SyncDomain_addSyncableDevice": (None, [_P, _P, _S]),
    "ztsdlib_SyncDomain_isCoherent": (_B, [_P, _S]),
    "ztsdlib_SyncDomain_isCoherentSinceLastChecked": (_B, [_P, _S]),
    "ztsdlib_SyncDomain_isRunning": (_B, [_P, _S]),
    "ztsdlib_SyncDomain_start": (_B, [_P, ("timeout_s", _U32), _S]),
    "ztsdlib_SyncDomain_startV2": (None, [_P, ("wait_to_become_coherent", _B), ("save_initial_coherency", _B),
                                          ("timeout_s", _U32), _S]),
    "ztsdlib_SyncDomain_stop": (None, [_P, _S]),
    "ztsdlib_SyncDomain_cancelStart": (_B, [_P, _S]),
    "ztsdlib_SyncDomain_getTimescaleUri": (_TEXT, [_P, _S]),
    "ztsdlib_SyncDomain_getUri": (_TEXT, [_P, _S]),
    "ztsdlib_SyncDomain_toJson": (_P, [_P, _S]),
    "ztsdlib_loadProxyResources": (None, [_TEXT, ctypes.POINTER(_P), ctypes.POINTER(ctypes.POINTER(_P)),
                                          ctypes.POINTER(_U32), _P, _S]),
    "ztsdlib_listSyncableDeviceUris": (_P, [_TEXT, _S]),
    "ztsdlib_getProxyResourceUriRootsToUnload": (None, [_TEXT, ("buffer_size", _U32), ctypes.c_char_p,
                                                        ctypes.c_char_p, _S]),
    "ztsdlib_Timescale_delete": (None, [_P]),
    "ztsdlib_TimestampCorrelator_delete": (None, [_P]),
    "ztsdlib_SyncableDevice_delete": (None, [_P]),
    "ztsdlib_SyncDomain_delete": (None, [_P]),
}

_lib = None
_crt = None
_load_lock = threading.Lock()


def _library():
    global _lib, _crt
    with _load_lock:
        if _lib is None:
            lib = load_library()
            for name, (result, arguments) in _EXPORTS.items():
                function = getattr(lib, name)
                named = [kind if isinstance(kind, tuple) else (None, kind) for kind in arguments]
                function.restype, function.argtypes = result, [ctype for _, ctype in named]
                # Every integer argument, checked by _invoke before each call.
                function.integers = [(index, ctype, label or "argument %d of %s" % (index + 1, name))
                                     for index, (label, ctype) in enumerate(named)
                                     if getattr(ctype, "_type_", None) in _INTEGER_CODES]
            # malloc and free as the process resolves them, so the library's
            # allocations and ours meet the same allocator (also when a
            # sanitizer's runtime is preloaded and replaces both); on Windows
            # those of msvcrt.dll, the C runtime a mingw-w64 build uses.
            crt = ctypes.CDLL("msvcrt" if sys.platform == "win32" else None)
            crt.malloc.restype, crt.malloc.argtypes = ctypes.c_void_p, [ctypes.c_size_t]
            crt.free.restype, crt.free.argtypes = None, [ctypes.c_void_p]
            _crt = crt
            _lib = lib
    return _lib


def _invoke(function, *args):
    """Calls function with a fresh status record: (result, code, report),
    the report parsed and the library's copy of it freed."""
    lib = _library()
    for index, ctype, name in getattr(function, "integers", ()):
        _check_integer(name, args[index], ctype)
    status = _Status(0, 0, ctypes.cast(lib.ztsdlib_Status_defaultReallocate, ctypes.c_void_p).value, None)
    try:
        result = function(*args, ctypes.byref(status))
        report = None
        if status.json:
            text = ctypes.string_at(status.json).decode("utf-8", "replace")
            try:
                report = json.loads(text)
            except ValueError:
                report = {"message": text}
        return result, status.code, report
    finally:
        if status.json:
            lib.ztsdlib_Status_defaultReallocate(ctypes.byref(status), 0)


def _outcome(result, code, report, stacklevel=3):
    """Raises ZtsdError for an error, warns for a warning, else result."""
    if code < 0:
        raise ZtsdError(code, report)
    if code > 0:
        warnings.warn(ZtsdWarning(code, report), stacklevel=stacklevel + 1)
    return result


def _call(function, *args):
    """Calls function; raises ZtsdError on an error, issues a warning on a
    warning."""
    return _outcome(*_invoke(function, *args))


class Timestamp:
    """An exact time value: nanoseconds (an int, the whole nanoseconds,
    truncated toward zero) plus fractional_nanos, the rest in units of
    2**-32 ns (an int of the value's sign, below 2**32 in magnitude). Its
    value is nanoseconds + fractional_nanos / 2**32 ns, and every
    conversion the class makes is exact: Decimal seconds both ways keep the
    fraction, a value finer than 2**-32 ns or beyond the C record's 64-bit
    seconds is refused, and a float is refused everywhere (pass a Decimal or
    an int). A datetime has microseconds only: to_datetime() rounds down.

    The C library carries fractionalNanos through as it is (a nop
    correlator, a caching correlator's key, a remote daemon's readings) but
    its exact decimal arithmetic ignores it: a linear correlator maps the
    whole nanoseconds and answers fractional_nanos 0."""

    __slots__ = ("nanoseconds", "fractional_nanos")

    def __init__(self, nanoseconds=0, fractional_nanos=0):
        for name, value in (("nanoseconds", nanoseconds), ("fractional_nanos", fractional_nanos)):
            if isinstance(value, bool) or not isinstance(value, int):
                raise TypeError("%s must be an int, not %r: pass int nanoseconds, or Decimal seconds to "
                                "Timestamp.from_decimal" % (name, value))
        if abs(fractional_nanos) >> 32:
            raise ValueError("fractional_nanos counts 2**-32 ns and must be below 2**32 in magnitude, not %d"
                             % fractional_nanos)
        if nanoseconds * fractional_nanos < 0:
            raise ValueError("fractional_nanos (%d) must have the sign of nanoseconds (%d)"
                             % (fractional_nanos, nanoseconds))
        if abs(nanoseconds) // _NANOS > _U64_MAX:
            raise OverflowError("seconds do not fit 64 bits: %d ns" % nanoseconds)
        self.nanoseconds = int(nanoseconds)
        self.fractional_nanos = int(fractional_nanos)

    @classmethod
    def _from_units(cls, units):
        """The Timestamp of units * 2**-32 ns."""
        magnitude = abs(units)
        sign = -1 if units < 0 else 1
        return cls(sign * (magnitude >> 32), sign * (magnitude & 0xFFFFFFFF))

    def _units(self):
        """The value in 2**-32 ns, exactly."""
        return (self.nanoseconds << 32) + self.fractional_nanos

    @classmethod
    def from_decimal(cls, seconds):
        """The Timestamp of seconds (a Decimal, an int or a decimal text),
        converted exactly: ValueError when it is finer than 2**-32 ns or not
        a number, OverflowError beyond 2**64 s."""
        if isinstance(seconds, float):
            raise TypeError("a float is not exact: pass a Decimal or an int of seconds, not %r" % (seconds,))
        if isinstance(seconds, bool) or not isinstance(seconds, (decimal.Decimal, int, str)):
            raise TypeError("pass a Decimal or an int of seconds, not %r" % (seconds,))
        try:
            sign, digits, exponent = decimal.Decimal(seconds).as_tuple()
        except decimal.InvalidOperation:
            raise ValueError("not a number of seconds: %r" % (seconds,)) from None
        if not isinstance(exponent, int):
            raise ValueError("not a finite number of seconds: %s" % (seconds,))
        # Integer arithmetic on coefficient * 10**exponent s, trailing zeros
        # dropped first. An exponent below -41 then leaves a value finer than
        # 2**-32 ns = 5**32 * 10**-41 s; from 10**20 s on it exceeds 2**64 s.
        # Both bounds keep the integers small whatever the Decimal holds.
        kept = len(digits)
        while kept > 1 and digits[kept - 1] == 0:
            kept -= 1
        digits, exponent = digits[:kept], exponent + len(digits) - kept
        if digits == (0,):
            return cls()
        if exponent + len(digits) > 20:
            raise OverflowError("seconds do not fit 64 bits: %s" % (seconds,))
        if exponent < -41:
            raise ValueError("finer than 2**-32 ns: %s" % (seconds,))
        units = int("".join(map(str, digits))) << 32
        if exponent + 9 >= 0:
            units *= 10 ** (exponent + 9)
        else:
            units, rest = divmod(units, 10 ** -(exponent + 9))
            if rest:
                raise ValueError("finer than 2**-32 ns: %s" % (seconds,))
        return cls._from_units(-units if sign else units)

    def to_decimal(self):
        """The value in seconds as an exact Decimal: 9 decimal places for
        whole nanoseconds, up to 41 with a fraction (2**-32 ns is
        5**32 * 10**-41 s)."""
        units = self._units()
        coefficient, exponent = abs(units) * 5 ** 32, -41
        while exponent < -9 and coefficient % 10 == 0:
            coefficient, exponent = coefficient // 10, exponent + 1
        return decimal.Decimal("%s%dE%d" % ("-" if units < 0 else "", coefficient, exponent))

    @classmethod
    def from_datetime(cls, moment):
        if not isinstance(moment, datetime.datetime):
            raise TypeError("not a datetime: %r" % (moment,))
        if moment.tzinfo is None:
            raise ValueError("a naive datetime is ambiguous; give it a time zone")
        delta = moment - _EPOCH
        return cls(((delta.days * 86400 + delta.seconds) * 1_000_000 + delta.microseconds) * 1000)

    def to_datetime(self):
        return _EPOCH + datetime.timedelta(microseconds=self._units() // (1000 << 32))

    @classmethod
    def _from_c(cls, value):
        magnitude = (((value.seconds * _NANOS + value.nanos) << 32) + value.fractionalNanos)
        return cls._from_units(-magnitude if value.isNegative else magnitude)

    def _to_c(self):
        magnitude = abs(self._units())
        seconds, nanos = divmod(magnitude >> 32, _NANOS)
        return _CTimestamp(seconds, nanos, magnitude & 0xFFFFFFFF, self._units() < 0)

    def __eq__(self, other):
        return isinstance(other, Timestamp) and (self.nanoseconds, self.fractional_nanos) == (
            other.nanoseconds, other.fractional_nanos)

    def __hash__(self):
        return hash((self.nanoseconds, self.fractional_nanos))

    def __repr__(self):
        return "Timestamp(%d, %d)" % (self.nanoseconds, self.fractional_nanos)


def _owned_text(function, *args):
    """A toJson text: copied, then released with the C runtime's free()."""
    address = _call(function, *args)
    if not address:
        return None
    try:
        return ctypes.string_at(address).decode("utf-8", "replace")
    finally:
        _crt.free(address)


def _as_timestamp(value):
    """A Timestamp from a Timestamp, integer nanoseconds, Decimal seconds or
    an aware datetime; a float is refused because it is not exact."""
    if isinstance(value, Timestamp):
        return value
    if isinstance(value, float):
        raise TypeError("a float is not exact: pass a Decimal (seconds), an int (nanoseconds), a Timestamp "
                        "or an aware datetime, not %r" % (value,))
    if isinstance(value, bool):
        raise TypeError("not a time value: %r" % (value,))
    if isinstance(value, int):
        return Timestamp(value)
    if isinstance(value, decimal.Decimal):
        return Timestamp.from_decimal(value)
    if isinstance(value, datetime.datetime):
        return Timestamp.from_datetime(value)
    raise TypeError("not a time value: %r" % (value,))


def _text(value):
    return None if value is None else value.encode()


# Guards the user counts and the open/closed state of every object.
_lifetime_lock = threading.Lock()


class _Object:
    """One C handle and the objects it refers to (see the module comment)."""

    _delete = "ztsdlib_Timescale_delete"
    _handle = None   # None once closed for the caller
    _raw = None      # the C handle until it is deleted
    _uses = ()
    _users = 0

    def _hold(self, *objects):
        """Counts this object as a user of objects (all must be open)."""
        with _lifetime_lock:
            for used in objects:
                if used._handle is None:
                    raise ValueError("%s is closed" % type(used).__name__)
            for used in objects:
                used._users += 1
        self._uses = list(self._uses) + list(objects)

    def _create(self, function, *args, uses=()):
        """Calls a create export with the used objects held during the call;
        on failure they are released again."""
        self._lib = _library()
        self._hold(*uses)
        try:
            handle = _call(function, *args)
        except BaseException:
            self._release_uses()
            raise
        self._handle = self._raw = handle

    def _adopt(self, handle):
        self._lib = _library()
        self._handle = self._raw = handle
        return self

    @property
    def _h(self):
        handle = self._handle
        if handle is None:
            raise ValueError("%s is closed" % type(self).__name__)
        return handle

    def _release_uses(self):
        uses, self._uses = self._uses, ()
        for used in uses:
            with _lifetime_lock:
                used._users -= 1
                ready = used._users == 0 and used._handle is None
            if ready:
                used._destroy()

    def _destroy(self):
        with _lifetime_lock:
            raw, self._raw = self._raw, None
        if raw:
            getattr(self._lib, self._delete)(raw)
        self._release_uses()

    def close(self):
        """Ends the object for the caller. Its handle is deleted now, or when
        the last object that uses it is deleted."""
        with _lifetime_lock:
            if self._handle is None:
                return
            self._handle = None
            if self._users:
                return
        self._destroy()

    @property
    def closed(self):
        return self._handle is None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        try:
            if self._raw:
                self.close()
        except Exception:  # the interpreter may be shutting down
            pass


class _Timescale(_Object):
    @property
    def uri(self):
        return _call(self._lib.ztsdlib_Timescale_getUri, self._h).decode()

    def get_time(self):
        value = _CTimestamp()
        _call(self._lib.ztsdlib_Timescale_getTime, self._h, ctypes.byref(value))
        return Timestamp._from_c(value)

    def to_json(self):
        return _owned_text(self._lib.ztsdlib_Timescale_toJson, self._h)


class HostTimescale(_Timescale):
    """The host's wall clock (1601-based, 100 ns resolution)."""

    def __init__(self, uri=HOST_TIMESCALE_URI):
        self._create(_library().ztsdlib_HostTimescale_create, _text(uri))


class TimescaleProxy(_Timescale):
    """A remote target's timescale, read from its timestamp daemon at
    host:port."""

    def __init__(self, uri, host, port):
        self._create(_library().ztsdlib_TimescaleProxy_create, _text(uri), _text(host), port)


CorrelationQuality = collections.namedtuple("CorrelationQuality", [
    "sample_count", "span_ns", "slope", "rate_ppb", "offset_at_newest", "residual_std_dev_ns",
    "slope_std_error_ppb", "offset_std_error_ns"])

# The fit's figures for users who need to know how far off it may be:
# standard uncertainties that allow for residuals that drift together, and
# bounds that hold whatever the path asymmetry: about half the narrowest
# round trip for a symmetric correlator, about the whole one for a
# sequential correlator, whose offset runs late by the outward delay
# (float("inf") where a sample has no round trip). The bounds hold at
# newest_timescale1; at another host time t the offset's bound grows by
# rate_bound_ppb * 1e-9 * |t - newest_timescale1|.
CorrelationQualityV2 = collections.namedtuple("CorrelationQualityV2", [
    "quality", "newest_timescale1", "residual_lag1_correlation", "effective_sample_count",
    "slope_std_error_corrected_ppb", "offset_std_error_corrected_ns", "narrowest_half_round_trip_ns",
    "rate_bound_ppb", "offset_bound_ns"])


def _quality_of(value):
    return CorrelationQuality(value.sampleCount, value.span_ns, value.slope, value.rate_ppb,
                              Timestamp._from_c(value.offsetAtNewest), value.residualStdDev_ns,
                              value.slopeStdError_ppb, value.offsetStdError_ns)


class _Correlator(_Object):
    _delete = "ztsdlib_TimestampCorrelator_delete"

    def correlate(self, timestamp, source_uri):
        """The time on the other timescale for timestamp (a Timestamp, int
        nanoseconds, Decimal seconds or aware datetime) read on the timescale
        whose URI is source_uri (a URI, or the timescale object)."""
        if isinstance(source_uri, _Timescale):
            source_uri = source_uri.uri
        given = _as_timestamp(timestamp)._to_c()
        result = _CTimestamp()
        _call(self._lib.ztsdlib_TimestampCorrelator_correlate, self._h, ctypes.byref(given),
              _text(source_uri), ctypes.byref(result))
        return Timestamp._from_c(result)

    @property
    def uri(self):
        return _call(self._lib.ztsdlib_TimestampCorrelator_getUri, self._h).decode()

    @property
    def timescale1_uri(self):
        return _call(self._lib.ztsdlib_TimestampCorrelator_getTimescale1Uri, self._h).decode()

    @property
    def timescale2_uri(self):
        return _call(self._lib.ztsdlib_TimestampCorrelator_getTimescale2Uri, self._h).decode()

    def start(self):
        _call(self._lib.ztsdlib_TimestampCorrelator_start, self._h)

    def stop(self):
        _call(self._lib.ztsdlib_TimestampCorrelator_stop, self._h)

    def is_running(self):
        return _call(self._lib.ztsdlib_TimestampCorrelator_isRunning, self._h)

    def to_json(self):
        return _owned_text(self._lib.ztsdlib_TimestampCorrelator_toJson, self._h)

    def quality(self):
        """How well a linear correlator's history fits its line."""
        value = _CQuality()
        _call(self._lib.ztsdlib_TimestampCorrelator_getQuality, self._h, ctypes.byref(value))
        return _quality_of(value)

    def quality_v2(self):
        """The same with the uncertainties and bounds of CorrelationQualityV2."""
        value = _CQualityV2()
        value.size = ctypes.sizeof(_CQualityV2)
        _call(self._lib.ztsdlib_TimestampCorrelator_getQualityV2, self._h, ctypes.byref(value))
        return CorrelationQualityV2(_quality_of(value.quality), Timestamp._from_c(value.newestTimescale1),
                                    value.residualLag1Correlation, value.effectiveSampleCount,
                                    value.slopeStdErrorCorrected_ppb, value.offsetStdErrorCorrected_ns,
                                    value.narrowestHalfRoundTrip_ns, value.rateBound_ppb, value.offsetBound_ns)


class LinearCorrelator(_Correlator):
    """A running linear fit between two timescales; symmetric=True pairs
    each timescale2 reading with the midpoint of two timescale1 readings."""

    def __init__(self, uri, timescale1, timescale2, sampling_interval_ms=1000, max_sample_size=100,
                 max_wait_for_first_correlate_ms=500, symmetric=False):
        lib = _library()
        create = lib.ztsdlib_LinearCorrelator_createSymmetric if symmetric else lib.ztsdlib_LinearCorrelator_create
        self._create(create, _text(uri), timescale1._h, timescale2._h, sampling_interval_ms, max_sample_size,
                     max_wait_for_first_correlate_ms, uses=(timescale1, timescale2))


class CachingCorrelator(_Correlator):
    """Remembers the answers of the correlator it wraps."""

    def __init__(self, uri, correlator):
        self._create(_library().ztsdlib_CachingCorrelator_create, _text(uri), correlator._h, uses=(correlator,))


class NopCorrelator(_Correlator):
    """For two timescales on one clock: answers the timestamp unchanged."""

    def __init__(self, uri, timescale1, timescale2):
        self._create(_library().ztsdlib_NopCorrelator_create, _text(uri), timescale1._h, timescale2._h,
                     uses=(timescale1, timescale2))


Coherency = collections.namedtuple("Coherency", ["coherent", "loss_count"])


class SyncableDevice(_Object):
    """A remote syncable device; creating one sends nothing."""

    _delete = "ztsdlib_SyncableDevice_delete"

    def __init__(self, uri):
        self._create(_library().ztsdlib_SyncableDeviceProxy_create, _text(uri))

    @property
    def uri(self):
        return _call(self._lib.ztsdlib_SyncableDevice_getUri, self._h).decode()

    def set_coherency_requirements(self, sync_domain_uri, requirements):
        """requirements: a JSON text, or a value json.dumps() turns into one."""
        if not isinstance(requirements, str):
            requirements = json.dumps(requirements)
        _call(self._lib.ztsdlib_SyncableDevice_setCoherencyRequirements, self._h, _text(sync_domain_uri),
              _text(requirements))

    def clear_coherency_requirements(self, sync_domain_uri):
        _call(self._lib.ztsdlib_SyncableDevice_clearCoherencyRequirements, self._h, _text(sync_domain_uri))

    def coherency(self):
        """Coherency(coherent, loss_count), asked of the device."""
        count = ctypes.c_uint32()
        coherent = _call(self._lib.ztsdlib_SyncableDevice_isCoherent, self._h, ctypes.byref(count))
        return Coherency(coherent, count.value)

    def is_coherent(self):
        return self.coherency().coherent

    def to_json(self):
        return _owned_text(self._lib.ztsdlib_SyncableDevice_toJson, self._h)


class ThreadPool(_Object):
    """thread_count real threads that sync domains ask their members on."""

    _delete = "ztsdlib_ThreadPool_delete"

    def __init__(self, thread_count):
        self._create(_library().ztsdlib_ThreadPool_create, thread_count)


class _Domain(_Object):
    _delete = "ztsdlib_SyncDomain_delete"

    def is_member(self, device):
        """device: a SyncableDevice or its URI."""
        uri = device.uri if isinstance(device, SyncableDevice) else device
        return _call(self._lib.ztsdlib_SyncDomain_isMember, self._h, _text(uri))

    def add_syncable_device(self, device):
        """Places the domain's requirements on device; the domain keeps it."""
        handle = self._h
        self._hold(device)
        _call(self._lib.ztsdlib_SyncDomain_addSyncableDevice, handle, device._h)

    def is_coherent(self):
        return _call(self._lib.ztsdlib_SyncDomain_isCoherent, self._h)

    def is_coherent_since_last_checked(self):
        return _call(self._lib.ztsdlib_SyncDomain_isCoherentSinceLastChecked, self._h)

    def is_running(self):
        return _call(self._lib.ztsdlib_SyncDomain_isRunning, self._h)

    def start(self, timeout_s):
        """Starts and waits up to timeout_s to become coherent; True then.
        Ctrl-C (KeyboardInterrupt) while it waits ends the start at once."""
        return self._waiting_start(self._lib.ztsdlib_SyncDomain_start, self._h, timeout_s)

    def start_v2(self, wait_to_become_coherent, save_initial_coherency, timeout_s):
        """start() with its choices; Ctrl-C ends a waiting start at once."""
        self._waiting_start(self._lib.ztsdlib_SyncDomain_startV2, self._h, wait_to_become_coherent,
                            save_initial_coherency, timeout_s)

    def _waiting_start(self, function, *args):
        # The start runs on a worker thread while this one waits in short
        # waits, so that a KeyboardInterrupt reaches it: the start is then
        # cancelled, its end awaited (within about 50 ms) and the interrupt
        # passed on. Whatever the call raises there (ctypes refusing an
        # argument, say) is raised here, as a direct call would raise it.
        # The end is the worker's own event, not Thread.join: a join that a
        # KeyboardInterrupt cuts short may take the thread for ended while
        # the call still runs, and the domain would be freed under it.
        outcome = []
        ended = threading.Event()

        def run():
            try:
                outcome.append(_invoke(function, *args))
            except BaseException as error:
                outcome.append(error)
            finally:
                ended.set()

        threading.Thread(target=run, name="ztsdlib start", daemon=True).start()
        try:
            while not ended.wait(0.05):
                pass
        except KeyboardInterrupt as interrupt:
            self.cancel_start()
            while True:  # a second Ctrl-C must not leave the start running either
                try:
                    ended.wait()
                    break
                except KeyboardInterrupt:
                    pass
            raise interrupt
        if isinstance(outcome[0], BaseException):
            raise outcome[0]
        return _outcome(*outcome[0])

    def cancel_start(self):
        """Ends a start running on another thread (it then raises ZtsdError
        -52007 with "cancelled" in its report); True when one was under way.
        The one call allowed while another thread is inside one."""
        return _call(self._lib.ztsdlib_SyncDomain_cancelStart, self._h)

    def stop(self):
        _call(self._lib.ztsdlib_SyncDomain_stop, self._h)

    @property
    def uri(self):
        return _call(self._lib.ztsdlib_SyncDomain_getUri, self._h).decode()

    @property
    def timescale_uri(self):
        return _call(self._lib.ztsdlib_SyncDomain_getTimescaleUri, self._h).decode()

    def to_json(self):
        return _owned_text(self._lib.ztsdlib_SyncDomain_toJson, self._h)


class SyncDomain(_Domain):
    """Devices that must stay coherent, asked in parallel on pool."""

    def __init__(self, uri, timescale, pool, max_offset_ns=1000, min_sync_duration_ms=100):
        self._create(_library().ztsdlib_SyncDomain_create, _text(uri), timescale._h, max_offset_ns,
                     min_sync_duration_ms, pool._h, uses=(timescale, pool))


class NopSyncDomain(_Domain):
    """Keeps members but asks nobody: always coherent while running."""

    def __init__(self, uri, timescale):
        self._create(_library().ztsdlib_NopSyncDomain_create, _text(uri), timescale._h, uses=(timescale,))


def _params_text(params):
    return params if isinstance(params, str) else json.dumps(params)


def load_proxy_resources(params):
    """(SyncableDevice, [TimescaleProxy, ...]) of the chassis params
    describes (its networkDeviceParamsJson, as text or as a dict)."""
    lib = _library()
    device = ctypes.c_void_p()
    array = ctypes.POINTER(ctypes.c_void_p)()
    count = ctypes.c_uint32()
    # The array is made with the C runtime's own malloc, handed over as a
    # plain function address (no Python callback), and released with its free.
    _call(lib.ztsdlib_loadProxyResources, _text(_params_text(params)), ctypes.byref(device), ctypes.byref(array),
          ctypes.byref(count), ctypes.cast(_crt.malloc, ctypes.c_void_p).value)
    try:
        timescales = [TimescaleProxy.__new__(TimescaleProxy)._adopt(array[i]) for i in range(count.value)]
    finally:
        if array:
            _crt.free(ctypes.cast(array, ctypes.c_void_p))
    return SyncableDevice.__new__(SyncableDevice)._adopt(device.value), timescales


def list_syncable_device_uris(params):
    """The URIs of every syncable device the chassis params describes
    lists, in its order (one GET of its listing)."""
    return json.loads(_owned_text(_library().ztsdlib_listSyncableDeviceUris, _text(_params_text(params))))


def uri_roots_to_unload(params):
    """(device URI root, timescale URI root) of the chassis params
    describes; no network traffic."""
    lib = _library()
    text = _text(_params_text(params))
    size = min(len(text) + 16, 0xFFFFFFFF)  # the root is made from remoteHost, which the text holds
    device, timescale = ctypes.create_string_buffer(size), ctypes.create_string_buffer(size)
    _call(lib.ztsdlib_getProxyResourceUriRootsToUnload, text, size, device, timescale)
    return device.value.decode(), timescale.value.decode()
