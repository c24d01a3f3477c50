// The sound path between the movie and the device: the lock-free ring and
// played log, the latency meter, the feeder under stress, the length that
// follows a re-timing, exact seeks in coarse-stamped streams, damaged sound.
#include "AudioOutput.h"
#include "AudioRenderer.h"
#include "MediaTestSupport.h"
#include "Player.h"
#include "SoundRing.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <random>
#include <thread>

using namespace media;
using namespace testsupport;

namespace {

constexpr int kRate = 48000;

// Blocks pass from one thread to the other whole and in order, however the
// two threads interleave (and ThreadSanitizer sees no race).
TEST(SoundRing, BlocksPassWholeAndInOrder)
{
    SoundRing ring(2, 64, 8);
    constexpr int kBlocks = 20000;
    std::thread producer([&] {
        for (int i = 0; i < kBlocks;) {
            SoundRing::Block* b = ring.writable();
            if (!b) {
                std::this_thread::yield();
                continue;
            }
            b->path = i;
            b->frames = 1 + i % 64;
            for (int f = 0; f < 2 * b->frames; ++f) b->samples[f] = static_cast<float>(i) + static_cast<float>(f) / 1000.0f;
            ring.commit();
            ++i;
        }
    });
    int next = 0, bad = 0;
    while (next < kBlocks) {
        std::size_t n = ring.readable();
        if (n == 0) {
            std::this_thread::yield();
            continue;
        }
        for (std::size_t k = 0; k < n; ++k) {
            SoundRing::Block const& b = ring.peek(k);
            if (b.path != next || b.frames != 1 + next % 64) ++bad;
            for (int f = 0; f < 2 * b.frames; ++f)
                if (b.samples[f] != static_cast<float>(next) + static_cast<float>(f) / 1000.0f) ++bad;
            ++next;
        }
        ring.release(n);
    }
    producer.join();
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(ring.readable(), 0u);
}

// A reader never sees half of a record.
TEST(SoundRing, PlayedLogReadsAreConsistent)
{
    PlayedLog log;
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (std::int64_t i = 1; !stop; ++i) {
            log.begin();
            log.add({i * 15, i * 30, 10, static_cast<std::uint64_t>(i), 7});
            log.add({i * 15 + 10, i * 30 + 20, 5, static_cast<std::uint64_t>(i), 7});
            log.end(i * 15 + 15, i);
        }
    });
    PlayedLog::Snapshot s;
    int checked = 0, bad = 0;
    while (checked < 20000) {
        log.read(s);
        if (s.count == 0) continue;
        PlayedLog::Piece const& last = s.pieces[s.count - 1];
        if (last.device + last.length != s.delivered || last.timeline != 2 * last.device || s.pulledAt * 15 + 15 != s.delivered) ++bad;
        for (int i = 1; i < s.count; ++i)
            if (s.pieces[i].device != s.pieces[i - 1].device + s.pieces[i - 1].length) ++bad;
        ++checked;
    }
    stop = true;
    writer.join();
    EXPECT_EQ(bad, 0);
}

// The latency meter on made-up cadences: a device that plays from its first
// callback on holds one buffer; one that pulls four buffers at once at the
// start (as sound servers fill their buffers) holds four.
TEST(CadenceMeter, MeasuresWhatTheDeviceHolds)
{
    constexpr int B = 1024;
    constexpr std::int64_t period = 1'000'000'000LL * B / kRate;
    auto run = [](int burst, std::int64_t jitter) {
        CadenceMeter m;
        m.reset();
        std::mt19937 rng(3);
        std::uniform_int_distribution<std::int64_t> noise(-jitter, jitter);
        for (int i = 0; i < CadenceMeter::kCallbacks; ++i) {
            // The first `burst` callbacks come at once; then one per period.
            std::int64_t t = i < burst ? 0 : (i - burst + 1) * period;
            m.record(t + (i < burst ? 0 : noise(rng)), B);
        }
        return m.estimate(kRate, B);
    };
    EXPECT_NEAR(run(1, 0), B, 2);
    EXPECT_NEAR(run(4, 0), 4 * B, 2);
    EXPECT_NEAR(run(4, 2'000'000), 4 * B, B / 4); // 2 ms of scheduling jitter
    CadenceMeter fresh;
    EXPECT_EQ(fresh.estimate(kRate, B), B); // nothing measured yet: the buffer
    CadenceMeter runaway;                   // a device with no pace of its own
    for (int i = 0; i < CadenceMeter::kCallbacks; ++i) runaway.record(i, B);
    EXPECT_EQ(runaway.estimate(kRate, B), B + kRate / 2);
}

