// A track's edit list: segments laid end to end on the movie timeline, each a
// piece of the track's media played over its own duration, or empty time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace dm {

// One segment. Durations are in ticks of the track's time scale, media
// positions in ticks of the media's time scale.
struct Segment {
    std::int64_t duration = 0;     // movie-timeline length, > 0 in a list
    std::int64_t mediaStart = -1;  // first media tick played; -1: empty time
    std::int64_t mediaLength = 0;  // media ticks played over `duration`

    static Segment empty(std::int64_t duration) { return {duration, -1, 0}; }
    static Segment media(std::int64_t duration, std::int64_t start, std::int64_t length) { return {duration, start, length}; }
    bool isEmpty() const { return mediaStart < 0; }
    bool operator==(Segment const&) const = default;
};

// Rounds n / d to the nearest integer, ties to even. d must be positive.
std::int64_t roundDiv(__int128 n, __int128 d);

// An immutable, normalised edit list. Normalised means: no zero-length
// segments, no two empty segments in a row, adjacent pieces of contiguous
// media at the same speed merged, and no empty time at the end.
class EditList {
public:
    EditList() = default;
    explicit EditList(std::vector<Segment> segments);

    std::vector<Segment> const& segments() const { return segments_; }
    // Where each segment starts on the timeline; same length as segments().
    std::vector<std::int64_t> const& starts() const { return starts_; }
    // End of the last segment: where the material ends.
    std::int64_t duration() const { return duration_; }
    // Empty time before the first piece of media (the whole list if none).
    std::int64_t materialStart() const;

    // What plays at timeline tick `t`: the segment and, for a piece of media,
    // the exact media position (media ticks, fractional when scaled).
    struct Position {
        std::size_t index;
        std::int64_t segmentStart;
        Segment segment;
        double mediaTime; // meaningless for empty time
    };
    // nullopt before 0 or at/after the end.
    std::optional<Position> lookup(std::int64_t t) const;

    // The segments within [a, b), split at both ends; time beyond the end
    // reads as empty time.
    std::vector<Segment> slice(std::int64_t a, std::int64_t b) const;

    // Edit operations; each returns a new list and rounds at most once per
    // boundary it moves.
    EditList inserted(std::int64_t at, std::vector<Segment> const& piece) const;
    EditList erased(std::int64_t a, std::int64_t b) const;
    EditList scaled(std::int64_t a, std::int64_t b, std::int64_t newDuration) const;

    bool operator==(EditList const& o) const { return segments_ == o.segments_; }

private:
    std::vector<Segment> segments_;
    std::vector<std::int64_t> starts_;
    std::int64_t duration_ = 0;
};

// Converts segment durations from one time scale to another, keeping every
// cumulative boundary at the nearest tick of the new scale.
std::vector<Segment> rescaleDurations(std::vector<Segment> const& segments, std::int32_t from, std::int32_t to);

} // namespace dm
