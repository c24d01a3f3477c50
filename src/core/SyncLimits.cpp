#include "SyncLimits.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace synclimits {

namespace {

std::string format(char const* pattern, double a, double b = 0, double c = 0)
{
    char text[256];
    std::snprintf(text, sizeof text, pattern, a, b, c);
    return text;
}

std::string pointText(Offset const& p)
{
    return format("%.3f=%.3f", p.movieTime.seconds(), p.audioTime.seconds());
}

// Where `t` lies against [0, end] beyond the margin: empty, or "12.5 s
// before the start" / "12.5 s after the end".
std::string outside(double t, double end)
{
    if (!std::isfinite(t)) return "at no time";
    if (t < -kMarginSeconds) return format("%.3f s before the start", -t);
    if (t > end + kMarginSeconds) return format("%.3f s after the end", t - end);
    return {};
}

// "2.5 times", "1000 times", "312500 times".
std::string times(double factor) { return format(factor < 100 ? "%.3g times" : "%.0f times", factor); }

} // namespace

double retimedSoundEnd(SyncLine const& line, double soundSeconds)
{
    return std::max(0.0, (soundSeconds - line.intercept) / line.slope);
}

double longestRetimedSound(Extent const& extent)
{
    return 2 * std::max(extent.movie, extent.sound) + kLengthAllowanceSeconds;
}

std::string pointOutside(Offset const& point, Extent const& extent)
{
    std::string margin = format(" (a point may lie at most %.0f s outside).", kMarginSeconds);
    std::string where = outside(point.movieTime.seconds(), extent.movie);
    if (!where.empty())
        return "The sync point " + pointText(point) + " lies " + where + format(" of the movie, which runs from 0 to %.3f s", extent.movie)
               + margin;
    where = outside(point.audioTime.seconds(), extent.sound);
    if (!where.empty())
        return "The sync point " + pointText(point) + " pairs the picture with sound " + where
               + format(" of the unedited sound, which runs from 0 to %.3f s", extent.sound) + margin;
    return {};
}

std::string lineProblem(SyncLine const& line, Extent const& extent)
{
    std::string range = format(" A sync takes slopes from %.1f to %.0f: real transfers change the speed by a few percent "
                               "(25/24 between film and PAL video), silent films by at most 1.5 times.",
                               kMinSlope, kMaxSlope);
    if (!std::isfinite(line.slope) || !std::isfinite(line.intercept))
        return "The sync points all lie at one movie time, so they give no line to re-time the sound along.";
    if (line.slope <= 0) return format("The sync points give a slope of %.6g: the sound would have to run backwards or stand still.", line.slope) + range;
    if (line.slope < kMinSlope)
        return format("The sync points give a slope of %.6g: the sound would play ", line.slope) + times(1 / line.slope)
               + " slower than it was recorded." + range;
    if (line.slope > kMaxSlope)
        return format("The sync points give a slope of %.6g: the sound would play ", line.slope) + times(line.slope)
               + " faster than it was recorded." + range;
    double end = retimedSoundEnd(line, extent.sound), longest = longestRetimedSound(extent);
    if (end > longest)
        return format("The line of these sync points makes the re-timed sound end at %.3f s, in a movie of %.3f s", end, extent.movie)
               + format(": a sync writes sound up to %.3f s (twice the longer of the movie and its sound, and %.0f s).", longest,
                        kLengthAllowanceSeconds);
    return {};
}

std::string problemWith(std::vector<Offset> const& points, SyncLine const& line, Extent const& extent)
{
    for (Offset const& p : points)
        if (std::string why = pointOutside(p, extent); !why.empty()) return why;
    if (points.empty()) return {};
    return lineProblem(line, extent);
}

} // namespace synclimits
