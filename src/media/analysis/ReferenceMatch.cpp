#include "ReferenceMatch.h"

#include "Evidence.h"

namespace media {

namespace {
// Enough for the bed's onsets and a waveform peak to a few microseconds.
constexpr int kRate = 8000;
} // namespace

suggest::SoundMatch matchReferenceSound(dm::Track const& unedited, dm::Track const& reference, Progress const& progress,
                                        std::atomic<bool> const* stop, suggest::MatchSettings const& settings)
{
    ProgressReporter report(progress, "Comparing the sound with the reference", stop);
    std::vector<float> sound = monoTimeline(unedited, report, 0, 0.4, kRate);
    std::vector<float> ref = monoTimeline(reference, report, 0.4, 0.8, kRate);
    suggest::MatchSettings withProgress = settings;
    // The report throws Cancelled when the user stops.
    withProgress.progress = [&](double f) { report.update(0.8 + 0.2 * f); };
    suggest::SoundMatch match = suggest::matchSounds(ref, sound, kRate, withProgress);
    report.end();
    return match;
}

} // namespace media
