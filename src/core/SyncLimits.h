// What a sync may ask of a movie, checked before any work is done. A line
// whose slope no real transfer needs, a point where the movie or its sound
// has nothing, or a re-timed sound far longer than the movie come from
// mistakes (a typo, the points of another movie), and what they cost grows
// without bound: a slope of 0.01 makes the sound a hundred times longer.
#pragma once

#include "OffsetList.h"

#include <string>
#include <vector>

namespace synclimits {

// The slopes a sync takes. Real transfers change the speed by a few percent
// (25/24 between film and PAL video, 1001/1000 between film and NTSC video);
// silent films shot at 16 to 18 frames per second and shown at 24 change it
// by at most 1.5. Half to twice the speed covers every one with room.
inline constexpr double kMinSlope = 0.5;
inline constexpr double kMaxSlope = 2.0;
// How far outside the movie (or outside its unedited sound) a point may lie:
// a point set by ear at the very start or end may be a little off.
inline constexpr double kMarginSeconds = 2.0;
// Beyond twice the longer of the movie and its sound (the slowest slope), a
// re-timed sound may run this much longer, for the line's intercept.
inline constexpr double kLengthAllowanceSeconds = 10.0;

// The lengths a line is checked against, in seconds.
struct Extent {
    double movie = 0; // the movie's duration
    double sound = 0; // the end of the unedited sound on its own timeline
};

// Where the re-timed sound ends on the movie's timeline: the movie time the
// last unedited sound goes to, (sound - intercept) / slope; 0 when the line
// cuts all of it.
double retimedSoundEnd(SyncLine const& line, double soundSeconds);
// The latest end of a re-timed sound that a sync writes.
double longestRetimedSound(Extent const& extent);

// Why a point lies where neither the movie nor its sound is (beyond the
// margin), as a sentence; empty when it lies within.
std::string pointOutside(Offset const& point, Extent const& extent);
// Why a fitted line cannot sync the movie (no line, a slope outside the
// range, a re-timed sound far too long), as a sentence; empty when it can.
std::string lineProblem(SyncLine const& line, Extent const& extent);
// The first problem of the points or of their line; empty when there is none.
std::string problemWith(std::vector<Offset> const& points, SyncLine const& line, Extent const& extent);

} // namespace synclimits
