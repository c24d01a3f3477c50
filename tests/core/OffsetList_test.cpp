#include "OffsetList.h"
#include "bridge.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <stdexcept>

using namespace dm;

namespace {

constexpr int kRate = 48000;

struct RecordingDocument : SyncDocument {
    int will = 0, did = 0;
    void willUpdateMode() override { ++will; }
    void didUpdateMode() override { ++did; }
};

// A movie with a video track and one sound track of `seconds`, optionally
// starting `lead` seconds late.
struct TestMovie {
    Movie movie;
    TrackPtr video, sound;
    std::shared_ptr<const EditList> unedited;

    explicit TestMovie(double seconds, double lead = 0.0)
    {
        auto v = std::make_shared<Media>(MediaType::Video, 600, static_cast<long long>(seconds * 600));
        video = movie.addTrack(MediaType::Video, v, 600);
        auto s = std::make_shared<Media>(MediaType::Sound, kRate, static_cast<long long>(seconds * kRate));
        long long leadTicks = static_cast<long long>(lead * kRate);
        std::vector<Segment> segs;
        if (leadTicks > 0) segs.push_back(Segment::empty(leadTicks));
        segs.push_back(Segment::media(s->length, 0, s->length));
        sound = movie.addTrack(MediaType::Sound, s, kRate, EditList(segs));
        unedited = sound->editList();
    }
};

myQTTime secs(double s) { return myQTTime(s, 600); }

Offset point(double movie, double audio) { return Offset(secs(movie), secs(audio)); }

// Adds a point whose unedited audio time is exactly `audio` seconds (push
// converts a heard time under the line in force, so set the audio after).
void add(OffsetList& list, double movie, double audio)
{
    auto it = list.push(point(movie, movie));
    list.changeAudioRealTime(it, secs(audio));
}

// The sound heard at movie tick m (of the sound's scale) is unedited audio
// time slope x m + intercept. Returns the worst error in ticks: of the sound
// played (audio ticks) when slope <= 1, of the time it is played at (movie
// ticks, audio error / slope) when slope > 1 -- one timeline tick moves the
// sound by `slope` audio ticks.
double worstError(OffsetList const& list, TestMovie const& tm, int samples, std::mt19937& rng)
{
    auto edited = list.soundTrack()->editList();
    double worst = 0;
    double silence = list.intercept() < 0 ? -list.intercept() / list.slope() : 0.0;
    std::uniform_int_distribution<long long> pick(0, edited->duration() - 1);
    for (int i = 0; i < samples; ++i) {
        long long m = pick(rng);
        if (m < silence * kRate + 2) continue;
        auto got = edited->lookup(m);
        if (!got || got->segment.isEmpty()) continue;
        double audio = (list.slope() * m / kRate + list.intercept()) * kRate;
        auto want = tm.unedited->lookup(static_cast<long long>(std::floor(audio)));
        if (!want || want->segment.isEmpty()) continue;
        double expected = want->mediaTime + (audio - std::floor(audio));
        worst = std::max(worst, std::fabs(got->mediaTime - expected) / std::max(1.0, list.slope()));
    }
    return worst;
}

TEST(OffsetList, ConstructionChoosesTheOneEnabledSoundTrack)
{
    TestMovie tm(100);
    TrackPtr disabled = tm.movie.addTrack(MediaType::Sound, std::make_shared<Media>(MediaType::Sound, kRate, kRate), kRate);
    disabled->setEnabled(false);
    OffsetList list(&tm.movie, nullptr);
    EXPECT_EQ(list.soundTrack(), tm.sound);
    EXPECT_FALSE(list.backupTrack());
    EXPECT_EQ(list.slope(), 1.0);
    EXPECT_EQ(list.intercept(), 0.0);
    EXPECT_TRUE(list.duration() == secs(100));
    EXPECT_EQ(list.getState(), 0);

    disabled->setEnabled(true);
    EXPECT_THROW(OffsetList(&tm.movie, nullptr), OffsetList::TooManySoundTracks);

    Movie silent;
    silent.addTrack(MediaType::Video, std::make_shared<Media>(MediaType::Video, 600, 600), 600);
    EXPECT_THROW(OffsetList(&silent, nullptr), OffsetList::NoSoundTracks);
    silent.addTrack(MediaType::MPEG, std::make_shared<Media>(MediaType::MPEG, 600, 600), 600);
    EXPECT_THROW(OffsetList(&silent, nullptr), OffsetList::MPEGMovie);
    Movie onlyDisabled;
    onlyDisabled.addTrack(MediaType::Sound, std::make_shared<Media>(MediaType::Sound, kRate, kRate), kRate)->setEnabled(false);
    EXPECT_THROW(OffsetList(&onlyDisabled, nullptr), OffsetList::NoSoundTracks);
}

TEST(OffsetList, Mappings)
{
    TestMovie tm(100);
    OffsetList list(&tm.movie, nullptr);
    myQTTime odd(12345LL, 44100);
    odd.flags = 3;
    myQTTime a = list.MovieTimeToAudioTime(odd);
    EXPECT_EQ(a.timeValue, 12345);
    EXPECT_EQ(a.timeScale, 44100);
    EXPECT_EQ(a.flags, 3);
    EXPECT_EQ(list.AudioTimeToMovieTime(odd).timeValue, 12345);

    // A line with slope 1 and intercept 0.5: two points 0.5 s apart at 1.0.
    add(list, 10, 10.5);
    add(list, 50, 50.5);
    EXPECT_NEAR(list.slope(), 1.0, 1e-12);
    EXPECT_NEAR(list.intercept(), 0.5, 1e-12);
    EXPECT_EQ(list.MovieTimeToAudioTime(myQTTime(600LL, 600)).timeValue, 900);
    EXPECT_EQ(list.AudioTimeToMovieTime(myQTTime(900LL, 600)).timeValue, 600);
}

TEST(OffsetList, PushOrderAndState)
{
    TestMovie tm(100);
    RecordingDocument doc;
    OffsetList list(&tm.movie, &doc);
    // The heard time is converted under the line in force (identity here).
    auto it = list.push(Offset(secs(10), secs(9)));
    EXPECT_EQ(it - list.points().begin(), 0);
    EXPECT_EQ(doc.will, 1);
    EXPECT_EQ(doc.did, 1);
    EXPECT_EQ(list.getState(), 1);

    // Equal movie times keep the order pushed.
    list.remove(list.getIterator(0));
    EXPECT_EQ(list.getState(), 0);
    EXPECT_FALSE(list.backupTrack());
    list.push(Offset(secs(20), secs(20)));
    list.push(Offset(secs(20), secs(20.01)));
    list.push(Offset(secs(5), secs(5)));
    ASSERT_EQ(list.points().size(), 3u);
    EXPECT_TRUE(list.points()[0].movieTime == secs(5));
    EXPECT_LT(list.points()[1].audioTime.timeValue, list.points()[2].audioTime.timeValue);

    // Half the duration counts as the first half; one tick later as the second.
    TestMovie tm2(100);
    OffsetList halves(&tm2.movie, nullptr);
    halves.push(Offset(myQTTime(30000LL, 600), myQTTime(30000LL, 600)));
    EXPECT_EQ(halves.getState(), 1);
    halves.changeTimePreservingOffset(halves.getIterator(0), myQTTime(30001LL, 600));
    EXPECT_EQ(halves.getState(), 3);
}

TEST(OffsetList, ChangingPoints)
{
    TestMovie tm(100);
    OffsetList list(&tm.movie, nullptr);
    list.push(point(10, 9));
    list.changeTimePreservingOffset(list.getIterator(0), myQTTime(20, 1));
    EXPECT_TRUE(list.points()[0].movieTime == myQTTime(20, 1));
    EXPECT_TRUE(list.points()[0].audioTime == myQTTime(19, 1));
    EXPECT_TRUE(list.points()[0].offset() == myQTTime(1, 1));

    list.changeAudioOffset(list.getIterator(0), 0.0);
    EXPECT_EQ(list.points()[0].audioTime.timeValue, list.points()[0].movieTime.timeValue);
    EXPECT_EQ(list.points()[0].audioTime.timeScale, list.points()[0].movieTime.timeScale);
    list.changeTime(list.getIterator(0), secs(20));
    list.changeAudioOffset(list.getIterator(0), 0.25);
    EXPECT_NEAR(list.points()[0].offset().seconds(), 0.25, 1.0 / 600);

    list.push(point(40, 40));
    list.changeTime(list.getIterator(1), secs(5)); // moves to the front
    EXPECT_TRUE(list.points()[0].movieTime == secs(5));
    list.changeAudioRealTime(list.getIterator(0), secs(4));
    EXPECT_TRUE(list.points()[0].audioTime == secs(4));
    // changeAudioTime converts a heard time under the current line.
    myQTTime heard = secs(30);
    myQTTime expected = list.MovieTimeToAudioTime(heard);
    list.changeAudioTime(list.getIterator(1), heard);
    EXPECT_TRUE(list.points()[1].audioTime == expected);
}

struct FitCase {
    std::vector<std::pair<double, double>> points;
    double slope, intercept;
    std::vector<bool> flags;
};

TEST(OffsetList, FitAndFlags)
{
    const FitCase cases[] = {
        {{{10, 9}}, 91.0 / 90, -10.0 / 9, {false}},
        {{{60, 61}}, 61.0 / 60, 0.0, {false}},
        {{{10, 9.5}, {50, 50.5}}, 1.025, -0.75, {false, false}},
        {{{10, 10}, {20, 20}, {30, 30}, {40, 41}}, 1.03, -0.5, {false, false, true, true}},
        {{{10, 10}, {20, 20}, {30, 30.1}, {40, 40}, {50, 50}}, 1.0, 0.02, {false, false, true, false, false}},
    };
    for (auto const& c : cases) {
        TestMovie tm(100);
        OffsetList list(&tm.movie, nullptr);
        for (auto [m, a] : c.points) add(list, m, a);
        EXPECT_NEAR(list.slope(), c.slope, 1e-9);
        EXPECT_NEAR(list.intercept(), c.intercept, 1e-9);
        for (size_t i = 0; i < c.flags.size(); ++i) EXPECT_EQ(list.points()[i].flag, c.flags[i]) << i;
        EXPECT_EQ(list.getState(), std::count(c.flags.begin(), c.flags.end(), true) ? 2 : (c.points.back().first > 50 ? 3 : 1));
    }
}

// Points found sample by sample (from a reference sound) lie microseconds
// from their line: 1.5 times that spread flags none of them, while a point
// a few milliseconds off among them still strays.
TEST(OffsetList, PointsMicrosecondsApartDoNotStray)
{
    auto at = [](double s) { return myQTTime(static_cast<long long>(std::llround(s * 48000)), 48000L); };
    TestMovie tm(100);
    OffsetList list(&tm.movie, nullptr);
    list.replacePoints({{at(10), at(10.0001)}, {at(20), at(20)}, {at(30), at(30.00002)}, {at(40), at(40)}});
    for (auto const& p : list.points()) EXPECT_FALSE(p.flag);
    list.replacePoints({{at(10), at(10.0001)}, {at(20), at(20)}, {at(30), at(30.006)}, {at(40), at(40)}, {at(50), at(50)}});
    EXPECT_TRUE(list.points()[2].flag);
    EXPECT_FALSE(list.points()[0].flag);
}

TEST(OffsetList, RetimingEdits)
{
    // One point at 10 s against 9 s in 100 s: silence of 100/91 s, no cut.
    {
        TestMovie tm(100);
        OffsetList list(&tm.movie, nullptr);
        list.push(point(10, 9));
        auto segs = tm.sound->editList()->segments();
        ASSERT_EQ(segs.size(), 2u);
        EXPECT_TRUE(segs[0].isEmpty());
        EXPECT_EQ(segs[0].duration, std::llrint(100.0 / 91 * kRate));
        EXPECT_EQ(segs[1].mediaStart, 0);
        EXPECT_EQ(segs[1].mediaLength, 100LL * kRate);
        EXPECT_EQ(segs[0].duration + segs[1].duration, std::llrint(100.0 * kRate * 90 / 91 + 100.0 / 91 * kRate));

        TrackPtr b = list.backupTrack();
        ASSERT_TRUE(b);
        EXPECT_FALSE(b->isEnabled());
        EXPECT_EQ(b->displayName(), "Backup Sound Track");
        EXPECT_EQ(*b->editList(), *tm.unedited);
        EXPECT_EQ(tm.movie.tracks().size(), 3u);
    }
    // Intercept 0.5 with slope 1: the first 0.5 s are cut, nothing else.
    {
        TestMovie tm(100);
        OffsetList list(&tm.movie, nullptr);
        add(list, 10, 10.5);
        add(list, 50, 50.5);
        auto segs = tm.sound->editList()->segments();
        ASSERT_EQ(segs.size(), 1u);
        EXPECT_EQ(segs[0], Segment::media(99LL * kRate + kRate / 2, kRate / 2, 99LL * kRate + kRate / 2));
        // Back to no points: unedited sound, no backup, identity line.
        list.remove(list.getIterator(1));
        list.remove(list.getIterator(0));
        EXPECT_EQ(*tm.sound->editList(), *tm.unedited);
        EXPECT_FALSE(list.backupTrack());
        EXPECT_EQ(tm.movie.tracks().size(), 2u);
        EXPECT_EQ(list.slope(), 1.0);
        EXPECT_EQ(list.intercept(), 0.0);
    }
}

TEST(OffsetList, BackupFailureLeavesUneditedSound)
{
    TestMovie tm(100);
    RecordingDocument doc;
    OffsetList list(&tm.movie, &doc);
    add(list, 10, 10.2);
    tm.movie.setTrackLimit(2);
    ::testing::internal::CaptureStderr();
    EXPECT_THROW(list.push(Offset(secs(50), list.AudioTimeToMovieTime(secs(50.6)))), OffsetList::BadBackup);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Couldn't create backup track.\n");
    EXPECT_EQ(list.points().size(), 2u);
    EXPECT_NEAR(list.slope(), 1.01, 1e-9); // the new line is in place
    EXPECT_EQ(*tm.sound->editList(), *tm.unedited);
    EXPECT_FALSE(list.backupTrack());
    EXPECT_EQ(doc.will, doc.did);
}

TEST(OffsetList, DegenerateFitKeepsThePreviousLine)
{
    TestMovie tm(100);
    OffsetList list(&tm.movie, nullptr);
    add(list, 10, 10.5);
    add(list, 60, 60.5);
    double slope = list.slope(), intercept = list.intercept();
    ASSERT_FALSE(list.keptPreviousLine());

    // Audio falling as movie time rises: a negative slope is refused.
    list.changeAudioRealTime(list.getIterator(1), secs(1));
    EXPECT_TRUE(list.keptPreviousLine());
    EXPECT_EQ(list.slope(), slope);
    EXPECT_EQ(list.intercept(), intercept);
    ASSERT_TRUE(list.backupTrack());
    // The track still follows the kept line, so the mappings tell the truth.
    std::mt19937 rng(1);
    EXPECT_LE(worstError(list, tm, 2000, rng), 0.6);

    // Two points at one movie time: no line at all.
    list.changeTimePreservingOffset(list.getIterator(1), secs(10));
    EXPECT_TRUE(list.keptPreviousLine());
    EXPECT_EQ(list.slope(), slope);
    list.changeTime(list.getIterator(1), secs(70));
    list.changeAudioRealTime(list.getIterator(1), secs(70.5));
    EXPECT_FALSE(list.keptPreviousLine());
    EXPECT_NEAR(list.slope(), 1.0, 1e-9);
}

TEST(OffsetList, ModeGuardPairsCallsAlsoOnExceptions)
{
    struct Throwing : SyncDocument {
        int did = 0;
        void willUpdateMode() override {}
        void didUpdateMode() override { ++did; }
    } doc;
    EXPECT_THROW(
        {
            CallObjCOnDestruct<SyncDocument> guard(&doc, &SyncDocument::didUpdateMode);
            throw std::runtime_error("x");
        },
        std::runtime_error);
    EXPECT_EQ(doc.did, 1);

    TestMovie tm(100);
    RecordingDocument rec;
    OffsetList empty(&tm.movie, &rec);
    empty.push(point(10, 10));
    empty.remove(empty.getIterator(0)); // no points: still told once each
    EXPECT_EQ(rec.will, 2);
    EXPECT_EQ(rec.did, 2);
}

// Random sequences of changes over random movies: the track follows the line
// to one sample, exactly one backup exists while there are points, the empty
// list restores the unedited sound, points stay ordered, flags are the fit's.
TEST(OffsetList, PropertyRandomChanges)
{
    std::mt19937 rng(20261123);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    double worst = 0;
    for (int trial = 0; trial < 60; ++trial) {
        double seconds = 1 + unit(rng) * (trial % 3 == 0 ? 10800 : 600);
        double lead = trial % 4 == 1 ? unit(rng) * 2 : 0.0;
        TestMovie tm(seconds, lead);
        OffsetList list(&tm.movie, nullptr);
        double slope = 1 + (unit(rng) - 0.5) * 0.1;
        double intercept = (unit(rng) - 0.5) * 20;
        int steps = 1 + static_cast<int>(unit(rng) * 50);
        // Points near the true line, a fifth of them stray by up to half a
        // second (less in short movies, so that fits stay within a few %).
        double stray = std::min(0.5, seconds * 0.01);
        auto noise = [&] { return unit(rng) < 0.2 ? (unit(rng) - 0.5) * 2 * stray : 0.0; };
        auto line = [&](double m) { return slope * m + intercept; };
        for (int s = 0; s < steps; ++s) {
            int n = static_cast<int>(list.points().size());
            double m = unit(rng) * seconds;
            int op = n == 0 ? 0 : static_cast<int>(unit(rng) * 6);
            int i = n == 0 ? 0 : static_cast<int>(unit(rng) * n);
            Offset const* p = n == 0 ? nullptr : &list.points()[i];
            switch (op) {
            case 0:
                if (n < 50) list.push(Offset(secs(m), list.AudioTimeToMovieTime(secs(line(m) + noise()))));
                break;
            case 1: list.remove(list.getIterator(i)); break;
            case 2: list.changeTime(list.getIterator(i), secs((p->audioTime.seconds() - intercept) / slope + noise())); break;
            case 3:
                list.changeTimePreservingOffset(list.getIterator(i), secs(p->movieTime.seconds() + (unit(rng) - 0.5) * stray));
                break;
            case 4: {
                double mt = p->movieTime.seconds();
                list.changeAudioOffset(list.getIterator(i), mt - line(mt) + noise());
                break;
            }
            case 5: list.changeAudioRealTime(list.getIterator(i), secs(line(p->movieTime.seconds()) + noise())); break;
            }
            auto const& pts = list.points();
            ASSERT_TRUE(std::is_sorted(pts.begin(), pts.end()));
            int backups = 0;
            for (auto const& t : tm.movie.tracks()) {
                if (t->mediaType() == MediaType::Sound && !t->isEnabled()) {
                    ++backups;
                    EXPECT_EQ(t->displayName(), "Backup Sound Track");
                    EXPECT_EQ(*t->editList(), *tm.unedited);
                }
            }
            if (pts.empty()) {
                ASSERT_EQ(backups, 0);
                ASSERT_EQ(*tm.sound->editList(), *tm.unedited);
                continue;
            }
            ASSERT_EQ(backups, 1);
            double e = worstError(list, tm, 200, rng);
            worst = std::max(worst, e);
            ASSERT_LE(e, 1.0) << "trial " << trial << " step " << s << " slope " << list.slope() << " intercept "
                              << list.intercept();
            // Flags are the verdict of the line in force.
            if (pts.size() >= 3) {
                double sum = 0;
                for (auto const& p : pts) {
                    double r = list.slope() * p.movieTime.seconds() + list.intercept() - p.audioTime.seconds();
                    sum += r * r;
                }
                double rms = std::sqrt(sum / pts.size());
                for (auto const& p : pts) {
                    double r = std::fabs(list.slope() * p.movieTime.seconds() + list.intercept() - p.audioTime.seconds());
                    ASSERT_EQ(p.flag, r > 0.001 && (r > 1.5 * rms || r > 0.25));
                }
            } else {
                for (auto const& p : pts) ASSERT_FALSE(p.flag);
            }
        }
    }
    RecordProperty("worst_error_samples", std::to_string(worst));
    std::cout << "worst error: " << worst << " samples\n";
}

} // namespace

