// Sync points as text, one "MOVIE_TIME = AUDIO_TIME" per line: what
// dubmatch-cli reads with --points and what the application exports and
// imports. Times are [-][[h:]m:]s[.frac]; "M A" works too; # starts a comment.
#pragma once

#include "OffsetList.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

class PointsTextError : public std::runtime_error {
public:
    PointsTextError(int line, std::string const& message)
        : std::runtime_error(message), line_(line) {}
    int line() const { return line_; } // 1-based; 0 for a point given alone
private:
    int line_;
};

// The most text a list of points is read from: 4 MiB, some 100,000 points,
// more than a point every second of a day. Anything longer is not a list of
// points (a wrong file, an endless stream) and is refused unread.
inline constexpr std::size_t kMaxPointsTextBytes = 4 * 1024 * 1024;

// A piece of the user's text for a message: quoted, at most a few dozen
// characters (the rest is counted, not shown), control characters and
// broken UTF-8 as '?'.
std::string quotedForMessage(std::string const& text);

// One point, "M=A" or "M A". Throws PointsTextError (line 0).
Offset parsePoint(std::string const& text, long scale);
// Every point of a text. Throws PointsTextError naming the line.
std::vector<Offset> parsePointsText(std::string const& text, long scale);
// The text of the points, exact: read back at the same scale, every time is
// the same tick.
std::string formatPointsText(std::vector<Offset> const& points, std::string const& heading = {});
// A time as seconds with nine decimals, rounded away from zero so that
// reading it back (which truncates toward zero) gives the same tick.
std::string exactSeconds(myQTTime const& t);
