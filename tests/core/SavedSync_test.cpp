// Points stored in a movie, and a saved movie's backup taking the sound
// track's place when it opens again.
#include "SavedSync.h"

#include <gtest/gtest.h>

using namespace dm;

namespace {

constexpr std::int32_t kRate = 48000;

myQTTime at(long long ticks) { return myQTTime(ticks, static_cast<long>(kRate)); }

TEST(SavedSync, PointsRoundTripExactlyAndNonsenseIsRefused)
{
    std::vector<Offset> points = {{at(96000), at(112417)}, {at(-5), at(0)}, {at(4'000'000'000LL), at(3'999'999'999LL)}};
    std::string text = encodeSyncPoints(points, kRate);
    EXPECT_EQ(text, "dubmatch-sync-points 1 48000 96000/112417 -5/0 4000000000/3999999999");
    auto back = decodeSyncPoints(text);
    ASSERT_TRUE(back);
    ASSERT_EQ(back->size(), points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        EXPECT_EQ((*back)[i].movieTime.timeValue, points[i].movieTime.timeValue);
        EXPECT_EQ((*back)[i].audioTime.timeValue, points[i].audioTime.timeValue);
        EXPECT_EQ((*back)[i].movieTime.timeScale, kRate);
    }
    // Points kept at another scale are stored at the sound's.
    std::string converted = encodeSyncPoints({{myQTTime(1200LL, 600L), myQTTime(3LL, 1L)}}, kRate);
    EXPECT_EQ(converted, "dubmatch-sync-points 1 48000 96000/144000");
    EXPECT_EQ(decodeSyncPoints("dubmatch-sync-points 1 48000")->size(), 0u);

    for (char const* bad : {"", "dubmatch-sync-points", "dubmatch-sync-points 2 48000 1/2", "dubmatch-sync-points 1 0 1/2",
                            "dubmatch-sync-points 1 -48000", "dubmatch-sync-points 1 48000 1/", "dubmatch-sync-points 1 48000 /2",
                            "dubmatch-sync-points 1 48000 1-2", "dubmatch-sync-points 1 48000 1/2x", "other 1 48000 1/2",
                            "dubmatch-sync-points 1 48000 99999999999999999999/1"})
        EXPECT_FALSE(decodeSyncPoints(bad)) << bad;
}

// A movie as a save leaves it: video, the re-timed sound, a subtitle-like
// track, and the disabled backup at the end.
struct SavedMovie {
    Movie movie{600};
    TrackPtr video, sound, other, backup;
    explicit SavedMovie(int backups = 1, std::int32_t backupRate = kRate)
    {
        video = movie.addTrack(MediaType::Video, std::make_shared<Media>(MediaType::Video, 600, 6000), 600);
        sound = movie.addTrack(MediaType::Sound, std::make_shared<Media>(MediaType::Sound, kRate, 10 * kRate), kRate);
        sound->setDisplayName("English");
        other = movie.addTrack(MediaType::Other, std::make_shared<Media>(MediaType::Other, 600, 6000), 600);
        for (int i = 0; i < backups; ++i) {
            backup = movie.addTrack(MediaType::Sound, std::make_shared<Media>(MediaType::Sound, backupRate, 10 * backupRate), backupRate);
            backup->setEnabled(false);
            backup->setDisplayName(OffsetList::kBackupTrackName);
        }
    }
};

// The tag a save stores: the list's points exactly, or nothing at all (so
// that a save without points removes a stale tag).
TEST(SavedSync, TheTagOfAListHoldsItsPointsOrNothing)
{
    SavedMovie saved(0);
    OffsetList list(&saved.movie, nullptr);
    EXPECT_EQ(syncPointsTag(list, saved.movie), "");
    std::vector<Offset> points = {{at(48000), at(50400)}, {at(384000), at(386401)}};
    list.replacePoints(points);
    auto back = decodeSyncPoints(syncPointsTag(list, saved.movie));
    ASSERT_TRUE(back);
    ASSERT_EQ(back->size(), 2u);
    for (std::size_t i = 0; i < points.size(); ++i) {
        EXPECT_EQ((*back)[i].movieTime.timeValue, points[i].movieTime.timeValue);
        EXPECT_EQ((*back)[i].audioTime.timeValue, points[i].audioTime.timeValue);
    }
}

TEST(SavedSync, TheBackupTakesTheSoundTracksPlace)
{
    std::string tag = encodeSyncPoints({{at(48000), at(60000)}, {at(400000), at(420000)}}, kRate);
    SavedMovie m;
    SavedSync s = adoptSavedSync(m.movie, tag);
    EXPECT_TRUE(s.backupAdopted);
    ASSERT_TRUE(s.points);
    EXPECT_EQ(s.points->size(), 2u);
    EXPECT_TRUE(s.note.empty());
    ASSERT_EQ(m.movie.tracks().size(), 3u);
    EXPECT_EQ(m.movie.tracks()[0], m.video);
    EXPECT_EQ(m.movie.tracks()[1], m.backup) << "the backup stands where the sound track stood";
    EXPECT_EQ(m.movie.tracks()[2], m.other);
    EXPECT_TRUE(m.backup->isEnabled());
    EXPECT_EQ(m.backup->displayName(), "English");

    // The list then sees a plain movie; its points re-time from the unedited sound with one new backup.
    OffsetList list(&m.movie, nullptr);
    EXPECT_EQ(list.soundTrack(), m.backup);
    list.replacePoints(*s.points);
    int backups = 0;
    for (auto const& t : m.movie.tracks()) backups += t->displayName() == OffsetList::kBackupTrackName;
    EXPECT_EQ(backups, 1);
    EXPECT_EQ(list.backupTrack()->media(), m.backup->media()) << "the new backup copies the unedited sound";
}

TEST(SavedSync, WhatCannotBeAdoptedIsLeftAsItIs)
{
    std::string tag = encodeSyncPoints({{at(48000), at(60000)}}, kRate);
    struct Row {
        char const* what;
        int backups;
        std::int32_t backupRate;
        std::string tag;
        bool adopted;
        bool points;
        bool note;
    } rows[] = {
        {"a saved movie without points", 1, kRate, "", true, false, true},
        {"points that cannot be read", 1, kRate, "dubmatch-sync-points 9", true, false, true},
        {"points but no backup", 0, kRate, tag, false, false, true},
        {"a plain movie", 0, kRate, "", false, false, false},
        {"two backups", 2, kRate, tag, false, false, true},
        {"a backup at another rate", 1, 44100, tag, false, false, true},
    };
    for (auto const& r : rows) {
        SavedMovie m(r.backups, r.backupRate);
        std::size_t before = m.movie.tracks().size();
        SavedSync s = adoptSavedSync(m.movie, r.tag);
        EXPECT_EQ(s.backupAdopted, r.adopted) << r.what;
        EXPECT_EQ(s.points.has_value(), r.points) << r.what;
        EXPECT_EQ(!s.note.empty(), r.note) << r.what << ": " << s.note;
        EXPECT_EQ(m.movie.tracks().size(), r.adopted ? before - 1 : before) << r.what;
        EXPECT_EQ(m.sound->isEnabled(), true) << r.what;
    }
}

} // namespace