struct Manual {
    OpenedMovie om;
    ManualAudioOutput* device = nullptr;
    std::unique_ptr<Player> player;
    explicit Manual(std::string const& path) : om(openMovie(path))
    {
        auto out = std::make_unique<ManualAudioOutput>();
        device = out.get();
        PlayerOptions o;
        o.output = std::move(out);
        o.video = false;
        player = std::make_unique<Player>(om.movie, std::move(o));
    }
};

TestMovieSpec clicks(double seconds, std::string codec = "pcm_s16le", std::string format = "mov")
{
    auto s = smallSpec(seconds, 0.0, 1.0);
    s.flashInterval = 1.0;
    s.audioCodec = codec;
    s.format = format;
    return s;
}

// A feeder slower than the device: the device plays silence and counts each
// short buffer; once the feeder keeps up again, no more are counted, and
// what is played is still the track in order (silence inserted, nothing lost).
TEST(SoundPath, UnderrunsAreCountedAndPlaySilence)
{
    Manual m(cachedMovie("sound-path-8s.mov", clicks(8)));
    std::atomic<bool> slow{true};
    m.player->setAudioTap([&](float const*, int, int) {
        if (slow) std::this_thread::sleep_for(std::chrono::milliseconds(4));
    });
    m.player->play();
    std::vector<float> buf, played;
    for (int i = 0; i < 60; ++i) { // ~1.3 s of device time in 0.6 s: the slowed feeder falls behind
        m.device->pullBuffer(buf);
        for (std::size_t f = 0; f < buf.size(); f += 2) played.push_back(buf[f]);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    PlaybackStats slowed = m.player->stats();
    EXPECT_GT(slowed.underruns, 0u);
    EXPECT_GT(slowed.underrunFrames, 0u);
    slow = false;
    ASSERT_TRUE(m.player->waitForSound());
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(m.player->waitForSound());
        m.device->pullBuffer(buf);
        for (std::size_t f = 0; f < buf.size(); f += 2) played.push_back(buf[f]);
    }
    EXPECT_EQ(m.player->stats().underruns, slowed.underruns);
    // Taking the inserted silence out gives the track as it is: the clicks
    // are one second apart however long the gaps were.
    std::vector<std::int64_t> onsets;
    std::int64_t last = -kRate, heard = 0;
    auto ref = [&] {
        AudioRenderer r(std::static_pointer_cast<const FileMedia>(m.player->soundTrack()->media()));
        PcmBuffer pcm(r.channels(), static_cast<std::size_t>(6 * kRate));
        r.render(*m.player->soundTrack()->editList(), 0, pcm);
        return pcm.channels[0];
    }();
    for (float v : played) {
        if (v == 0.0f) continue; // the track's own silence is skipped too, so compare clicks only
        if (std::fabs(v) > 0.4f && heard - last > kRate / 4) onsets.push_back(last = heard);
        ++heard;
    }
    std::vector<std::int64_t> refOnsets;
    std::int64_t refHeard = 0;
    last = -kRate;
    for (float v : ref) {
        if (v == 0.0f) continue;
        if (std::fabs(v) > 0.4f && refHeard - last > kRate / 4) refOnsets.push_back(last = refHeard);
        ++refHeard;
    }
    ASSERT_GE(onsets.size(), 2u);
    for (std::size_t i = 0; i < onsets.size() && i < refOnsets.size(); ++i) EXPECT_EQ(onsets[i], refOnsets[i]) << "click " << i;
}

