#include "version.h"

#include <boost/spirit/include/classic_actions.hpp>
#include <boost/spirit/include/classic_core.hpp>
#include <iostream>
#include <tuple>

namespace {

namespace sp = boost::spirit::classic;

// Constants the assign actions store by reference.
const vers_type_e kDevelopment = development;
const vers_type_e kAlpha = alpha;
const vers_type_e kBeta = beta;
const vers_type_e kReleaseCandidate = release_candidate;
const vers_type_e kRelease = release;

} // namespace

version_t::version_t(std::string s)
{
    using sp::ch_p;
    using sp::str_p;
    using sp::assign_a;
    using rule = sp::rule<>;

    // Unsigned 32-bit decimal: a longer run does not match. Assigning it to
    // a 16-bit field keeps its low 16 bits (40000 becomes -25536).
    sp::uint_parser<std::uint32_t, 10, 1, -1> number;

    rule devType = ch_p('d')[assign_a(vers_type, kDevelopment)];
    rule alphaType = (ch_p('a') | str_p("\xCE\xB1"))[assign_a(vers_type, kAlpha)];
    rule betaType = (ch_p('b') | str_p("\xCE\xB2"))[assign_a(vers_type, kBeta)];
    rule rcType = str_p("rc")[assign_a(vers_type, kReleaseCandidate)];
    rule releaseType = ch_p('r')[assign_a(vers_type, kRelease)];
    rule marker = devType | alphaType | betaType | rcType | releaseType;

    rule versionRule =
        number[assign_a(major_version)]
        >> !(ch_p('.') >> number[assign_a(minor_version)]
             >> !(ch_p('.') >> number[assign_a(subminor_version)])
             >> !(marker >> number[assign_a(build_version)]));

    sp::parse_info<char const*> info = sp::parse(static_cast<char const*>(s.data()), static_cast<char const*>(s.data() + s.size()), versionRule);
    if (!info.full) std::cerr << "Error parsing version string " << s << std::endl;
}

bool version_t::operator<(version_t const& o) const
{
    return std::tuple(major_version, minor_version, subminor_version, static_cast<std::int32_t>(vers_type), build_version)
         < std::tuple(o.major_version, o.minor_version, o.subminor_version, static_cast<std::int32_t>(o.vers_type), o.build_version);
}

bool version_t::operator==(version_t const& o) const
{
    return major_version == o.major_version && minor_version == o.minor_version
        && subminor_version == o.subminor_version && vers_type == o.vers_type
        && build_version == o.build_version;
}

std::string version_t::asString(std::string const* markers) const
{
    std::string out = std::to_string(major_version) + "." + std::to_string(minor_version);
    if (subminor_version != 0) {
        out += '.';
        out += std::to_string(subminor_version);
    }
    switch (vers_type) {
    case development: out += markers[0] + std::to_string(build_version); break;
    case alpha: out += markers[1] + std::to_string(build_version); break;
    case beta: out += markers[2] + std::to_string(build_version); break;
    case release_candidate: out += markers[3] + std::to_string(build_version); break;
    case release:
        if (build_version != 0) out += markers[4] + std::to_string(build_version);
        break;
    default:
        out += '.';
        out += std::to_string(static_cast<std::int32_t>(vers_type));
        out += '.';
        out += std::to_string(build_version);
        break;
    }
    return out;
}

std::string version_t::asString() const
{
    static const std::string markers[5] = {"d", "a", "b", "rc", "r"};
    return asString(markers);
}

std::string version_t::asUtf8String() const
{
    static const std::string markers[5] = {"d", "\xCE\xB1", "\xCE\xB2", "rc", "r"};
    return asString(markers);
}

std::ostream& operator<<(std::ostream& os, version_t const& v) { return os << v.asString(); }
