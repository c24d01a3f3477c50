#include "MediaTestSupport.h"
#include "MovieFile.h"
#include "Refusal.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace media;
using namespace testsupport;

namespace {

std::string refusalFor(std::string const& path)
{
    OpenedMovie om = openMovie(path);
    auto made = makeOffsetList(om.movie.get(), nullptr);
    if (auto* r = std::get_if<Refusal>(&made)) return r->message;
    return "";
}

TEST(MovieFile, OpensTracksWithTheirFlagsNamesAndTimes)
{
    auto spec = smallSpec(6, 0.2, 1.0);
    spec.extraSoundTracks = 1;
    std::string path = cachedMovie("two-sounds-one-enabled.mov", spec);
    OpenedMovie om = openMovie(path);
    auto const& tracks = om.movie->tracks();
    ASSERT_EQ(tracks.size(), 3u);
    EXPECT_EQ(tracks[0]->mediaType(), dm::MediaType::Video);
    EXPECT_EQ(tracks[1]->mediaType(), dm::MediaType::Sound);
    EXPECT_EQ(tracks[2]->mediaType(), dm::MediaType::Sound);
    EXPECT_TRUE(tracks[0]->isEnabled());
    EXPECT_TRUE(tracks[1]->isEnabled());
    EXPECT_FALSE(tracks[2]->isEnabled());
    EXPECT_EQ(tracks[1]->displayName(), "Sound");
    EXPECT_EQ(tracks[2]->displayName(), "Sound 2");
    // A sound track counts samples: its scale is its rate, its range exact.
    EXPECT_EQ(tracks[1]->timeScale(), 48000);
    EXPECT_EQ(tracks[1]->range().duration.timeValue, 6 * 48000);
    EXPECT_EQ(tracks[1]->range().time.timeValue, 0);
    EXPECT_NEAR(om.movie->duration().seconds(), 6.0, 0.05);
    auto const& m = OpenedMovie::mediaOf(*tracks[0]);
    EXPECT_EQ(m.width, 320);
    EXPECT_EQ(m.height, 240);

    // Accepted: the enabled one is chosen.
    auto made = makeOffsetList(om.movie.get(), nullptr);
    ASSERT_TRUE(std::holds_alternative<std::unique_ptr<OffsetList>>(made));
    EXPECT_EQ(std::get<std::unique_ptr<OffsetList>>(made)->soundTrack(), tracks[1]);
}

TEST(MovieFile, RefusalsOnRealFiles)
{
    auto silent = smallSpec(4, 0, 1);
    silent.withSound = false;
    EXPECT_EQ(refusalFor(cachedMovie("silent.mov", silent)), "There are no sound tracks in the movie.");

    auto two = smallSpec(4, 0, 1);
    two.extraSoundTracks = 1;
    two.extraSoundEnabled = true;
    EXPECT_EQ(refusalFor(cachedMovie("two-enabled.mov", two)), "There is more than one sound track in the movie.");

    // Matroska flags tracks by "default" too; its sound is accepted.
    auto mkv = smallSpec(4, 0, 1);
    mkv.format = "matroska";
    mkv.extraSoundTracks = 1;
    EXPECT_EQ(refusalFor(cachedMovie("one-of-two.mkv", mkv)), "");
}

TEST(MovieFile, BadInputIsRefusedWithAMessage)
{
    ScratchDir dir;
    std::string good = readFile(cachedMovie("plain.mov", smallSpec(4, 0, 1)));
    struct Case {
        std::string name;
        std::string bytes;
    };
    std::string corrupt = good;
    for (std::size_t i = 0; i < corrupt.size(); i += 7) corrupt[i] = static_cast<char>(corrupt[i] ^ 0x5a);
    std::vector<Case> cases = {
        {"empty.mov", ""},
        {"text.mov", "This is not a movie at all, just words.\n"},
        {"truncated.mov", good.substr(0, good.size() / 3)},
        {"corrupt.mov", corrupt},
    };
    for (auto const& c : cases) {
        std::string path = dir.file(c.name);
        writeFile(path, c.bytes);
        if (c.name == "text.mov" || c.name == "empty.mov") {
            EXPECT_FALSE(canOpenMovie(path)) << c.name;
        }
        try {
            OpenedMovie om = openMovie(path);
            // Some damage still opens: then the model must stay usable.
            (void)makeOffsetList(om.movie.get(), nullptr);
        } catch (MediaError const& e) {
            EXPECT_NE(std::string(e.what()).find(c.name), std::string::npos) << e.what();
        }
    }
    EXPECT_THROW(openMovie(dir.file("missing.mov")), MediaError);
    EXPECT_FALSE(canOpenMovie(dir.file("missing.mov")));
    EXPECT_THROW(openMovie(dir.path()), MediaError); // a folder
    EXPECT_TRUE(canOpenMovie(cachedMovie("plain.mov", smallSpec(4, 0, 1))));
    EXPECT_FALSE(canOpenMovie(dir.file("empty.mov")));

    std::string locked = dir.file("locked.mov");
    writeFile(locked, good);
    chmod(locked.c_str(), 0);
    if (geteuid() != 0) {
        EXPECT_THROW(openMovie(locked), MediaError);
        EXPECT_FALSE(canOpenMovie(locked));
    }
}

} // namespace
