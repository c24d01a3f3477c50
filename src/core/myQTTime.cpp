#include "myQTTime.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <ostream>

namespace {

using i128 = __int128;
constexpr std::int64_t kMax64 = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin64 = std::numeric_limits<std::int64_t>::min();
constexpr std::int32_t kMax32 = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kMin32 = std::numeric_limits<std::int32_t>::min();

std::int64_t saturate64(i128 v)
{
    if (v > kMax64) return kMax64;
    if (v < kMin64) return kMin64;
    return static_cast<std::int64_t>(v);
}

std::int32_t saturate32(long long v)
{
    if (v > kMax32) return kMax32;
    if (v < kMin32) return kMin32;
    return static_cast<std::int32_t>(v);
}

// Truncation toward zero, saturated; NaN is refused.
std::int64_t truncSaturate64(double d)
{
    if (std::isnan(d)) throw myQTTime::BadDuration();
    // 2^63 is exactly representable; anything at or beyond it saturates.
    if (d >= 9223372036854775808.0) return kMax64;
    if (d <= -9223372036854775808.0) return kMin64;
    return static_cast<std::int64_t>(d);
}

std::int32_t truncSaturate32(double d)
{
    if (std::isnan(d)) throw myQTTime::BadDuration();
    if (d >= 2147483647.0) return kMax32;
    if (d <= -2147483648.0) return kMin32;
    return static_cast<std::int32_t>(d);
}

// Nearest integer, ties to even, saturated; NaN is refused.
std::int64_t roundSaturate64(double d)
{
    if (std::isnan(d)) throw myQTTime::BadDuration();
    if (d >= 9223372036854775808.0) return kMax64;
    if (d <= -9223372036854775808.0) return kMin64;
    return std::llrint(d);
}

std::int32_t checkedScale(long scale)
{
    if (scale <= 0 || scale > kMax32) throw myQTTime::BadScale();
    return static_cast<std::int32_t>(scale);
}

void requirePositive(std::int32_t scale)
{
    if (scale <= 0) throw myQTTime::BadScale();
}

struct CommonScale {
    i128 x; // first tick count at the common scale
    i128 y; // second tick count at the common scale
    long long scale; // least common multiple of the two scales
};

CommonScale common(myQTTime const& a, myQTTime const& b)
{
    requirePositive(a.timeScale);
    requirePositive(b.timeScale);
    long g = myQTTime::GCD(a.timeScale, b.timeScale);
    long long fa = b.timeScale / g;
    long long fb = a.timeScale / g;
    return {i128(a.timeValue) * fa, i128(b.timeValue) * fb, (long long)a.timeScale * fa};
}

} // namespace

myQTTime::myQTTime(long long value, long scale)
    : timeValue(value), timeScale(static_cast<std::int32_t>(scale)), flags(0)
{
    if (scale > kMax32 || scale < kMin32) throw BadScale();
}

myQTTime::myQTTime(int seconds, long scale) : timeValue(0), timeScale(checkedScale(scale)), flags(0)
{
    timeValue = saturate32((long long)seconds * timeScale);
}

myQTTime::myQTTime(double seconds, long scale) : timeValue(0), timeScale(checkedScale(scale)), flags(0)
{
    timeValue = truncSaturate64(static_cast<double>(timeScale) * seconds);
}

namespace {

// scale x the seconds that a valid time text denotes, truncated toward zero,
// computed exactly on the decimal digits rather than through a double (so
// "4:49.34" at 48000 is 13888320 ticks, not one less). Returns false for a
// fraction with an exponent, which only the double path reads.
bool exactTicks(std::string_view text, std::int32_t scale, std::int64_t& ticks)
{
    size_t i = 0;
    bool negative = !text.empty() && text[0] == '-';
    if (negative) i = 1;
    i128 whole = 0, group = 0;
    i128 groups[2] = {0, 0};
    for (; i < text.size() && text[i] != '.'; ++i) {
        if (text[i] == ':') {
            groups[0] = groups[1];
            groups[1] = group;
            group = 0;
        } else {
            group = group * 10 + (text[i] - '0');
        }
    }
    whole = groups[0] * 3600 + groups[1] * 60 + group;
    i128 fractionTicks = 0;
    if (i < text.size()) {
        size_t first = ++i;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
        std::string_view digits = text.substr(first, i - first);
        if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
            size_t j = i + 1;
            if (j < text.size() && (text[j] == '+' || text[j] == '-')) ++j;
            if (j < text.size() && text[j] >= '0' && text[j] <= '9' && !digits.empty()) return false;
        }
        // floor(0.digits x scale): multiply the digit string by the scale and
        // keep what carries out past the decimal point.
        std::uint64_t carry = 0;
        for (size_t k = digits.size(); k-- > 0;) {
            std::uint64_t v = static_cast<std::uint64_t>(digits[k] - '0') * static_cast<std::uint64_t>(scale) + carry;
            carry = v / 10;
        }
        fractionTicks = carry;
    }
    i128 magnitude = whole * scale + fractionTicks;
    ticks = saturate64(negative ? -magnitude : magnitude);
    return true;
}

} // namespace

