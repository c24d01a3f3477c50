// Software version numbers such as 10.3.9, 2.1b3 or 1.0rc1.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

// Release types; the numbers order them (a plain release sorts last).
enum vers_type_e : std::int32_t {
    development = 10,
    alpha = 20,
    beta = 30,
    release_candidate = 40,
    release = 127,
};

// A parsed version number. Plain value: compared field by field.
struct version_t {
    std::int16_t major_version = 0;
    std::int16_t minor_version = 0;
    std::int16_t subminor_version = 0;
    vers_type_e vers_type = release;
    std::int16_t build_version = 0;

    version_t() = default;
    version_t(std::int16_t major, std::int16_t minor, std::int16_t subminor,
              vers_type_e type = release, std::int16_t build = 0)
        : major_version(major), minor_version(minor), subminor_version(subminor),
          vers_type(type), build_version(build) {}

    // Parses "major[.minor[.subminor][marker build]]" with the markers d, a/α,
    // b/β, rc, r. Never throws: a string that does not match as a whole writes
    // "Error parsing version string <s>" to standard error and keeps whatever
    // fields were recognised before the parse stopped. Numbers are unsigned
    // 32-bit (a longer run does not match) stored as their low 16 bits.
    explicit version_t(std::string s);

    bool operator<(version_t const& o) const;
    bool operator==(version_t const& o) const;
    bool operator!=(version_t const& o) const { return !(*this == o); }

    // `markers` points to five markers: development, alpha, beta,
    // release candidate, release.
    std::string asString(std::string const* markers) const;
    // Markers d, a, b, rc, r.
    std::string asString() const;
    // Markers d, α, β, rc, r (UTF-8).
    std::string asUtf8String() const;
};

std::ostream& operator<<(std::ostream& os, version_t const& v);
