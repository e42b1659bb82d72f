"""ztsdlib over ctypes: library loading, status records, time values and
the host timescale."""
import ctypes
import ctypes.util
import datetime
import decimal
import json
import os
import warnings

__all__ = ["ZtsdError", "Timestamp", "HostTimescale", "HOST_TIMESCALE_URI", "load_library"]

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


class ZtsdError(Exception):
    """A failed call: code (< 0), constant, message and the parsed report."""

    def __init__(self, code, report):
        self.code = code
        self.report = report
        inner = report if isinstance(report, dict) else {}
        while isinstance(inner.get("nested_error"), list) and inner["nested_error"] \
                and isinstance(inner["nested_error"][0], dict):
            inner = inner["nested_error"][0]
        self.constant = inner.get("error_constant")
        self.message = _message_of(inner)
        super().__init__("%d %s: %s" % (code, self.constant, self.message))


class _Status(ctypes.Structure):
    pass


_Reallocate = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.POINTER(_Status), ctypes.c_uint32)
_Status._fields_ = [("code", ctypes.c_int32), ("capacity", ctypes.c_uint32),
                    ("reallocate", ctypes.c_void_p), ("json", ctypes.c_void_p)]


class _CTimestamp(ctypes.Structure):
    _fields_ = [("seconds", ctypes.c_uint64), ("nanos", ctypes.c_uint32),
                ("fractionalNanos", ctypes.c_uint32), ("isNegative", ctypes.c_bool)]


def load_library():
    """The library named by ZTSDLIB_LIBRARY, else one next to the package,
    else the system loader's; OSError names every place tried."""
    tried = []
    candidates = []
    if os.environ.get("ZTSDLIB_LIBRARY"):
        candidates.append(os.environ["ZTSDLIB_LIBRARY"])
    candidates.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "libztsdlib.so"))
    candidates.append(ctypes.util.find_library("ztsdlib") or "libztsdlib.so.1")
    for path in candidates:
        try:
            return ctypes.CDLL(path)
        except OSError as error:
            tried.append("%s (%s)" % (path, error))
    raise OSError("libztsdlib not found; tried: " + "; ".join(tried))


_lib = None


def _library():
    global _lib
    if _lib is None:
        lib = load_library()
        lib.ztsdlib_Status_defaultReallocate.restype = ctypes.c_bool
        lib.ztsdlib_Status_defaultReallocate.argtypes = [ctypes.POINTER(_Status), ctypes.c_uint32]
        lib.ztsdlib_HostTimescale_create.restype = ctypes.c_void_p
        lib.ztsdlib_HostTimescale_create.argtypes = [ctypes.c_char_p, ctypes.POINTER(_Status)]
        lib.ztsdlib_Timescale_getUri.restype = ctypes.c_char_p
        lib.ztsdlib_Timescale_getUri.argtypes = [ctypes.c_void_p, ctypes.POINTER(_Status)]
        lib.ztsdlib_Timescale_getTime.restype = None
        lib.ztsdlib_Timescale_getTime.argtypes = [ctypes.c_void_p, ctypes.POINTER(_CTimestamp),
                                                  ctypes.POINTER(_Status)]
        lib.ztsdlib_Timescale_delete.restype = None
        lib.ztsdlib_Timescale_delete.argtypes = [ctypes.c_void_p]
        _lib = lib
    return _lib


def _call(function, *args):
    """Calls function with a fresh status record; raises ZtsdError on an
    error, issues a warning on a warning, frees the report either way."""
    lib = _library()
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
        if status.code < 0:
            raise ZtsdError(status.code, report)
        if status.code > 0:
            warnings.warn(json.dumps(report), RuntimeWarning, stacklevel=3)
        return result
    finally:
        if status.json:
            lib.ztsdlib_Status_defaultReallocate(ctypes.byref(status), 0)


class Timestamp:
    """An exact time value: signed integer nanoseconds plus a carried
    fraction of a nanosecond (in units of 2**-32 ns)."""

    __slots__ = ("nanoseconds", "fractional_nanos")

    def __init__(self, nanoseconds=0, fractional_nanos=0):
        if abs(nanoseconds) // _NANOS > _U64_MAX:
            raise OverflowError("seconds do not fit 64 bits")
        self.nanoseconds = int(nanoseconds)
        self.fractional_nanos = int(fractional_nanos)

    @classmethod
    def from_decimal(cls, seconds):
        with decimal.localcontext() as context:
            context.prec = 60
            nanos = decimal.Decimal(seconds) * _NANOS
        if nanos != nanos.to_integral_value():
            raise ValueError("finer than a nanosecond: %s" % seconds)
        return cls(int(nanos))

    def to_decimal(self):
        with decimal.localcontext() as context:
            context.prec = 60
            return decimal.Decimal(self.nanoseconds).scaleb(-9)

    @classmethod
    def from_datetime(cls, moment):
        if moment.tzinfo is None:
            raise ValueError("a naive datetime is ambiguous; give it a time zone")
        delta = moment - _EPOCH
        return cls(((delta.days * 86400 + delta.seconds) * 1_000_000 + delta.microseconds) * 1000)

    def to_datetime(self):
        return _EPOCH + datetime.timedelta(microseconds=self.nanoseconds // 1000)

    @classmethod
    def _from_c(cls, value):
        magnitude = value.seconds * _NANOS + value.nanos
        return cls(-magnitude if value.isNegative else magnitude, value.fractionalNanos)

    def _to_c(self):
        seconds, nanos = divmod(abs(self.nanoseconds), _NANOS)
        return _CTimestamp(seconds, nanos, self.fractional_nanos, self.nanoseconds < 0)

    def __eq__(self, other):
        return isinstance(other, Timestamp) and (self.nanoseconds, self.fractional_nanos) == (
            other.nanoseconds, other.fractional_nanos)

    def __hash__(self):
        return hash((self.nanoseconds, self.fractional_nanos))

    def __repr__(self):
        return "Timestamp(%d, %d)" % (self.nanoseconds, self.fractional_nanos)


class HostTimescale:
    """The host's wall clock as a timescale."""

    def __init__(self, uri=HOST_TIMESCALE_URI):
        self._lib = _library()
        self._handle = None
        self._handle = _call(self._lib.ztsdlib_HostTimescale_create, None if uri is None else uri.encode())

    @property
    def uri(self):
        return _call(self._lib.ztsdlib_Timescale_getUri, self._handle).decode()

    def get_time(self):
        value = _CTimestamp()
        _call(self._lib.ztsdlib_Timescale_getTime, self._handle, ctypes.byref(value))
        return Timestamp._from_c(value)

    def close(self):
        if self._handle:
            self._lib.ztsdlib_Timescale_delete(self._handle)
            self._handle = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        if getattr(self, "_handle", None):
            self.close()