// The output delay: the user's setting, or the environment's in its place.
TEST(SoundPath, OutputDelayFromTheSettingOrTheEnvironment)
{
    std::string path = cachedMovie("sound-path-4s.mov", clicks(4));
    {
        Manual m(path);
        EXPECT_EQ(m.player->outputLatencyFrames(), 0);
        m.device->setLatencyFrames(1024);
        m.player->setOutputDelay(150);
        EXPECT_EQ(m.player->outputLatencyFrames(), 1024 + 7200);
    }
    setenv("DUBMATCH_OUTPUT_DELAY_MS", "40", 1);
    Manual m(path);
    unsetenv("DUBMATCH_OUTPUT_DELAY_MS");
    EXPECT_EQ(m.player->outputLatencyFrames(), 1920);
    m.player->setOutputDelay(150); // the environment wins: tests set it
    EXPECT_EQ(m.player->outputLatencyFrames(), 1920);
}

// A re-timing that makes the sound longer is heard to its new end.
TEST(SoundPath, PlaybackFollowsTheRetimedLength)
{
    Manual m(cachedMovie("sound-path-4s.mov", clicks(4)));
    dm::Track& sound = *m.player->soundTrack();
    ASSERT_NEAR(m.player->duration().seconds(), 4.0, 0.05);
    // Stretch the whole sound to 6 s, as a slope of 1.5 would.
    std::int64_t length = sound.editList()->duration();
    sound.scaleSegment(QTTimeRange{QTTime{0, kRate, 0}, QTTime{length, kRate, 0}}, QTTime{length * 3 / 2, kRate, 0});
    m.player->setCurrentTime(myQTTime(5.0, 1));
    m.player->play();
    for (int i = 0; i < 200 && m.player->isPlaying(); ++i) {
        ASSERT_TRUE(m.player->waitForSound());
        std::vector<float> buf;
        m.device->pullBuffer(buf);
    }
    EXPECT_FALSE(m.player->isPlaying());
    EXPECT_NEAR(m.player->duration().seconds(), 6.0, 0.05);
    EXPECT_NEAR(m.player->currentTime().seconds(), 6.0, 0.05) << "stopped at the old end";
}

// Reading after a seek gives the samples that reading from the start gives,
// at the same positions, also where the container's time stamps are whole
// milliseconds (a sample is 1/48 of one). Codecs that rebuild their state
// after a seek (Opus) may differ a little in level, never in position.
TEST(SoundPath, SeeksLandOnTheExactSample)
{
    struct Case {
        char const* name;
        char const* codec;
        char const* format;
        float tolerance; // a one-sample shift of the test tone differs by ~0.02
    };
    for (Case c : {Case{"aac-mkv", "aac", "matroska", 1e-4f}, Case{"flac-mkv", "flac", "matroska", 1e-6f},
                   Case{"ac3-mkv", "ac3", "matroska", 1e-4f}, Case{"opus-mkv", "libopus", "matroska", 2e-3f},
                   Case{"aac-mov", "aac", "mov", 1e-4f}}) {
        SCOPED_TRACE(c.name);
        auto spec = clicks(12, c.codec, c.format);
        std::string path = cachedMovie(std::string("seek-") + c.name + (std::string(c.format) == "mov" ? ".mov" : ".mkv"), spec);
        OpenedMovie om = openMovie(path);
        std::shared_ptr<const FileMedia> media;
        for (auto const& t : om.movie->tracks())
            if (t->mediaType() == dm::MediaType::Sound) media = std::static_pointer_cast<const FileMedia>(t->media());
        ASSERT_TRUE(media);
        AudioDecoder whole(media);
        std::int64_t n = 11LL * kRate;
        std::vector<float> all(static_cast<std::size_t>(n));
        std::vector<std::vector<float>> chunk(static_cast<std::size_t>(whole.channels()), std::vector<float>(4096));
        std::vector<float*> chunkPtr;
        for (auto& v : chunk) chunkPtr.push_back(v.data());
        for (std::int64_t at = 0; at < n; at += 4096) { // in order from the start: no seek
            int k = static_cast<int>(std::min<std::int64_t>(4096, n - at));
            whole.read(at, k, chunkPtr.data());
            std::copy(chunk[0].begin(), chunk[0].begin() + k, all.begin() + at);
        }
        std::mt19937 rng(11);
        std::uniform_int_distribution<std::int64_t> pos(kRate, n - 5000);
        float worst = 0;
        int worstLag = 0;
        for (int trial = 0; trial < 12; ++trial) {
            AudioDecoder fresh(media); // a new decoder must seek
            std::int64_t at = pos(rng);
            fresh.read(at, 4096, chunkPtr.data());
            std::vector<float> const& got = chunk[0];
            for (int i = 0; i < 4096; ++i) worst = std::max(worst, std::fabs(got[i] - all[at + i]));
            // How far off the read lies, in samples.
            int best = 0;
            double bestErr = 1e30;
            for (int lag = -64; lag <= 64; ++lag) {
                double e = 0;
                for (int i = 100; i < 4000; ++i) e += std::fabs(got[i] - all[at + i + lag]);
                if (e < bestErr) {
                    bestErr = e;
                    best = lag;
                }
            }
            if (std::abs(best) > std::abs(worstLag)) worstLag = best;
        }
        EXPECT_EQ(worstLag, 0) << "a read after a seek lies that many samples off";
        EXPECT_LT(worst, c.tolerance) << "a read after a seek differs from the same read from the start";
    }
}