namespace {

TEST(OffsetList, ReplacePointsIsOneChange)
{
    TestMovie a(600), b(600);
    RecordingDocument doc;
    OffsetList bulk(&a.movie, &doc), single(&b.movie, nullptr);
    std::vector<Offset> pts;
    for (int i = 9; i >= 0; --i) pts.push_back(point(30 + i * 50, 30.4 + i * 50 * 1.002));
    pts.push_back(point(80, 80.3)); // same movie time as a later one: keeps its order after it
    bulk.replacePoints(pts);
    for (auto const& p : pts) add(single, p.movieTime.seconds(), p.audioTime.seconds());
    EXPECT_EQ(doc.will, 1);
    ASSERT_EQ(bulk.points().size(), single.points().size());
    for (size_t i = 0; i < pts.size(); ++i) {
        EXPECT_TRUE(bulk.points()[i].movieTime == single.points()[i].movieTime);
        EXPECT_TRUE(bulk.points()[i].audioTime == single.points()[i].audioTime);
        EXPECT_EQ(bulk.points()[i].flag, single.points()[i].flag);
    }
    EXPECT_NEAR(bulk.points()[2].audioTime.seconds(), 80.3, 1e-9);
    EXPECT_DOUBLE_EQ(bulk.slope(), single.slope());
    EXPECT_EQ(*a.sound->editList(), *b.sound->editList());
    bulk.replacePoints({});
    EXPECT_EQ(*a.sound->editList(), *a.unedited);
    EXPECT_FALSE(bulk.backupTrack());
}

} // namespace