myQTTime::myQTTime(std::string_view text, long scale) : timeValue(0), timeScale(checkedScale(scale)), flags(0)
{
    double seconds = GetDuration(text); // validates the text
    if (!exactTicks(text, timeScale, timeValue))
        timeValue = truncSaturate64(static_cast<double>(timeScale) * seconds);
}

long myQTTime::GCD(long a, long b)
{
    unsigned long x = a < 0 ? 0UL - static_cast<unsigned long>(a) : static_cast<unsigned long>(a);
    unsigned long y = b < 0 ? 0UL - static_cast<unsigned long>(b) : static_cast<unsigned long>(b);
    for (;;) {
        if (y > x) std::swap(x, y);
        if (y == 0) return static_cast<long>(x);
        unsigned long r = x % y;
        x = y;
        y = r;
    }
}

myQTTime& myQTTime::setTimeScaleAtLeast(long minimum)
{
    requirePositive(timeScale);
    while (timeScale < minimum) {
        if (timeScale > kMax32 / 2) break;
        if (timeValue > kMax64 / 2 || timeValue < kMin64 / 2) break;
        timeScale *= 2;
        timeValue *= 2;
    }
    return *this;
}

long long myQTTime::timeWithScaleOf(long scale) const
{
    requirePositive(timeScale);
    if (scale <= 0) throw BadScale();
    long g = GCD(timeScale, scale);
    i128 v = i128(timeValue) * (scale / g);
    return saturate64(v / (timeScale / g));
}

myQTTime& myQTTime::operator+=(myQTTime const& o)
{
    if (timeScale == o.timeScale) {
        requirePositive(timeScale);
        timeValue = saturate64(i128(timeValue) + o.timeValue);
        return *this;
    }
    if (o.timeValue == 0) return *this;
    if (timeValue == 0) {
        *this = o;
        return *this;
    }
    CommonScale c = common(*this, o);
    i128 sum = c.x + c.y;
    if (c.scale < (1LL << 31)) {
        timeValue = saturate64(sum);
        timeScale = static_cast<std::int32_t>(c.scale);
    } else {
        std::int32_t larger = std::max(timeScale, o.timeScale);
        double v = static_cast<double>(sum) / static_cast<double>(c.scale) * larger;
        timeValue = truncSaturate32(v);
        timeScale = larger;
    }
    return *this;
}

myQTTime& myQTTime::operator-=(myQTTime const& o)
{
    if (timeScale == o.timeScale) {
        requirePositive(timeScale);
        timeValue = saturate64(i128(timeValue) - o.timeValue);
        return *this;
    }
    CommonScale c = common(*this, o);
    i128 diff = c.x - c.y;
    if (c.scale <= kMax32) {
        timeValue = saturate64(diff);
        timeScale = static_cast<std::int32_t>(c.scale);
    } else {
        std::int32_t larger = std::max(timeScale, o.timeScale);
        double v = static_cast<double>(diff) / static_cast<double>(c.scale) * larger;
        timeValue = truncSaturate64(v);
        timeScale = larger;
    }
    return *this;
}

bool myQTTime::operator<(myQTTime const& o) const
{
    if (timeScale == o.timeScale) {
        requirePositive(timeScale);
        return timeValue < o.timeValue;
    }
    CommonScale c = common(*this, o);
    return c.x < c.y;
}

bool myQTTime::operator==(myQTTime const& o) const
{
    if (timeScale == o.timeScale) {
        requirePositive(timeScale);
        return timeValue == o.timeValue;
    }
    CommonScale c = common(*this, o);
    return c.x == c.y;
}

myQTTime& myQTTime::operator/=(double divisor)
{
    timeValue = roundSaturate64(static_cast<double>(timeValue) / divisor);
    return *this;
}

std::ostream& myQTTime::output(std::ostream& os) const
{
    return os << timeValue << '/' << timeScale;
}

std::ostream& operator<<(std::ostream& os, myQTTime const& t) { return t.output(os); }

