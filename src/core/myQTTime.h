// Movie time values: ticks over a time scale, with exact arithmetic across
// scales, parsing of typed time text and clock-style formatting.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <string_view>

// A movie time as the movie layers hand it around: `timeValue` ticks of a
// clock with `timeScale` ticks per second. `flags` is carried, never read.
struct QTTime {
    std::int64_t timeValue = 0;
    std::int32_t timeScale = 600;
    std::int32_t flags = 0;
};

// A span of movie time: where it starts and how long it lasts.
struct QTTimeRange {
    QTTime time;
    QTTime duration;
};

// Time zero (0 ticks at 1 tick per second).
inline constexpr QTTime QTZeroTime{0, 1, 0};

inline QTTimeRange QTMakeTimeRange(QTTime start, QTTime duration) { return {start, duration}; }

// The system's time value. Same three fields, in the same order and widths,
// as QTTime, so the two convert field by field.
//
// Behaviour outside the ranges of the fields (never undefined behaviour):
//  - Scales must be positive. Every operation that divides by a scale,
//    compares, adds, subtracts or rescales refuses a zero or negative scale
//    with BadScale; so do the seconds and text constructors. The tick
//    constructors accept any scale that fits 32 bits (the value is plain data) and `GCD` works
//    on the magnitudes of its arguments (GCD(0, 0) is 0).
//  - Comparisons are exact for every pair of values: the cross products are
//    formed in 128 bits, so they never wrap.
//  - Sums and differences are formed exactly in 128 bits and then saturate:
//    a tick count beyond the signed 64-bit range becomes INT64_MAX/INT64_MIN.
//  - The sum's documented fallback for a common scale of 2^31 or more keeps
//    its 32-bit tick count, saturated to the signed 32-bit range.
//  - The difference, when the common scale exceeds 2^31 - 1, takes the same
//    road as the sum: the larger of the two scales, the tick count truncated
//    toward zero (saturated to 64 bits rather than 32).
//  - The whole-seconds constructor forms its 32-bit product saturated to the
//    signed 32-bit range; the seconds constructor and `operator/=` saturate
//    to the signed 64-bit range, and refuse a result that is not a number
//    with BadDuration.
//  - `timeWithScaleOf` saturates to the signed 64-bit range.
//  - `setTimeScaleAtLeast` stops doubling when the scale or the tick count
//    would leave its range, so the instant never changes.
//  - `GetDuration` refuses a digit group beyond the signed 32-bit range and a
//    fraction that is not finite.
//  - `asString` is exact for every tick count and any number of decimals.
class myQTTime {
public:
    // Raised by the time-text parser and by results that are not a number.
    class BadDuration {};
    // Raised by operations that need a positive scale and did not get one.
    class BadScale : public std::invalid_argument {
    public:
        BadScale() : std::invalid_argument("a time scale of zero or below") {}
    };

    std::int64_t timeValue;
    std::int32_t timeScale;
    std::int32_t flags;

    // 0 ticks at scale 600.
    myQTTime() : timeValue(0), timeScale(600), flags(0) {}
    // `value` ticks at `scale`.
    myQTTime(long long value, long scale);
    myQTTime(long value, long scale) : myQTTime(static_cast<long long>(value), scale) {}
    // Whole seconds: seconds x scale as a signed 32-bit product (saturated).
    myQTTime(int seconds, long scale);
    // scale x seconds in double precision, truncated toward zero.
    myQTTime(double seconds, long scale);
    // Parses UTF-8 time text with GetDuration; scale x seconds, truncated.
    // The product is formed exactly on the decimal digits of the text, so a
    // time typed to the millisecond keeps it at any scale that holds it.
    myQTTime(std::string_view text, long scale);
    myQTTime(char const* text, long scale) : myQTTime(std::string_view(text ? text : ""), scale) {}
    myQTTime(std::string const& text, long scale) : myQTTime(std::string_view(text), scale) {}

    // Field-by-field conversions with the platform-style struct.
    myQTTime(QTTime const& t) : timeValue(t.timeValue), timeScale(t.timeScale), flags(t.flags) {}
    operator QTTime() const { return QTTime{timeValue, timeScale, flags}; }

    // Greatest common divisor of the magnitudes.
    static long GCD(long a, long b);

    // Doubles scale and ticks until the scale is at least `minimum`.
    myQTTime& setTimeScaleAtLeast(long minimum);
    // The tick count of this instant at another scale, truncated toward zero.
    long long timeWithScaleOf(long scale) const;

    myQTTime& operator+=(myQTTime const& o);
    myQTTime& operator-=(myQTTime const& o);
    bool operator<(myQTTime const& o) const;
    bool operator==(myQTTime const& o) const;
    bool operator!=(myQTTime const& o) const { return !(*this == o); }
    bool operator>(myQTTime const& o) const { return o < *this; }
    bool operator<=(myQTTime const& o) const { return !(o < *this); }
    bool operator>=(myQTTime const& o) const { return !(*this < o); }
    // Divides the tick count (nearest, ties to even); the scale stays.
    myQTTime& operator/=(double divisor);

    // Writes "value/scale", e.g. 1200/600.
    std::ostream& output(std::ostream& os) const;
    // Clock fields the value needs: 3 with hours, 2 with minutes, else 1.
    int width() const;
    // Clock text such as 01:02:03.500; fractions are cut, never rounded.
    std::string asString(int minFields, int decimals) const;
    // `value` in decimal, left-padded with "0" to `width` characters. A
    // negative value keeps its "-" in front of the padded digits.
    static std::string inttime(int value, int width);
    // Seconds denoted by time text "[-][[h:]m:]s[.frac]"; raises BadDuration.
    static double GetDuration(std::string_view text);

    // Seconds as a double.
    double seconds() const;
};

inline myQTTime operator+(myQTTime a, myQTTime const& b) { return a += b; }
inline myQTTime operator-(myQTTime a, myQTTime const& b) { return a -= b; }
std::ostream& operator<<(std::ostream& os, myQTTime const& t);

// When `candidate` is earlier than `target`, copies all three of its fields
// into `target`. Instantiated for myQTTime and QTTime targets.
template <class T>
T& setToMin(T& target, QTTime const& candidate);

extern template myQTTime& setToMin<myQTTime>(myQTTime&, QTTime const&);
extern template QTTime& setToMin<QTTime>(QTTime&, QTTime const&);
