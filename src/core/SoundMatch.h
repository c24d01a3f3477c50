// Sync points from a reference sound: a sound track to sync (a dub) is
// compared with a sound that is already in sync with the picture (the
// original language's track, or another release's sound). The two share
// music and effects under different speech, so the comparison looks at
// what survives a change of speech: the onsets of the bed in frequency
// bands for the coarse search, the waveform for the exact place.
//
// Plain arrays in, candidate points out: no decoding here.
#pragma once

#include "Suggest.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace suggest {

struct MatchSettings {
    // How far the sound to sync may lie from the reference, either way,
    // at the start of the movie.
    double maxOffset = 30;
    // The continuous search of the speed: within 1 +- maxSpeedChange.
    double maxSpeedChange = 0.05;
    // A coarse window of 20 s read 0.1 % off the speed spreads its events by
    // 20 ms, two hops of the envelopes: still one peak.
    double speedStep = 0.002;
    // Coarse windows: their length and how many over the movie.
    double coarseWindow = 20;
    int coarseWindows = 12;
    // Fine windows: their length and the step between their starts.
    double fineWindow = 3;
    double fineStep = 5;
    // A fine window counts when its waveform correlation reaches this and
    // its peak stands out by this much.
    double minStrength = 0.15;
    double minDistinctness = 0.3;
    // Offsets within this of the line agree.
    double tolerance = 0.002;
    // At most one candidate in each stretch of this many seconds.
    double candidateSpacing = 30;
    // The confidence a window needs to count at all.
    double minConfidence = 0.15;
    // Told how far the comparison is, 0 ... 1, now and then; it may throw
    // to stop the work (the exception leaves matchSounds).
    std::function<void(double)> progress;
};

// A stretch of movie time, in seconds.
struct Span {
    double from = 0;
    double to = 0;
};

struct SoundMatch {
    // The candidates (movie time: the reference's; audio time: the sound
    // to sync's), the line, every fine window, and when nothing can be
    // suggested, why.
    Suggestion suggestion;
    // Where the two sounds differ (a scene cut in one release, a break, a
    // different opening): never proposed.
    std::vector<Span> differ;
    // The speed found: audio seconds per movie second, and its name when it
    // is one of the usual transfer speeds ("25/24"), else empty.
    double speed = 1;
    std::string speedName;
    int coarseAgreeing = 0; // coarse windows that agreed on the speed and offset
    int coarseWindows = 0;
};

// The usual speeds of film transfers, as audio seconds per movie second,
// with their names: 1, 24/25, 25/24, 1000/1001, 1001/1000, 24000/25025,
// 25025/24000.
struct NamedSpeed {
    double value;
    char const* name;
};
std::vector<NamedSpeed> const& transferSpeeds();

// Mono samples at `rate` (8 kHz is plenty): `reference` from movie time 0,
// `sound` from audio time 0 (the unedited sound to sync).
SoundMatch matchSounds(std::vector<float> const& reference, std::vector<float> const& sound, int rate,
                       MatchSettings const& settings = {});

// "the sounds differ from 12:31 to 14:02".
std::string differText(Span const& span);

// Onset strength in bands of mono samples: for each band (log-spaced from
// 60 Hz to the Nyquist frequency), the rise of its log energy from one
// 10 ms hop to the next, clipped at zero. bands[b][i] belongs to i / 100 s.
std::vector<std::vector<float>> bandOnsets(std::vector<float> const& samples, int rate);

} // namespace suggest
