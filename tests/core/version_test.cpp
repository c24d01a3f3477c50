#include "version.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

struct Parsed {
    const char* text;
    int major, minor, subminor;
    vers_type_e type;
    int build;
    bool ok;
    const char* formatted;
};

class VersionParse : public ::testing::TestWithParam<Parsed> {};

TEST_P(VersionParse, FieldsErrorLineAndFormat)
{
    Parsed const& p = GetParam();
    ::testing::internal::CaptureStderr();
    version_t v{std::string(p.text)};
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(v.major_version, p.major);
    EXPECT_EQ(v.minor_version, p.minor);
    EXPECT_EQ(v.subminor_version, p.subminor);
    EXPECT_EQ(v.vers_type, p.type);
    EXPECT_EQ(v.build_version, p.build);
    if (p.ok) EXPECT_EQ(err, "");
    else EXPECT_EQ(err, std::string("Error parsing version string ") + p.text + "\n");
    EXPECT_EQ(v.asString(), p.formatted);
}

INSTANTIATE_TEST_SUITE_P(All, VersionParse, ::testing::Values(
    Parsed{"1.0", 1, 0, 0, release, 0, true, "1.0"},
    Parsed{"10.4.9", 10, 4, 9, release, 0, true, "10.4.9"},
    Parsed{"10.4.0", 10, 4, 0, release, 0, true, "10.4"},
    Parsed{"7", 7, 0, 0, release, 0, true, "7.0"},
    Parsed{"1.0rc2", 1, 0, 0, release_candidate, 2, true, "1.0rc2"},
    Parsed{"1.0r2", 1, 0, 0, release, 2, true, "1.0r2"},
    Parsed{"1.0.4b2", 1, 0, 4, beta, 2, true, "1.0.4b2"},
    Parsed{"2.1d7", 2, 1, 0, development, 7, true, "2.1d7"},
    Parsed{"1.0a0", 1, 0, 0, alpha, 0, true, "1.0a0"},
    Parsed{"1.0\xCE\xB1" "4", 1, 0, 0, alpha, 4, true, "1.0a4"},
    Parsed{"1.0\xCE\xB2" "3", 1, 0, 0, beta, 3, true, "1.0b3"},
    Parsed{"70000.1", 4464, 1, 0, release, 0, true, "4464.1"},
    Parsed{"40000.65537", -25536, 1, 0, release, 0, true, "-25536.1"},
    // Failures keep what was recognised before the parse stopped.
    Parsed{"1b2", 1, 0, 0, release, 0, false, "1.0"},
    Parsed{"2.1b", 2, 1, 0, beta, 0, false, "2.1b0"},
    Parsed{"", 0, 0, 0, release, 0, false, "0.0"},
    Parsed{"1.2x", 1, 2, 0, release, 0, false, "1.2"},
    Parsed{" 1.0", 0, 0, 0, release, 0, false, "0.0"},
    Parsed{"1.0 ", 1, 0, 0, release, 0, false, "1.0"},
    Parsed{"1.0 beta", 1, 0, 0, release, 0, false, "1.0"},
    Parsed{"4294967296", 0, 0, 0, release, 0, false, "0.0"},
    Parsed{"4294967295.1", -1, 1, 0, release, 0, true, "-1.1"},
    Parsed{"1.0rc", 1, 0, 0, release_candidate, 0, false, "1.0rc0"},
    Parsed{"-1.0", 0, 0, 0, release, 0, false, "0.0"}));

TEST(Version, Ordering)
{
    const char* ascending[] = {"1.0d5", "1.0a1", "1.0b1", "1.0rc1", "1.0", "1.0r1", "1.0.1d1", "1.1", "2.0", "10.0"};
    for (size_t i = 0; i + 1 < std::size(ascending); ++i) {
        version_t lo{std::string(ascending[i])}, hi{std::string(ascending[i + 1])};
        EXPECT_TRUE(lo < hi) << ascending[i] << " < " << ascending[i + 1];
        EXPECT_FALSE(hi < lo);
        EXPECT_FALSE(lo == hi);
    }
    EXPECT_TRUE(version_t(std::string("1.0")) == version_t(std::string("1.0.0")));
    EXPECT_TRUE(version_t(std::string("1.0")) == version_t(std::string("1.0r0")));
    EXPECT_TRUE(version_t(std::string("1.0\xCE\xB2" "3")) == version_t(std::string("1.0b3")));
    EXPECT_FALSE(version_t(std::string("1.0")) < version_t(std::string("1.0.0")));
    EXPECT_TRUE(version_t(1, 0, 0) == version_t(std::string("1.0")));
}

TEST(Version, Formatters)
{
    version_t b3(2, 1, 0, beta, 3);
    EXPECT_EQ(b3.asString(), "2.1b3");
    EXPECT_EQ(b3.asUtf8String(), "2.1\xCE\xB2" "3");
    EXPECT_EQ(version_t(1, 0, 0, alpha, 2).asUtf8String(), "1.0\xCE\xB1" "2");
    const std::string custom[5] = {"dev", "alpha", "beta", "-rc", "-final"};
    EXPECT_EQ(version_t(1, 2, 3, release_candidate, 1).asString(custom), "1.2.3-rc1");
    EXPECT_EQ(version_t(1, 2, 0, release, 5).asString(custom), "1.2-final5");
    // An unknown type number is written out in full.
    EXPECT_EQ(version_t(1, 2, 0, static_cast<vers_type_e>(55), 6).asString(), "1.2.55.6");
    std::ostringstream os;
    os << version_t(std::string("10.3.9"));
    EXPECT_EQ(os.str(), "10.3.9");

    // asString parses back to an equal value for the five types.
    for (vers_type_e t : {development, alpha, beta, release_candidate, release}) {
        for (int build : {0, 1, 32767}) {
            version_t v(3, 14, 15, t, static_cast<int16_t>(build));
            EXPECT_EQ(version_t(v.asString()), v) << v.asString();
            EXPECT_EQ(version_t(v.asUtf8String()), v) << v.asUtf8String();
        }
    }
}

} // namespace
