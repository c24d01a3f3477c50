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
    report.update(0.8);
    suggest::SoundMatch match = suggest::matchSounds(ref, sound, kRate, settings);
    report.end();
    return match;
}

} // namespace media
