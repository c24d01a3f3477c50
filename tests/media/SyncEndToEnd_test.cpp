#include "MediaTestSupport.h"
#include "MovieWriter.h"
#include "OffsetList.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace media;
using namespace testsupport;

namespace {

struct Case {
    char const* name;
    double offset;
    double rate;
};

class SyncEndToEnd : public ::testing::TestWithParam<Case> {};

// After syncing with the known points, every click of the saved movie lies
// within 1 ms of its flash, and the backup is there, disabled and named.
TEST_P(SyncEndToEnd, ClicksMeetFlashesInTheSavedMovie)
{
    Case c = GetParam();
    ScratchDir dir;
    auto spec = smallSpec(40, c.offset, c.rate);
    std::string source = cachedMovie(std::string(c.name) + ".mov", spec);
    SyncMeasurement before = measureSync(source);

    OpenedMovie om = openMovie(source);
    OffsetList list(om.movie.get(), nullptr);
    list.replacePoints(markPoints(spec));
    EXPECT_NEAR(list.slope(), c.rate, 1e-5);
    EXPECT_NEAR(list.intercept(), c.offset, 1e-4);
    std::string out = dir.file("synced.mov");
    writeMovie(*om.movie, out);

    SyncMeasurement after = measureSync(out);
    ASSERT_EQ(after.flashes.size(), before.flashes.size());
    ASSERT_GE(after.flashes.size(), 15u);
    // Only flashes whose clicks still lie within the sound.
    double worst = 0;
    for (std::size_t i = 0; i < after.flashes.size(); ++i)
        if (after.flashes[i] < 38.0) worst = std::max(worst, std::fabs(after.errors[i]));
    RecordProperty("worst_ms", std::to_string(worst * 1000));
    std::cout << c.name << ": before " << before.worst() * 1000 << " ms, after " << worst * 1000 << " ms\n";
    EXPECT_LT(worst, 0.001);

    OpenedMovie saved = openMovie(out);
    int enabledSound = 0;
    dm::TrackPtr backup;
    for (auto const& t : saved.movie->tracks()) {
        if (t->mediaType() != dm::MediaType::Sound) continue;
        if (t->isEnabled()) ++enabledSound;
        else backup = t;
    }
    EXPECT_EQ(enabledSound, 1);
    ASSERT_TRUE(backup);
    EXPECT_EQ(backup->displayName(), "Backup Sound Track");
    EXPECT_EQ(backup->range().duration.timeValue, 40 * 48000);
}

INSTANTIATE_TEST_SUITE_P(Retimings, SyncEndToEnd,
                         ::testing::Values(Case{"delay", 0.35, 1.0}, Case{"stretch", 0.0, 1.0 / 1.004},
                                           Case{"both", 0.35, 1.0 / 1.004}, Case{"early", -0.4, 1.003}),
                         [](auto const& info) { return std::string(info.param.name); });

// A saved, synced movie opens with its re-timed sound as the sound track to
// sync; a second sync starts from it (the old backup stays, disabled).
TEST(SyncEndToEnd, SecondSyncStartsFromTheRetimedSound)
{
    ScratchDir dir;
    auto spec = smallSpec(20, 0.5, 1.0);
    std::string source = cachedMovie("half-second-late.mov", spec);
    OpenedMovie om = openMovie(source);
    OffsetList list(om.movie.get(), nullptr);
    // A first, too small correction: 0.3 of the 0.5 s.
    std::vector<Offset> partial;
    for (auto const& m : testMovieMarks(spec)) partial.emplace_back(myQTTime(m.movieTime, 48000), myQTTime(m.movieTime + 0.3, 48000));
    list.replacePoints(partial);
    std::string first = dir.file("first.mov");
    writeMovie(*om.movie, first);
    EXPECT_NEAR(measureSync(first).errors.at(3), 0.2, 0.001);

    OpenedMovie again = openMovie(first);
    OffsetList second(again.movie.get(), nullptr);
    EXPECT_EQ(second.soundTrack()->displayName(), "Sound");
    std::vector<Offset> rest;
    for (auto const& m : testMovieMarks(spec)) rest.emplace_back(myQTTime(m.movieTime, 48000), myQTTime(m.movieTime + 0.2, 48000));
    second.replacePoints(rest);
    std::string done = dir.file("second.mov");
    writeMovie(*again.movie, done);
    SyncMeasurement m = measureSync(done);
    for (std::size_t i = 0; i + 1 < m.errors.size(); ++i) EXPECT_LT(std::fabs(m.errors[i]), 0.001) << "flash " << i;
    int backups = 0;
    OpenedMovie reopened = openMovie(done);
    for (auto const& t : reopened.movie->tracks())
        if (t->mediaType() == dm::MediaType::Sound && !t->isEnabled()) ++backups;
    EXPECT_EQ(backups, 2);
}

} // namespace
