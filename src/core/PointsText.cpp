#include "PointsText.h"

#include <cstdio>
#include <sstream>

namespace {
std::string trim(std::string const& v)
{
    auto a = v.find_first_not_of(" \t\r"), b = v.find_last_not_of(" \t\r");
    return a == std::string::npos ? std::string() : v.substr(a, b - a + 1);
}
} // namespace

std::string quotedForMessage(std::string const& text)
{
    constexpr std::size_t kShown = 40; // characters
    std::string shown;
    std::size_t at = 0, characters = 0;
    while (at < text.size() && characters < kShown) {
        auto c = static_cast<unsigned char>(text[at]);
        std::size_t length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xe ? 3 : (c >> 3) == 0x1e ? 4 : 0;
        bool whole = length > 0 && at + length <= text.size();
        for (std::size_t k = 1; whole && k < length; ++k) whole = (static_cast<unsigned char>(text[at + k]) & 0xc0) == 0x80;
        if (!whole || c < 0x20 || c == 0x7f) {
            shown += '?';
            at += 1;
        } else {
            shown.append(text, at, length);
            at += length;
        }
        ++characters;
    }
    std::string quoted = "\"" + shown + "\"";
    if (at < text.size()) quoted += "... (" + std::to_string(text.size()) + " bytes in all)";
    return quoted;
}

Offset parsePoint(std::string const& text, long scale)
{
    std::string s = trim(text);
    auto eq = s.find('=');
    if (eq == std::string::npos) eq = s.find_first_of(" \t");
    if (eq == std::string::npos) throw PointsTextError(0, "a sync point needs MOVIE_TIME=AUDIO_TIME: " + quotedForMessage(trim(text)));
    std::string m = trim(s.substr(0, eq)), a = trim(s.substr(eq + 1));
    if (m.empty() || a.empty()) throw PointsTextError(0, "a sync point needs MOVIE_TIME=AUDIO_TIME: " + quotedForMessage(trim(text)));
    try {
        return Offset(myQTTime(m, scale), myQTTime(a, scale));
    } catch (myQTTime::BadDuration const&) {
        throw PointsTextError(0, "bad time in sync point " + quotedForMessage(trim(text)) + " (use [-][[h:]m:]s[.frac])");
    }
}

std::vector<Offset> parsePointsText(std::string const& text, long scale)
{
    std::vector<Offset> points;
    std::istringstream in(text);
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        auto hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        if (trim(line).empty()) continue;
        try {
            points.push_back(parsePoint(line, scale));
        } catch (PointsTextError const& e) {
            throw PointsTextError(number, "line " + std::to_string(number) + ": " + e.what());
        }
    }
    return points;
}

std::string exactSeconds(myQTTime const& t)
{
    __int128 ticks = t.timeValue;
    bool negative = ticks < 0;
    if (negative) ticks = -ticks;
    __int128 scale = t.timeScale > 0 ? t.timeScale : 1;
    __int128 ns = (ticks * 1'000'000'000 + scale - 1) / scale; // up, away from zero
    long long whole = static_cast<long long>(ns / 1'000'000'000);
    long long fraction = static_cast<long long>(ns % 1'000'000'000);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%s%lld.%09lld", negative ? "-" : "", whole, fraction);
    return buf;
}

std::string formatPointsText(std::vector<Offset> const& points, std::string const& heading)
{
    std::ostringstream o;
    if (!heading.empty()) o << "# " << heading << "\n";
    o << "# movie time = unedited audio time, in seconds\n";
    for (Offset const& p : points) o << exactSeconds(p.movieTime) << " = " << exactSeconds(p.audioTime) << "\n";
    return o.str();
}
