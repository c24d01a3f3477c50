// What the three parts of the player share: the transport
// (Player.cpp), the sound path (PlayerSound.cpp: the device callback and
// the feeder) and the pictures (PlayerPictures.cpp). Private to the player.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace media::playerparts {

constexpr int kCrossfade = 64;      // samples blended at a loop wrap
constexpr std::size_t kQueue = 12;  // decoded pictures kept ahead
constexpr int kBlock = 256;         // frames per block of the sound ring
constexpr auto kFeederPoll = std::chrono::milliseconds(2); // how soon the feeder sees an edit
using Clock = std::chrono::steady_clock;

// A position on the movie's timeline, at the sound's scale, and the lap of
// the loop it is in.
struct Position {
    std::int64_t ticks = 0;
    std::uint64_t lap = 0;
};

// What plays: the whole movie or a part, once or over and over. The clock,
// the feeder and the picture thread all cross its end through these
// functions, so a loop wraps at the same tick for the sound and the picture.
struct PlayRange {
    std::int64_t start = 0, end = 0;
    bool loops = false;
    bool whole = true; // the whole movie: the end follows its duration

    // Whether playing past the end goes on from the start.
    bool wraps() const { return loops && end > start; }
    // Whether `t` lies where a lap ends (or, without a loop, playing stops).
    bool atEnd(std::int64_t t) const { return t >= end; }
    // The position `k` ticks after `from` (before it for k < 0): a lap more
    // at each wrap, and without a loop held at the range's ends.
    Position advance(Position from, std::int64_t k) const
    {
        std::int64_t t = from.ticks + k;
        if (t >= start && t < end) return {t, from.lap};
        if (wraps()) {
            std::int64_t len = end - start;
            std::int64_t off = t - start;
            std::int64_t laps = off >= 0 ? off / len : -((-off + len - 1) / len);
            return {start + (off - laps * len), from.lap + static_cast<std::uint64_t>(std::max<std::int64_t>(0, laps))};
        }
        return {std::clamp(t, start, std::max(start, end)), from.lap};
    }
};

inline std::int64_t nowNanos()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

} // namespace media::playerparts
