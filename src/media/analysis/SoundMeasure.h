// Where a synced movie's sound landed against the original sound: proof that
// a save did what its points said, for any content (speech, music, noise),
// measured as players decode the two files.
#pragma once

#include "OffsetList.h"

#include <optional>
#include <string>
#include <vector>

namespace media {

// One window of the synced movie's sound, found in the original sound by
// cross-correlation.
struct SoundWindow {
    double movieTime = 0; // the window's centre, movie seconds
    // Where the synced sound lies minus where the line says it belongs, in
    // seconds: positive when the sound plays late against the picture.
    double error = 0;
    // The normalised correlation at the peak (1: the same waveform).
    double match = 0;
};

struct SoundMeasurement {
    std::vector<SoundWindow> windows; // the windows whose sound was found
    int unmatched = 0;                // windows with sound that matched nowhere near the line
    int silent = 0;                   // windows too quiet to measure
    double slope = 1, intercept = 0;  // the line measured against
    std::string pointsFrom;           // "the synced movie", "the points given", "none (a plain copy)"
    double worst() const;             // largest |error|
    double percentile(double p) const; // of |error|, p in [0, 1]
    double bias() const;              // mean error
};

struct SoundMeasureOptions {
    // The points to measure against; unset: those the synced movie carries
    // (none: the sound should not have moved).
    std::optional<std::vector<Offset>> points;
    double window = 0.5;  // seconds of sound per window
    double step = 0.5;    // seconds between window centres
    double search = 0.25; // how far from the line the sound is looked for, seconds
    // The streams to compare (FFmpeg's stream numbers); -1: each file's
    // enabled sound. Two tracks of one file compare a synced dub with the
    // original language.
    int originalStream = -1;
    int syncedStream = -1;
    // Whether a synced movie's stored points give the line when `points` is
    // unset (they do not when the two sounds are different tracks: the
    // points then say where the dub was, not where it belongs).
    bool useStoredPoints = true;
};

// Decodes the enabled sound of `original` and of `synced` (as FFmpeg's
// players do: priming and edit lists applied, each frame at its time
// stamp), places both on their movie's timeline (the synced movie's picture
// is where the original's was), and finds each window of the synced sound
// in the original around where the line puts it, to a fraction of a sample.
// Throws MediaError when a file cannot be read or has no sound (or the
// stream named is not a sound).
SoundMeasurement measureSoundAgainst(std::string const& original, std::string const& synced, SoundMeasureOptions const& options = {});

} // namespace media
