import datetime
import decimal
import fractions
import os
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), ".."))
import ztsdlib  # noqa: E402

UTC = datetime.timezone.utc
U64 = (1 << 64) - 1


@pytest.mark.parametrize("text,nanos", [
    ("0", 0), ("-0.000000001", -1), ("1.5", 1_500_000_000),
    ("%d.999999999" % U64, U64 * 10**9 + 999_999_999),
    ("-%d.999999999" % U64, -(U64 * 10**9 + 999_999_999)),
])
def test_decimal_round_trip_is_exact(text, nanos):
    stamp = ztsdlib.Timestamp.from_decimal(decimal.Decimal(text))
    assert stamp.nanoseconds == nanos
    assert stamp.to_decimal() == decimal.Decimal(text)
    assert stamp._to_c().isNegative == (nanos < 0)
    assert ztsdlib.Timestamp._from_c(stamp._to_c()) == stamp


@pytest.mark.parametrize("text,error", [
    ("0.0000000001", ValueError), ("%d" % (U64 + 1), OverflowError),
])
def test_decimal_rejects(text, error):
    with pytest.raises(error):
        ztsdlib.Timestamp.from_decimal(decimal.Decimal(text))


# Every conversion of (nanoseconds, fractional_nanos) agrees with its exact value as a Fraction.
@pytest.mark.parametrize("nanos,fraction,text", [
    (1, 1 << 31, "1.5E-9"), (7, 1, "7.00000000023283064365386962890625E-9"), (-1, -(1 << 31), "-1.5E-9"),
    (0, -(1 << 31), "-5E-10"), (0, 1, "2.3283064365386962890625E-19"),
    (U64 * 10**9 + 999_999_999, (1 << 32) - 1, None), (-(U64 * 10**9 + 999_999_999), 1 - (1 << 32), None),
])
def test_the_fraction_of_a_nanosecond_is_kept(nanos, fraction, text):
    stamp = ztsdlib.Timestamp(nanos, fraction)
    exact = (fractions.Fraction(nanos) + fractions.Fraction(fraction, 1 << 32)) / 10**9
    assert fractions.Fraction(stamp.to_decimal()) == exact
    assert ztsdlib.Timestamp.from_decimal(stamp.to_decimal()) == stamp
    assert text is None or ztsdlib.Timestamp.from_decimal(decimal.Decimal(text)) == stamp
    record = stamp._to_c()
    assert (record.isNegative, record.fractionalNanos, T._from_c(record)) == (exact < 0, abs(fraction), stamp)


T, F, D, FINER = ztsdlib.Timestamp, ztsdlib.Timestamp.from_decimal, decimal.Decimal, r"2\*\*-32 ns"


@pytest.mark.parametrize("make,value,error,words", [
    (T, 1.7, TypeError, "Decimal"), (lambda f: T(1, f), 0.5, TypeError, "Decimal"), (T, True, TypeError, "int"),
    (T, D("1.5"), TypeError, "from_decimal"), (lambda f: T(0, f), 1 << 32, ValueError, r"2\*\*32"),
    (lambda f: T(1, f), -1, ValueError, "sign"), (F, 0.5, TypeError, "Decimal"), (F, 0.1, TypeError, "Decimal"),
    (F, D("1." + "0" * 69 + "1"), ValueError, FINER), (F, D("3E-19"), ValueError, FINER),
    (F, D("1E-42"), ValueError, FINER), (F, D("NaN"), ValueError, "finite"),
    (F, D("1E+999999999"), OverflowError, "64 bits"),
])
def test_floats_and_inexact_values_are_refused(make, value, error, words):
    with pytest.raises(error, match=words):
        make(value)


@pytest.mark.parametrize("moment,nanos", [
    (datetime.datetime(1601, 1, 1, tzinfo=UTC), 0),
    (datetime.datetime(1970, 1, 1, tzinfo=UTC), 11_644_473_600 * 10**9),
    (datetime.datetime(9999, 12, 31, 23, 59, 59, 999999, tzinfo=UTC), 265_046_774_399_999_999_000),
])
def test_datetime_counts_from_1601(moment, nanos):
    assert ztsdlib.Timestamp.from_datetime(moment).nanoseconds == nanos
    assert ztsdlib.Timestamp(nanos).to_datetime() == moment


def test_host_timescale_reads_the_wall_clock():
    with ztsdlib.HostTimescale() as clock:
        assert clock.uri == ztsdlib.HOST_TIMESCALE_URI
        read = clock.get_time().to_datetime()
    assert abs(read - datetime.datetime.now(UTC)) < datetime.timedelta(seconds=5)


@pytest.mark.parametrize("report,constant,message", [
    ({"error_constant": "a", "x_debug": {"message": "outer"}}, "a", "outer"),
    ({"error_constant": "a", "message": "outer",
      "nested_error": [{"error_constant": "b", "y_debug": {"message": "inner"}}]}, "a", "inner"),
    ({"error_constant": "a", "message": "outer", "nested_error": [{"error_constant": "b"}]}, "a", "outer"),
])
def test_error_takes_the_innermost_cause(report, constant, message):
    error = ztsdlib.ZtsdError(-1, report)
    assert (error.constant, error.message, error.report) == (constant, message, report)