#include "PointsText.h"

#include <random>

namespace {

// Exported points read back to the very tick, at the scales sounds have.
TEST(PointsText, ExportedTimesReadBackExactly)
{
    std::mt19937_64 rng(7);
    for (long scale : {8000L, 22050L, 44100L, 48000L, 96000L, 192000L}) {
        std::uniform_int_distribution<long long> ticks(-3600LL * scale, 36000LL * scale);
        std::vector<Offset> points;
        for (int i = 0; i < 2000; ++i) points.emplace_back(myQTTime(ticks(rng), scale), myQTTime(ticks(rng), scale));
        points.emplace_back(myQTTime(1LL, scale), myQTTime(-1LL, scale));
        points.emplace_back(myQTTime(0LL, scale), myQTTime(scale - 1, scale));
        std::vector<Offset> back = parsePointsText(formatPointsText(points, "a test"), scale);
        ASSERT_EQ(back.size(), points.size());
        for (std::size_t i = 0; i < points.size(); ++i) {
            ASSERT_EQ(back[i].movieTime.timeValue, points[i].movieTime.timeValue) << scale << " " << exactSeconds(points[i].movieTime);
            ASSERT_EQ(back[i].audioTime.timeValue, points[i].audioTime.timeValue) << scale << " " << exactSeconds(points[i].audioTime);
        }
    }
    EXPECT_EQ(exactSeconds(myQTTime(1LL, 48000L)), "0.000020834");
    EXPECT_EQ(exactSeconds(myQTTime(-96000LL, 48000L)), "-2.000000000");
}

TEST(PointsText, TextAsUsersWriteIt)
{
    auto p = parsePointsText("# comment\n\n1:02.5 = 1:02.85\n  90.25 90.5  # trailing\r\n-0.5=0\n", 48000);
    ASSERT_EQ(p.size(), 3u);
    EXPECT_EQ(p[0].movieTime.timeValue, 62.5 * 48000);
    EXPECT_EQ(p[0].audioTime.timeValue, 62.85 * 48000);
    EXPECT_EQ(p[1].audioTime.timeValue, 90.5 * 48000);
    EXPECT_EQ(p[2].movieTime.timeValue, -24000);
    struct Bad {
        char const* text;
        int line;
    } bad[] = {{"1=2\nnonsense\n", 2}, {"1=x", 1}, {"\n\n3=", 3}, {"1:2:3:4=5", 1}};
    for (auto const& b : bad) {
        try {
            parsePointsText(b.text, 48000);
            ADD_FAILURE() << "accepted: " << b.text;
        } catch (PointsTextError const& e) {
            EXPECT_EQ(e.line(), b.line) << b.text;
            EXPECT_NE(std::string(e.what()).find("line " + std::to_string(b.line)), std::string::npos) << e.what();
        }
    }
}

// A line of the user's in a message: 40 characters at most, whole UTF-8
// characters only, nothing that steers a terminal.
TEST(PointsText, MessagesQuoteTheTextShortAndSafe)
{
    struct Row {
        std::string text, shown;
    } rows[] = {
        {"1:60=2", "\"1:60=2\""},
        {std::string(40, 'x'), "\"" + std::string(40, 'x') + "\""},
        {std::string(41, 'x'), "\"" + std::string(40, 'x') + "\"... (41 bytes in all)"},
        // "é" is two bytes: 40 of them are shown whole, the 41st is left out.
        {[] { std::string t; for (int i = 0; i < 41; ++i) t += "\xc3\xa9"; return t; }(),
         [] { std::string t = "\""; for (int i = 0; i < 40; ++i) t += "\xc3\xa9"; return t + "\"... (82 bytes in all)"; }()},
        {"a\x1b[2Jb\x07", "\"a?[2Jb?\""},                      // escape and bell
        {std::string("a\0b", 3), "\"a?b\""},                   // a NUL byte
        {"\xc3(\xff\xe2\x82", "\"?(???\""},                  // broken UTF-8: a lead byte without its rest
    };
    for (auto const& r : rows) EXPECT_EQ(quotedForMessage(r.text), r.shown) << r.text;
    try {
        parsePoint(std::string(100000, '7'), 48000);
        ADD_FAILURE() << "a point without a separator was accepted";
    } catch (PointsTextError const& e) {
        EXPECT_LT(std::string(e.what()).size(), 150u) << e.what();
    }
}

} // namespace
