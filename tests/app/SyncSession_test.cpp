// The sync workflow without any window: a session over a movie and a
// player on a manual sound device.
#include "AudioOutput.h"
#include "MediaTestSupport.h"
#include "SyncSession.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

using namespace testsupport;

namespace {

constexpr int kRate = 48000;

myQTTime at(double s) { return myQTTime(static_cast<long long>(std::llround(s * kRate)), kRate); }

struct Fixture {
    std::unique_ptr<dmsync::MovieSession> movie;
    std::unique_ptr<media::Player> player;
    std::unique_ptr<SyncSession> session;
    SyncSession::Settings settings;
    int changes = 0, modeChanges = 0, pointChanges = 0;
    std::optional<QTTimeRange> shown;

    explicit Fixture(std::string const& path) : movie(dmsync::MovieSession::open(path))
    {
        media::PlayerOptions o;
        o.output = std::make_unique<media::ManualAudioOutput>();
        o.video = false;
        player = std::make_unique<media::Player>(movie->sharedMovie(), std::move(o));
        SyncSession::Hooks h;
        h.changed = [this](int d) { changes += d; };
        h.modeChanged = [this] { ++modeChanges; };
        h.pointsChanged = [this] { ++pointChanges; };
        h.selectionShown = [this](QTTimeRange r) { shown = r; };
        session = SyncSession::make(*movie, player.get(), [this] { return settings; }, h);
    }
    void startAt(double seconds)
    {
        player->setCurrentTime(at(seconds));
        session->startSync();
    }
};

std::string movie12() { return cachedMovie("session-12s.mov", smallSpec(12, 0.0, 1.0)); }

TEST(SyncSession, StartNudgeAcceptFollowTheModes)
{
    Fixture f(movie12());
    ASSERT_TRUE(f.session);
    EXPECT_EQ(f.session->movieMode(), "noPoints");
    EXPECT_EQ(f.session->numberOfRows(), 0);

    f.startAt(6);
    EXPECT_EQ(f.session->movieMode(), "pointInProgress");
    EXPECT_EQ(f.session->startTime().timeValue, 2 * kRate); // "loopLength" before the play head
    EXPECT_EQ(f.session->endTime().timeValue, 6 * kRate);
    EXPECT_TRUE(f.player->isPlaying());
    EXPECT_TRUE(f.player->loops());
    ASSERT_TRUE(f.shown);
    EXPECT_NEAR(myQTTime(f.shown->duration).seconds(), 4.0, 1e-9);
    EXPECT_EQ(f.session->numberOfRows(), 1);
    EXPECT_TRUE(f.session->GetOffset(0).movieTime == at(4));

    // Each nudge moves the heard sound by "audioStep" milliseconds.
    myQTTime before = f.session->audioTime();
    f.session->advanceAudio();
    f.session->advanceAudio();
    f.session->retardAudio();
    EXPECT_NEAR(f.session->audioTime().seconds() - before.seconds(), -0.010, 1e-6);
    EXPECT_NEAR(f.session->displayedOffset(0), 10.0, 1e-3);
    f.settings.reverseArrows = -1;
    EXPECT_NEAR(f.session->displayedOffset(0), -10.0, 1e-3);
    f.settings.reverseArrows = 1;
    f.session->scrollWheel(-5); // one millisecond per notch
    EXPECT_NEAR(f.session->audioTime().seconds() - before.seconds(), -0.015, 1e-6);

    int modesBefore = f.modeChanges;
    f.session->acceptSync();
    EXPECT_GT(f.modeChanges, modesBefore);
    EXPECT_EQ(f.session->movieMode(), "endNeedsSync");
    ASSERT_EQ(f.session->offsets()->points().size(), 1u);
    EXPECT_NEAR(f.session->offsets()->points()[0].offset().seconds(), 0.015, 1e-6);
    EXPECT_FALSE(f.player->loops());
    EXPECT_EQ(f.changes, 1);

    // A second point near the end: the line is fitted through both.
    f.startAt(11);
    f.session->acceptSync();
    EXPECT_EQ(f.session->movieMode(), "morePointsIfNeeded");

    // Misuse is refused without a change.
    f.session->acceptSync();
    EXPECT_EQ(f.session->offsets()->points().size(), 2u);
}

TEST(SyncSession, EveryChangeOfThePointsCounts)
{
    Fixture f(movie12());
    ASSERT_TRUE(f.session);
    f.startAt(6);
    f.session->abandonSync(); // started and abandoned: nothing changed
    EXPECT_EQ(f.changes, 0);
    EXPECT_EQ(f.session->numberOfRows(), 0);

    f.startAt(6);
    f.session->acceptSync();
    f.startAt(11);
    f.session->acceptSync();
    EXPECT_EQ(f.changes, 2);

    // Taking a point back into progress changes the movie even if abandoned:
    // the point has left the list.
    f.session->editSync(0);
    EXPECT_EQ(f.session->syncRow(), 0);
    EXPECT_EQ(f.session->numberOfRows(), 2);
    EXPECT_EQ(f.changes, 3);
    f.session->abandonSync();
    EXPECT_EQ(f.changes, 3);
    EXPECT_EQ(f.session->offsets()->points().size(), 1u);

    // Table edits of a point are changes; refused text is not.
    EXPECT_TRUE(f.session->setRowTime(0, "10.5"));
    EXPECT_EQ(f.changes, 4);
    f.session->setRowOffset(0, 25);
    EXPECT_EQ(f.changes, 5);
    EXPECT_NEAR(f.session->offsets()->points()[0].offset().seconds(), 0.025, 1e-4);
    EXPECT_FALSE(f.session->setRowTime(0, "soon"));
    EXPECT_FALSE(f.session->setRowTime(7, "1"));
    EXPECT_EQ(f.changes, 5);

    // The row of the point in progress moves the loop, not the list.
    f.startAt(6);
    int changes = f.changes;
    auto points = f.session->offsets()->points();
    EXPECT_TRUE(f.session->setRowTime(f.session->syncRow(), "5"));
    EXPECT_TRUE(f.session->loopMiddle() == at(5));
    EXPECT_EQ(f.changes, changes);
    ASSERT_EQ(f.session->offsets()->points().size(), points.size());
    EXPECT_TRUE(f.session->offsets()->points()[0].movieTime == points[0].movieTime);

    // Deleting takes changes back.
    f.session->abandonSync();
    f.session->deleteSync({0, 5});
    EXPECT_TRUE(f.session->offsets()->points().empty());
    EXPECT_EQ(f.changes, changes - 2); // the abandon and the one point there was (row 5 does not exist)
}

// Suggested points: rows after the points; starting one plays its offset,
// Return keeps it as a point, Escape dismisses it; the confident ones go in
// as one change.
TEST(SyncSession, CandidatesBecomePointsOrGo)
{
    Fixture f(movie12());
    ASSERT_TRUE(f.session);
    f.startAt(6);
    f.session->acceptSync();
    int changes = f.changes;
    f.session->setCandidates({{at(9), at(9.25), 0.8}, {at(2), at(2.25), 0.3}, {at(5), at(5.25), 0.6}});
    ASSERT_EQ(f.session->numberOfRows(), 4);
    EXPECT_EQ(f.session->candidateOfRow(0), -1);
    EXPECT_EQ(f.session->candidateOfRow(1), 0); // in movie-time order
    EXPECT_TRUE(f.session->GetOffset(1).movieTime == at(2));
    EXPECT_NEAR(f.session->displayedOffset(3), -250, 0.01);
    EXPECT_EQ(f.changes, changes); // suggestions change nothing yet
    // Candidates are not edited in place.
    EXPECT_FALSE(f.session->setRowTime(1, "3"));
    f.session->setRowOffset(1, 10);
    EXPECT_NEAR(f.session->GetOffset(1).offset().seconds(), -0.25, 1e-9);

    // Selecting the 9 s candidate loops around it with its offset applied.
    f.session->selectionChanged({3});
    EXPECT_TRUE(f.session->syncInProgress());
    EXPECT_TRUE(f.session->loopMiddle() == at(9));
    EXPECT_EQ(f.session->syncRow(), 1);
    EXPECT_NEAR(f.session->GetOffset(1).audioTime.seconds(), 9.25, 1e-4);
    EXPECT_EQ(f.session->candidates().size(), 2u);
    EXPECT_EQ(f.changes, changes + 1);
    f.session->acceptSync();
    ASSERT_EQ(f.session->offsets()->points().size(), 2u);
    EXPECT_NEAR(f.session->offsets()->points()[1].audioTime.seconds(), 9.25, 1e-4);
    EXPECT_EQ(f.changes, changes + 1);

    // Escape dismisses: the candidate is gone and nothing changed.
    f.session->startCandidate(0);
    EXPECT_TRUE(f.session->loopMiddle() == at(2));
    f.session->abandonSync();
    EXPECT_EQ(f.changes, changes + 1);
    ASSERT_EQ(f.session->candidates().size(), 1u);
    EXPECT_EQ(f.session->offsets()->points().size(), 2u);

    // Accept all confident: one change for all of them; weaker ones wait.
    f.session->setCandidates({{at(3), at(3.25), 0.9}, {at(10), at(10.25), 0.7}, {at(11), at(11.5), 0.2}});
    EXPECT_EQ(f.session->acceptConfident(0.95), 0);
    EXPECT_EQ(f.changes, changes + 1);
    EXPECT_EQ(f.session->acceptConfident(0.5), 2);
    EXPECT_EQ(f.changes, changes + 2);
    EXPECT_EQ(f.session->offsets()->points().size(), 4u);
    ASSERT_EQ(f.session->candidates().size(), 1u);
    // Deleting a candidate row dismisses it.
    f.session->deleteSync({4});
    EXPECT_TRUE(f.session->candidates().empty());
    EXPECT_EQ(f.session->offsets()->points().size(), 4u);
}

TEST(SyncSession, SettingsAreReadAtEveryStep)
{
    Fixture f(movie12());
    ASSERT_TRUE(f.session);
    f.settings.loopLength = 2;
    f.startAt(6);
    EXPECT_EQ(f.session->startTime().timeValue, 4 * kRate);
    f.settings.audioStep = 1;
    myQTTime before = f.session->audioTime();
    f.session->retardAudio();
    EXPECT_NEAR(f.session->audioTime().seconds() - before.seconds(), 0.001, 1e-6);
    f.settings.reverseWheel = -1;
    f.session->scrollWheel(2);
    EXPECT_NEAR(f.session->audioTime().seconds() - before.seconds(), -0.001, 1e-6);
    f.session->acceptSync();

    // Selecting one point loops around it; none plays the whole movie.
    f.session->selectionChanged({0});
    EXPECT_TRUE(f.player->loops());
    EXPECT_TRUE(f.session->loopMiddle() == f.session->offsets()->points()[0].movieTime);
    f.session->selectionChanged({});
    EXPECT_FALSE(f.player->loops());
}

// A viewer who nudges the sound until the click they hear comes with the
// flash they see. They listen through a device that holds `held` frames
// before the speaker and says it holds `reported`; `userDelayMs` is the
// output delay they set. Returns the point they accept.
Offset acceptByEye(int held, int reported, double userDelayMs = 0)
{
    auto spec = smallSpec(12, 0.2, 1.0); // every click 200 ms after its flash
    spec.flashInterval = 1.0;
    auto movie = dmsync::MovieSession::open(cachedMovie("session-late-12s.mov", spec));
    auto out = std::make_unique<media::ManualAudioOutput>();
    media::ManualAudioOutput* device = out.get();
    device->setLatencyFrames(reported);
    media::PlayerOptions o;
    o.output = std::move(out);
    o.video = false;
    o.outputDelayMs = userDelayMs;
    media::Player player(movie->sharedMovie(), std::move(o));
    SyncSession::Settings settings;
    auto session = SyncSession::make(*movie, &player, [&] { return settings; }, {});
    player.setCurrentTime(at(6));
    session->startSync(); // loops 2 s .. 6 s

    std::vector<float> line(static_cast<std::size_t>(held) + 1, 0.0f); // what the device holds
    std::size_t lineAt = 0;
    std::int64_t heardIndex = 0, lastClick = -kRate;
    std::vector<float> buf;
    for (int round = 0; round < 12; ++round) {
        // Watch one lap: where the picture stands when each click is heard.
        std::vector<double> offsets;
        for (int i = 0; i < 4 * kRate / 1024 + 1; ++i) {
            EXPECT_TRUE(player.waitForSound());
            device->pullBuffer(buf);
            std::vector<std::int64_t> heardClicks;
            for (std::size_t k = 0; k < buf.size(); k += 2) {
                line[lineAt] = buf[k];
                lineAt = (lineAt + 1) % line.size();
                float speaker = line[lineAt]; // what comes out now, `held` frames later
                if (std::fabs(speaker) > 0.4f && heardIndex - lastClick > kRate / 2) heardClicks.push_back(lastClick = heardIndex);
                ++heardIndex;
            }
            double shown = player.currentTime().seconds(); // the picture on screen now
            for (std::int64_t h : heardClicks) {
                double pictureAtClick = shown - static_cast<double>(heardIndex - h) / kRate;
                if (pictureAtClick < 2.05) continue; // the loop wrapped in between
                offsets.push_back(pictureAtClick - std::round(pictureAtClick));
            }
        }
        if (offsets.empty()) break;
        std::sort(offsets.begin(), offsets.end());
        double ms = std::round(offsets[offsets.size() / 2] * 1000);
        if (ms == 0) break;
        session->scrollWheel(ms); // one millisecond a notch: the click moves that much earlier
    }
    session->acceptSync();
    return session->GetOffset(0);
}

// What the user accepts is the sound heard with the picture seen: through a
// device that holds 150 ms the point is the one accepted through a device
// that holds nothing, as long as the player knows the delay, from the device
// or from the user's setting.
TEST(SyncSession, OutputLatencyLeavesNoBiasInTheAcceptedPoint)
{
    constexpr int k150ms = kRate * 150 / 1000;
    Offset direct = acceptByEye(0, 0);
    EXPECT_NEAR(direct.offset().seconds(), -0.2, 0.002) << "the viewer should find the 200 ms";
    Offset reported = acceptByEye(k150ms, k150ms);
    EXPECT_TRUE(reported.movieTime == direct.movieTime);
    EXPECT_EQ(reported.audioTime.timeWithScaleOf(kRate), direct.audioTime.timeWithScaleOf(kRate));
    Offset set = acceptByEye(k150ms, 0, 150.0); // headphones the device cannot see: the user's setting
    EXPECT_EQ(set.audioTime.timeWithScaleOf(kRate), direct.audioTime.timeWithScaleOf(kRate));
    // Not knowing the delay puts it into the point: the viewer is fooled by 150 ms.
    Offset unknown = acceptByEye(k150ms, 0);
    EXPECT_NEAR(unknown.audioTime.seconds() - direct.audioTime.seconds(), 0.150, 0.002);
}

TEST(SyncSession, AMovieWithoutSoundIsRefused)
{
    auto spec = smallSpec(4, 0.0, 1.0);
    spec.withSound = false;
    auto movie = dmsync::MovieSession::open(cachedMovie("session-silent.mov", spec));
    EXPECT_FALSE(movie->canSync());
    media::PlayerOptions o;
    o.output = std::make_unique<media::ManualAudioOutput>();
    o.video = false;
    media::Player player(movie->sharedMovie(), std::move(o));
    try {
        SyncSession::make(*movie, &player, {});
        ADD_FAILURE() << "a movie without sound was taken";
    } catch (Refused const& r) {
        EXPECT_EQ(std::string(r.what()), movie->refusal().message);
        EXPECT_FALSE(r.suggestion().empty());
    }
}

} // namespace
