// What the three parts of the player share: the transport
// (Player.cpp), the sound path (PlayerSound.cpp: the device callback and
// the feeder) and the pictures (PlayerPictures.cpp). Private to the player.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace media::playerparts {

constexpr int kCrossfade = 64;      // samples blended at a loop wrap
constexpr std::size_t kQueue = 12;  // decoded pictures kept ahead
constexpr int kBlock = 256;         // frames per block of the sound ring
constexpr auto kFeederPoll = std::chrono::milliseconds(2); // how soon the feeder sees an edit
using Clock = std::chrono::steady_clock;

inline std::int64_t nowNanos()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

} // namespace media::playerparts
