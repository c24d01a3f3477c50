// The device callback is real-time safe: over a minute of looped playback
// with a hundred nudges it allocates nothing, frees nothing and takes no
// lock, and the device does not run short.
#include "AudioOutput.h"
#include "MediaTestSupport.h"
#include "Player.h"
#include "RealTimeHooks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

using namespace media;
using namespace testsupport;

namespace {

constexpr int kRate = 48000;

TEST(RealTimeCallback, NoAllocationNoLockNoUnderrun)
{
    // The counters see what a marked thread does (or this test could not fail).
    realtime::Counts before = realtime::counts();
    {
        realtime::Marked marked;
        auto* p = new std::vector<int>(100);
        delete p;
        std::mutex m;
        std::lock_guard<std::mutex> g(m);
    }
    realtime::Counts control = realtime::counts();
    ASSERT_GT(control.allocations, before.allocations);
    ASSERT_GT(control.frees, before.frees);
    ASSERT_GT(control.locks, before.locks);

    auto spec = smallSpec(20, 0.0, 1.0);
    spec.flashInterval = 1.0; // a click every second, AAC: the feeder decodes
    OpenedMovie om = openMovie(cachedMovie("realtime-20s.mov", spec));
    constexpr double kSpeed = 3;
    // Only the pull itself runs marked.
    auto out = std::make_unique<PacedAudioOutput>(kSpeed, [](float* samples, int frames, AudioOutput::Pull const& pull) {
        realtime::Marked marked;
        pull(samples, frames);
    });
    PacedAudioOutput* device = out.get();
    PlayerOptions o;
    o.output = std::move(out);
    o.video = false;
    Player p(om.movie, std::move(o));
    dm::Track& sound = *p.soundTrack();
    // A 4 s loop, as a sync point in progress plays it.
    p.setSelection(QTTimeRange{QTTime{4LL * kRate, kRate, 0}, QTTime{4LL * kRate, kRate, 0}});
    p.setPlaysSelectionOnly(true);
    p.setLoops(true);
    p.setCurrentTime(myQTTime(4LL * kRate, kRate));
    dm::MovieEditState saved = dm::NewMovieEditState(*om.movie);
    realtime::Counts start = realtime::counts();
    p.play();
    // A minute of device time; a nudge every 0.6 s of it, as a user does.
    constexpr int kNudges = 100;
    auto wall = std::chrono::duration<double>(60.0 / kSpeed / kNudges);
    for (int i = 0; i < kNudges; ++i) {
        std::this_thread::sleep_for(wall);
        dm::UseMovieEditState(*om.movie, saved);
        std::int64_t shift = (i % 7 + 1) * kRate / 100;
        sound.insertEmptySegmentAt(QTTimeRange{QTTime{0, kRate, 0}, QTTime{shift, kRate, 0}});
    }
    std::this_thread::sleep_for(wall); // the last nudge is heard too
    p.pause();
    realtime::Counts end = realtime::counts();
    PlaybackStats stats = p.stats();
    long pulls = device->pulls();
    std::printf("[ realtime ] %ld callbacks, %llu re-renders, %llu underruns\n", pulls,
                static_cast<unsigned long long>(stats.rerenders), static_cast<unsigned long long>(stats.underruns));
    EXPECT_EQ(end.allocations - start.allocations, 0) << "allocations in the device callback";
    EXPECT_EQ(end.frees - start.frees, 0) << "frees in the device callback";
    EXPECT_EQ(end.locks - start.locks, 0) << "locks taken in the device callback";
    // The feeder keeps far ahead at 3x real time; a starved machine may still
    // cost a rare buffer, but a change that made the device wait would cost
    // one at every nudge.
    EXPECT_LT(stats.underruns, static_cast<std::uint64_t>(kNudges / 10));
    EXPECT_GE(pulls, static_cast<long>(60.0 * kRate / 1024 * 0.9));
    EXPECT_GE(stats.rerenders, static_cast<std::uint64_t>(kNudges));
}

} // namespace