int myQTTime::width() const
{
    requirePositive(timeScale);
    long long seconds = timeValue / timeScale;
    long long minutes = seconds / 60;
    long long hours = minutes / 60;
    if (hours != 0) return 3;
    if (minutes != 0) return 2;
    return 1;
}

double myQTTime::seconds() const
{
    requirePositive(timeScale);
    return static_cast<double>(timeValue) / timeScale;
}

std::string myQTTime::inttime(int value, int width)
{
    std::string digits = std::to_string(value < 0 ? -static_cast<long long>(value) : value);
    std::string sign = value < 0 ? "-" : "";
    int pad = width - static_cast<int>(sign.size() + digits.size());
    return sign + std::string(pad > 0 ? static_cast<size_t>(pad) : 0, '0') + digits;
}

namespace {
// Zero-padded decimal text of an unsigned number (inttime for wide values).
std::string padded(std::uint64_t v, int width)
{
    std::string s = std::to_string(v);
    if (static_cast<int>(s.size()) < width) s.insert(0, static_cast<size_t>(width) - s.size(), '0');
    return s;
}
} // namespace

std::string myQTTime::asString(int minFields, int decimals) const
{
    requirePositive(timeScale);
    std::uint64_t a = timeValue < 0 ? 0ULL - static_cast<std::uint64_t>(timeValue) : static_cast<std::uint64_t>(timeValue);
    std::uint64_t scale = static_cast<std::uint64_t>(timeScale);
    std::uint64_t s = a / scale;
    std::uint64_t r = a % scale;
    std::uint64_t totalMinutes = s / 60;
    std::uint64_t hours = totalMinutes / 60;
    std::uint64_t secField = s - 60 * totalMinutes;
    std::uint64_t minField = totalMinutes - 60 * hours;

    std::string out = timeValue < 0 ? "-" : "";
    bool showHours = hours > 0 || minFields > 2;
    if (showHours) out += padded(hours, 2) + ":";
    if (minField > 0 || minFields > 1 || showHours) out += padded(minField, 2) + ":";
    out += padded(secField, 2);
    if (decimals > 0) {
        // Long division digit by digit: the fraction R x 10^decimals / scale
        // truncated, without any intermediate overflow.
        out += '.';
        for (int i = 0; i < decimals; ++i) {
            r *= 10;
            out += static_cast<char>('0' + r / scale);
            r %= scale;
        }
    }
    return out;
}

double myQTTime::GetDuration(std::string_view text)
{
    size_t i = 0;
    double sign = 1.0;
    if (!text.empty() && text[0] == '-') {
        sign = -1.0;
        i = 1;
    }
    long long h = 0, m = 0, c = 0;
    double fraction = 0.0;
    for (; i < text.size(); ++i) {
        char ch = text[i];
        if (ch >= '0' && ch <= '9') {
            c = c * 10 + (ch - '0');
            if (c > kMax32) throw BadDuration();
        } else if (ch == ':') {
            if (h != 0) throw BadDuration();
            h = m;
            m = c;
            c = 0;
        } else if (ch == '.') {
            // The fraction reads like the C library's atof from the ".":
            // leading fraction digits (and an exponent) count, the rest is
            // ignored. from_chars does it independently of the locale.
            double f = 0.0;
            auto res = std::from_chars(text.data() + i, text.data() + text.size(), f, std::chars_format::general);
            if (res.ec == std::errc()) {
                fraction = f;
            } else if (res.ec == std::errc::result_out_of_range) {
                // Too large is refused below as not finite; too small is 0.
                bool negativeExponent = std::string_view(text.data() + i, res.ptr - (text.data() + i)).find("-") != std::string_view::npos;
                fraction = negativeExponent ? 0.0 : std::numeric_limits<double>::infinity();
            }
            break;
        } else {
            throw BadDuration();
        }
    }
    if (h != 0 && m > 59) throw BadDuration();
    if ((m != 0 || h != 0) && c >= 60) throw BadDuration();
    double result = sign * (static_cast<double>(h * 3600 + m * 60 + c) + fraction);
    if (!std::isfinite(result)) throw BadDuration();
    return result;
}

template <class T>
T& setToMin(T& target, QTTime const& candidate)
{
    if (myQTTime(candidate) < myQTTime(QTTime(target))) {
        target.timeValue = candidate.timeValue;
        target.timeScale = candidate.timeScale;
        target.flags = candidate.flags;
    }
    return target;
}

template myQTTime& setToMin<myQTTime>(myQTTime&, QTTime const&);
template QTTime& setToMin<QTTime>(QTTime&, QTTime const&);