// Going back into a scaled segment (a loop wrap) reuses the resampler kept
// for its ratio, started clean: the same samples every lap.
TEST(SoundPath, ScaledLoopsRenderTheSameEveryLap)
{
    OpenedMovie om = openMovie(cachedMovie("sound-path-8s.mov", clicks(8)));
    dm::TrackPtr sound;
    for (auto const& t : om.movie->tracks())
        if (t->mediaType() == dm::MediaType::Sound) sound = t;
    ASSERT_TRUE(sound);
    std::int64_t length = sound->editList()->duration();
    sound->scaleSegment(QTTimeRange{QTTime{0, kRate, 0}, QTTime{length, kRate, 0}}, QTTime{length * 1001 / 1000, kRate, 0});
    auto list = sound->editList();
    AudioRenderer r(std::static_pointer_cast<const FileMedia>(sound->media()));
    auto lap = [&](std::int64_t from) {
        PcmBuffer pcm(r.channels(), 3 * kRate);
        r.render(*list, from, pcm);
        return pcm.channels[0];
    };
    std::vector<float> first = lap(2 * kRate);
    for (int i = 0; i < 3; ++i) {
        std::vector<float> again = lap(2 * kRate); // wrapped back to the loop's start
        ASSERT_EQ(again, first) << "lap " << i + 2;
    }
    AudioRenderer fresh(std::static_pointer_cast<const FileMedia>(sound->media()));
    PcmBuffer pcm(fresh.channels(), 3 * kRate);
    fresh.render(*list, 2 * kRate, pcm);
    EXPECT_EQ(pcm.channels[0], first) << "a reused resampler differs from a new one";
}

// Damaged sound packets are skipped and counted; reading goes on to the end.
TEST(SoundPath, DamagedSoundIsSkippedAndCounted)
{
    ScratchDir dir;
    std::string good = cachedMovie("sound-path-aac-6s.mkv", clicks(6, "aac", "matroska"));
    std::string bytes = readFile(good);
    // Scribble over the middle of the file, where the packets are.
    std::mt19937 rng(5);
    for (std::size_t i = bytes.size() / 3; i < bytes.size() * 2 / 3; i += 97) bytes[i] = static_cast<char>(rng());
    std::string bad = dir.file("damaged.mkv");
    writeFile(bad, bytes);
    OpenedMovie om = openMovie(bad);
    std::shared_ptr<const FileMedia> media;
    for (auto const& t : om.movie->tracks())
        if (t->mediaType() == dm::MediaType::Sound) media = std::static_pointer_cast<const FileMedia>(t->media());
    ASSERT_TRUE(media);
    AudioDecoder d(media);
    std::vector<std::vector<float>> buf(static_cast<std::size_t>(d.channels()), std::vector<float>(4096));
    std::vector<float*> p;
    for (auto& v : buf) p.push_back(v.data());
    auto start = std::chrono::steady_clock::now();
    for (std::int64_t at = 0; at < 6LL * kRate; at += 4096) d.read(at, 4096, p.data());
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GT(d.errors(), 0u);
    EXPECT_LT(took, 20.0) << "reading damaged sound should not spin";
}

} // namespace
