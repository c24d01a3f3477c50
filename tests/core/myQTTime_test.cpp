#include "myQTTime.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <sstream>

namespace {

using i128 = __int128;

void expectFields(myQTTime const& t, long long value, int scale, int flags = 0)
{
    EXPECT_EQ(t.timeValue, value);
    EXPECT_EQ(t.timeScale, scale);
    EXPECT_EQ(t.flags, flags);
}

std::string str(myQTTime const& t)
{
    std::ostringstream os;
    t.output(os);
    return os.str();
}

TEST(myQTTime, Constructors)
{
    expectFields(myQTTime(), 0, 600);
    expectFields(myQTTime(5, 600), 3000, 600);
    expectFields(myQTTime(1.2345, 600), 740, 600);
    expectFields(myQTTime(-1.2345, 600), -740, 600);
    expectFields(myQTTime(1234567890123LL, 90000), 1234567890123LL, 90000);
    expectFields(myQTTime("1:02:03.5", 600), 2234100, 600);
    expectFields(myQTTime(std::string("-"), 600), 0, 600);
    expectFields(myQTTime("1.2345", 600), 740, 600);
    expectFields(myQTTime("-1.2345", 600), -740, 600);
    expectFields(myQTTime("4:49.34", 48000), 13888320, 48000); // exact, not one tick short
    expectFields(myQTTime(".5e1x", 600), 3000, 600);            // a fraction with an exponent
    expectFields(myQTTime("0.3333333333333333333333334", 3), 1, 3);
    expectFields(myQTTime(QTTime{7, 30, 3}), 7, 30, 3);
    // The whole-seconds product is 32-bit: it saturates instead of wrapping.
    expectFields(myQTTime(100000, 48000), std::numeric_limits<int32_t>::max(), 48000);
    EXPECT_THROW(myQTTime("1:60", 600), myQTTime::BadDuration);
    EXPECT_THROW(myQTTime(1.0, 0), myQTTime::BadScale);
    EXPECT_THROW(myQTTime("1", -5), myQTTime::BadScale);
    EXPECT_THROW(myQTTime(std::numeric_limits<double>::quiet_NaN(), 600), myQTTime::BadDuration);
    expectFields(myQTTime(1e300, 600), std::numeric_limits<int64_t>::max(), 600);
}

TEST(myQTTime, ComparisonAndGCD)
{
    EXPECT_EQ(myQTTime::GCD(600, 44100), 300);
    EXPECT_EQ(myQTTime::GCD(44100, 600), 300);
    EXPECT_EQ(myQTTime::GCD(7, 0), 7);
    EXPECT_EQ(myQTTime::GCD(0, 0), 0);
    EXPECT_EQ(myQTTime::GCD(-12, 18), 6);
    EXPECT_TRUE(myQTTime(1LL, 600) == myQTTime(147LL, 88200));
    EXPECT_FALSE(myQTTime(1LL, 600) == myQTTime(1LL, 601));
    EXPECT_TRUE(myQTTime(1LL, 600) < myQTTime(74LL, 44100));
    EXPECT_FALSE(myQTTime(74LL, 44100) < myQTTime(1LL, 600));
    myQTTime flagged(5LL, 600);
    flagged.flags = 9;
    EXPECT_TRUE(flagged == myQTTime(5LL, 600));
    // Cross products beyond 64 bits still compare exactly.
    myQTTime big(std::numeric_limits<int64_t>::max(), 1000);
    myQTTime bigger(std::numeric_limits<int64_t>::max(), 999);
    EXPECT_TRUE(big < bigger);
    EXPECT_FALSE(bigger < big);
    myQTTime bad(1LL, 0);
    EXPECT_THROW((void)(bad < myQTTime()), myQTTime::BadScale);
    EXPECT_THROW((void)(bad == bad), myQTTime::BadScale);
}

TEST(myQTTime, SumAndDifference)
{
    struct Case {
        myQTTime a;
        myQTTime b;
        bool add;
        long long value;
        int scale;
        int flags;
    };
    myQTTime zeroFlagged(0LL, 600);
    myQTTime otherFlagged(1LL, 44100);
    otherFlagged.flags = 4;
    const Case cases[] = {
        {myQTTime(1LL, 600), myQTTime(1LL, 44100), true, 149, 88200, 0},
        {zeroFlagged, otherFlagged, true, 1, 44100, 4},          // copy of the other, flags too
        {myQTTime(1LL, 600), myQTTime(0LL, 44100), true, 1, 600, 0}, // zero shortcut
        {myQTTime(1LL, 600), myQTTime(0LL, 44100), false, 147, 88200, 0}, // no shortcut
        {myQTTime(5LL, 600), myQTTime(1LL, 44100), false, 733, 88200, 0},
        {myQTTime(5LL, 600), myQTTime(7LL, 600), true, 12, 600, 0},
        {myQTTime(5LL, 600), myQTTime(7LL, 600), false, -2, 600, 0},
        {myQTTime(0LL, 600), myQTTime(0LL, 44100), false, 0, 88200, 0},
    };
    for (auto const& c : cases) {
        myQTTime r = c.a;
        if (c.add) r += c.b; else r -= c.b;
        SCOPED_TRACE(str(c.a) + (c.add ? " + " : " - ") + str(c.b));
        expectFields(r, c.value, c.scale, c.flags);
    }
}

TEST(myQTTime, OutOfRangeArithmeticSaturates)
{
    const int64_t max64 = std::numeric_limits<int64_t>::max();
    const int64_t min64 = std::numeric_limits<int64_t>::min();
    // Same-scale overflow saturates.
    myQTTime a(max64, 600);
    a += myQTTime(10LL, 600);
    EXPECT_EQ(a.timeValue, max64);
    myQTTime b(min64, 600);
    b -= myQTTime(10LL, 600);
    EXPECT_EQ(b.timeValue, min64);
    // Sum with a common scale beyond 2^31: the larger scale, 32-bit ticks.
    myQTTime c(3LL, 65536);
    c += myQTTime(5LL, 65537); // lcm = 65536 * 65537 > 2^31
    EXPECT_EQ(c.timeScale, 65537);
    EXPECT_EQ(c.timeValue, 8); // (3*65537 + 5*65536)/lcm*65537 = 8.0000x
    myQTTime d(1LL << 40, 65536);
    d += myQTTime(1LL, 65537);
    EXPECT_EQ(d.timeValue, std::numeric_limits<int32_t>::max());
    // Difference with a common scale beyond 2^31 - 1 takes the same road.
    myQTTime e(8LL, 65536);
    e -= myQTTime(5LL, 65537);
    EXPECT_EQ(e.timeScale, 65537);
    EXPECT_EQ(e.timeValue, 3);
    // Products beyond 64 bits at the common scale saturate.
    myQTTime f(max64, 1000);
    f += myQTTime(1LL, 999);
    EXPECT_EQ(f.timeValue, max64);
    EXPECT_EQ(f.timeScale, 999000);
    EXPECT_EQ(myQTTime(max64, 1).timeWithScaleOf(48000), max64);
    myQTTime g(1LL, 600);
    g /= 0.0;
    EXPECT_EQ(g.timeValue, max64);
    myQTTime h(0LL, 600);
    EXPECT_THROW(h /= 0.0, myQTTime::BadDuration);
}

TEST(myQTTime, ScalingAndDivision)
{
    EXPECT_EQ(myQTTime(1001LL, 30000).timeWithScaleOf(600), 20);
    EXPECT_EQ(myQTTime(-1001LL, 30000).timeWithScaleOf(600), -20);
    EXPECT_EQ(myQTTime(3LL, 2).timeWithScaleOf(48000), 72000);
    EXPECT_THROW((void)myQTTime(3LL, 2).timeWithScaleOf(0), myQTTime::BadScale);

    myQTTime s(300LL, 600);
    s.setTimeScaleAtLeast(10000);
    expectFields(s, 9600, 19200);
    myQTTime same(300LL, 600);
    same.setTimeScaleAtLeast(600);
    expectFields(same, 300, 600);
    // Doubling stops before leaving the ranges, and never loops forever.
    myQTTime wide(1LL << 62, 600);
    wide.setTimeScaleAtLeast(10000);
    expectFields(wide, 1LL << 62, 600);
    myQTTime huge(1LL, 600);
    huge.setTimeScaleAtLeast(std::numeric_limits<long>::max());
    EXPECT_EQ(huge.timeScale, 600 << 21);
    EXPECT_TRUE(huge == myQTTime(1LL, 600));
    myQTTime zero(1LL, 0);
    EXPECT_THROW(zero.setTimeScaleAtLeast(10), myQTTime::BadScale);

    struct Div { long long v; double d; long long r; };
    for (Div c : {Div{7, 2, 4}, Div{5, 2, 2}, Div{-5, 2, -2}, Div{-7, 2, -4}, Div{9, 3, 3}, Div{1, -2, 0}}) {
        myQTTime t(c.v, 600);
        t /= c.d;
        EXPECT_EQ(t.timeValue, c.r) << c.v << "/" << c.d;
        EXPECT_EQ(t.timeScale, 600);
    }
}

TEST(myQTTime, Formatting)
{
    struct Case { long long ticks; int scale; int minFields; int decimals; const char* text; };
    const Case cases[] = {
        {2234100, 600, 0, 3, "01:02:03.500"},
        {3150, 600, 3, 3, "00:00:05.250"},
        {3150, 600, 0, 3, "05.250"},
        {39000, 600, 2, 0, "01:05"},
        {-54000, 600, 0, 3, "-01:30.000"},
        {4320000, 600, 0, 0, "02:00:00"},
        {599, 600, 0, 3, "00.998"},
        {0, 600, 0, 0, "00"},
        {1, 600, 0, 3, "00.001"},
        {360000LL * 600 * 100, 600, 0, 0, "10000:00:00"},
        {1, 3, 0, 12, "00.333333333333"},
        {std::numeric_limits<int64_t>::min(), 1, 0, 0, "-2562047788015215:30:08"},
        {48047, 48000, 1, 5, "01.00097"},
    };
    for (auto const& c : cases) {
        EXPECT_EQ(myQTTime(c.ticks, c.scale).asString(c.minFields, c.decimals), c.text)
            << c.ticks << "/" << c.scale << " (" << c.minFields << "," << c.decimals << ")";
    }
    EXPECT_EQ(str(myQTTime(1200LL, 600)), "1200/600");
    EXPECT_EQ(myQTTime::inttime(5, 2), "05");
    EXPECT_EQ(myQTTime::inttime(123, 2), "123");
    EXPECT_EQ(myQTTime::inttime(0, 3), "000");
    EXPECT_EQ(myQTTime::inttime(-5, 3), "-05");

    EXPECT_EQ(myQTTime(3723.0, 600).width(), 3);
    EXPECT_EQ(myQTTime(65.0, 600).width(), 2);
    EXPECT_EQ(myQTTime(5.25, 600).width(), 1);
    EXPECT_EQ(myQTTime(-90.0, 600).width(), 2);
}

TEST(myQTTime, Parsing)
{
    struct Good { const char* text; double seconds; };
    const Good good[] = {
        {"90", 90}, {"90:00", 5400}, {"0:90", 90}, {"0:1:2:3", 3723}, {"", 0},
        {"1.2.3", 1.2}, {"1:02:03.5", 3723.5}, {"-1:30", -90}, {"5.", 5.0},
        {"1:02:03.5x", 3723.5}, {".5", 0.5}, {"2147483647", 2147483647.0},
        {"1.5e-999", 1.0}, {"0:59", 59}, {"1:59:59", 7199},
    };
    for (auto const& g : good) EXPECT_DOUBLE_EQ(myQTTime::GetDuration(g.text), g.seconds) << '"' << g.text << '"';
    double minusZero = myQTTime::GetDuration("-");
    EXPECT_EQ(minusZero, 0.0);
    EXPECT_TRUE(std::signbit(minusZero));

    const char* bad[] = {"1:60", "1:2:3:4", " 5", "+5", "5a", "--5", "1:60:00", "2147483648",
                         "99999999999999999999", "1.5e999", "1:2:60", "1 "};
    for (const char* b : bad) EXPECT_THROW(myQTTime::GetDuration(b), myQTTime::BadDuration) << '"' << b << '"';
}

TEST(myQTTime, SetToMin)
{
    myQTTime target(1200LL, 600);
    QTTime shorter{44100, 44100, 7};
    setToMin(target, shorter);
    expectFields(target, 44100, 44100, 7);
    setToMin(target, QTTime{3, 1, 0}); // later: unchanged
    expectFields(target, 44100, 44100, 7);

    QTTime plain{10, 1, 0};
    setToMin(plain, QTTime{599, 60, 2});
    EXPECT_EQ(plain.timeValue, 599);
    EXPECT_EQ(plain.timeScale, 60);
    EXPECT_EQ(plain.flags, 2);
}

// Random pairs over common media scales compare exactly as the rationals they
// denote, and sums and differences are exact whenever the common scale fits.
TEST(myQTTime, ArithmeticMatchesRationals)
{
    const int scales[] = {1, 24, 25, 30, 600, 1000, 1001, 22050, 30000, 44100, 48000, 90000};
    std::mt19937_64 rng(20261123);
    std::uniform_int_distribution<int> pick(0, std::size(scales) - 1);
    std::uniform_int_distribution<int64_t> small(-(1LL << 40), 1LL << 40);
    std::uniform_int_distribution<int64_t> any(std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max());
    for (int i = 0; i < 200000; ++i) {
        int sa = scales[pick(rng)], sb = scales[pick(rng)];
        bool wide = (i % 4) == 0;
        int64_t va = wide ? any(rng) : small(rng), vb = wide ? any(rng) : small(rng);
        if (i % 7 == 0) vb = static_cast<int64_t>((i128)va * sb / sa); // near-equal instants
        myQTTime a(static_cast<long long>(va), sa), b(static_cast<long long>(vb), sb);
        i128 lhs = (i128)va * sb, rhs = (i128)vb * sa;
        ASSERT_EQ(a < b, lhs < rhs) << va << "/" << sa << " vs " << vb << "/" << sb;
        ASSERT_EQ(a == b, lhs == rhs);
        ASSERT_EQ(b < a, rhs < lhs);

        long long g = myQTTime::GCD(sa, sb);
        long long lcm = (long long)sa / g * sb;
        if (lcm < (1LL << 31) && !wide) {
            i128 exactSum = (i128)va * (lcm / sa) + (i128)vb * (lcm / sb);
            i128 exactDiff = (i128)va * (lcm / sa) - (i128)vb * (lcm / sb);
            myQTTime s = a;
            s += b;
            myQTTime d = a;
            d -= b;
            // The result denotes exactly the rational sum / difference.
            ASSERT_EQ((i128)s.timeValue * lcm, exactSum * s.timeScale);
            ASSERT_EQ((i128)d.timeValue * lcm, exactDiff * d.timeScale);
            // a + b - b == a and (a - b) + b == a, as instants.
            myQTTime back = d;
            back += b;
            ASSERT_TRUE(back == a);
        }
    }
}

TEST(myQTTime, AsStringRoundTripsCanonicalClockText)
{
    std::mt19937 rng(7);
    for (int i = 0; i < 20000; ++i) {
        int h = std::uniform_int_distribution<int>(0, 30)(rng);
        int m = std::uniform_int_distribution<int>(0, 59)(rng);
        int s = std::uniform_int_distribution<int>(0, 59)(rng);
        int ms = std::uniform_int_distribution<int>(0, 999)(rng);
        bool negative = i % 5 == 0 && (h + m + s + ms) != 0;
        std::string text = (negative ? "-" : "") + myQTTime::inttime(h, 2) + ":" + myQTTime::inttime(m, 2)
                         + ":" + myQTTime::inttime(s, 2) + "." + myQTTime::inttime(ms, 3);
        // Scale 1000 holds milliseconds exactly; go through ticks, not double.
        long long ticks = ((h * 3600LL + m * 60 + s) * 1000 + ms) * (negative ? -1 : 1);
        ASSERT_NEAR(myQTTime::GetDuration(text), ticks / 1000.0, 1e-9) << text;
        ASSERT_EQ(myQTTime(ticks, 1000).asString(3, 3), text);
        for (long scale : {1000L, 30000L, 48000L, 90000L}) {
            myQTTime parsed(text, scale);
            ASSERT_EQ(parsed.asString(3, 3), text) << text << " at " << scale;
        }
    }
}

} // namespace
