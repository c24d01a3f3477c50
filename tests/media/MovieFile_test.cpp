#include "Codec.h"
#include "MediaTestSupport.h"
#include "MovieFile.h"
#include "Refusal.h"

extern "C" {
#include <libavutil/crc.h>
#include <libavutil/imgutils.h>
}

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <tuple>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

using namespace media;
using namespace testsupport;

namespace {

std::string refusalFor(std::string const& path)
{
    OpenedMovie om = openMovie(path);
    try {
        makeOffsetList(om.movie.get(), nullptr);
    } catch (Refused const& r) {
        return r.what();
    }
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
    EXPECT_EQ(makeOffsetList(om.movie.get(), nullptr)->soundTrack(), tracks[1]);
}

// Phones store an upright picture sideways and say how to turn it; DVDs and
// broadcasts store wide pictures in narrow pixels. The picture's shown size
// follows both.
TEST(MovieFile, ThePictureIsShownTurnedAndInItsPixelsShape)
{
    struct Case {
        char const* name;
        int rotation, sarNum, sarDen, shownW, shownH;
    };
    for (auto c : {Case{"turned-90.mp4", 90, 1, 1, 240, 320}, Case{"turned-180.mp4", 180, 1, 1, 320, 240},
                   Case{"turned-270.mp4", 270, 1, 1, 240, 320}, Case{"wide-pixels.mp4", 0, 64, 45, 455, 240},
                   Case{"tall-pixels-turned.mp4", 90, 8, 9, 270, 320}}) {
        SCOPED_TRACE(c.name);
        auto spec = smallSpec(2, 0, 1.0);
        spec.format = "mp4";
        spec.rotation = c.rotation;
        spec.pixelAspectNum = c.sarNum;
        spec.pixelAspectDen = c.sarDen;
        OpenedMovie om = openMovie(cachedMovie(c.name, spec));
        auto const& m = OpenedMovie::mediaOf(*om.movie->tracks().at(0));
        EXPECT_EQ(m.width, 320);
        EXPECT_EQ(m.height, 240);
        EXPECT_EQ(m.rotation, c.rotation);
        EXPECT_EQ(m.displaySize(), (std::pair{c.shownW, c.shownH}));
    }
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
        } catch (Refused const&) {
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

// A demuxer for one track reads that track exactly as a demuxer of the
// whole file does; in QuickTime and MPEG-4 files it sees that track alone.
TEST(MovieFile, OneTrackViewsReadWhatTheWholeFileGives)
{
    ScratchDir dir;
    auto rich = smallSpec(6, 0.2, 1.0);
    rich.extraSoundTracks = 1;
    rich.chapters = 2;
    rich.timecode = "01:00:00:00";
    auto late = smallSpec(6, 0.2, 1.0);
    late.format = "mp4";
    late.startTime = 1.4;
    auto mkv = smallSpec(6, 0.2, 1.0);
    mkv.format = "matroska";
    mkv.extraSoundTracks = 1;
    struct Case {
        std::string path;
        bool view; // the demuxer sees the one track
    };
    std::vector<Case> cases = {
        {cachedMovie("view-rich.mov", rich), true},
        {cachedMovie("view-late.mp4", late), true},
        {cachedMovie("view-two.mkv", mkv), false},
    };
    if (std::system("command -v ffmpeg >/dev/null 2>&1") == 0) {
        // Fragmented and with the movie header first: as other tools write them.
        std::string frag = dir.file("fragmented.mp4"), fast = dir.file("faststart.mp4");
        std::string base = "ffmpeg -nostdin -y -v error -i '" + cases[0].path + "' -map 0:v -map 0:a -c copy ";
        ASSERT_EQ(std::system((base + "-movflags +frag_keyframe+empty_moov '" + frag + "'").c_str()), 0);
        ASSERT_EQ(std::system((base + "-movflags +faststart '" + fast + "'").c_str()), 0);
        cases.push_back({frag, false});
        cases.push_back({fast, true});
    }
    for (auto const& c : cases) {
        auto file = SourceFile::open(c.path);
        auto probe = file->openInput(false);
        unsigned streams = probe.format->nb_streams;
        ASSERT_GE(streams, 2u) << c.path;
        for (int s = 0; s < static_cast<int>(streams); ++s) {
            // Decoders read pictures and sound (a timecode track is read with the header).
            auto type = probe.format->streams[s]->codecpar->codec_type;
            if (type != AVMEDIA_TYPE_AUDIO && type != AVMEDIA_TYPE_VIDEO) continue;
            SCOPED_TRACE(c.path + " stream " + std::to_string(s));
            auto whole = file->openInput(false);
            int at = -1;
            auto one = file->openStream(s, at);
            if (c.view) {
                EXPECT_EQ(one.format->nb_streams, 1u);
                EXPECT_EQ(at, 0);
            } else {
                EXPECT_EQ(one.format->nb_streams, streams);
                EXPECT_EQ(at, s);
            }
            StreamRead expected = readStream(whole, s);
            EXPECT_FALSE(expected.packets.empty());
            EXPECT_TRUE(readStream(one, at) == expected);
        }
    }

    // A damaged box structure: the view is not used, and the file opens
    // (or is refused) as it would whole.
    std::string bytes = readFile(cases[0].path);
    std::size_t trak = bytes.find("trak");
    ASSERT_NE(trak, std::string::npos);
    for (std::uint32_t size : {0xfffffff0u, 4u}) {
        std::string damaged = bytes;
        for (int i = 0; i < 4; ++i) damaged[trak - 4 + static_cast<std::size_t>(i)] = static_cast<char>(size >> (24 - 8 * i));
        std::string path = dir.file("damaged-" + std::to_string(size) + ".mov");
        writeFile(path, damaged);
        auto file = SourceFile::open(path);
        int wholeStreams = -1, viewStreams = -2, at = -1;
        try {
            wholeStreams = static_cast<int>(file->openInput(false).format->nb_streams);
        } catch (MediaError const&) {
        }
        try {
            viewStreams = static_cast<int>(file->openStream(1, at).format->nb_streams);
        } catch (MediaError const&) {
            viewStreams = -1;
        }
        EXPECT_EQ(viewStreams, wholeStreams) << size;
        if (viewStreams >= 0) {
            EXPECT_EQ(at, 1);
        }
    }
}

// Pictures scaled for the view and for analysis, at sizes whose rows are
// no whole number of swscale's blocks (a 360x288 MPEG-PS picture): nothing is
// written past the buffer the caller gives, with rows as tight as the
// picture or laid out by scalerBuffer, and both give the same pixels.
TEST(Scaler, WritesOnlyIntoTheBufferItIsGiven)
{
    for (auto [sw, sh, w, h, fmt] : {std::tuple{360, 288, 360, 288, AV_PIX_FMT_RGB32}, std::tuple{360, 288, 542, 434, AV_PIX_FMT_RGB32},
                                     std::tuple{352, 240, 97, 61, AV_PIX_FMT_GRAY8}, std::tuple{176, 144, 250, 202, AV_PIX_FMT_RGB32}}) {
        SCOPED_TRACE(std::to_string(sw) + "x" + std::to_string(sh) + " to " + std::to_string(w) + "x" + std::to_string(h));
        Frame src = makeFrame();
        src->width = sw;
        src->height = sh;
        src->format = AV_PIX_FMT_YUV420P;
        ASSERT_GE(av_frame_get_buffer(src.get(), 0), 0);
        for (int p = 0; p < 3; ++p)
            for (int y = 0; y < (p ? sh / 2 : sh); ++y)
                for (int x = 0; x < (p ? sw / 2 : sw); ++x) src->data[p][y * src->linesize[p] + x] = static_cast<std::uint8_t>(x * 7 + y * 3 + p * 50);
        int row = av_image_get_linesize(fmt, w, 0);
        constexpr std::size_t kGuard = 512;
        constexpr std::uint8_t kMark = 0xA5;
        // Tight rows, the buffer exactly the picture's size.
        std::vector<std::uint8_t> tight(static_cast<std::size_t>(row) * h + kGuard, kMark);
        Scaler a;
        a.convertInto(src.get(), w, h, fmt, tight.data(), row, static_cast<std::size_t>(row) * h, SWS_BICUBIC);
        for (std::size_t i = static_cast<std::size_t>(row) * h; i < tight.size(); ++i) ASSERT_EQ(tight[i], kMark) << "written " << i - static_cast<std::size_t>(row) * h << " bytes past the end";
        // Rows laid out for writing in place.
        ScalerBuffer room = scalerBuffer(row, h);
        std::vector<std::uint8_t> padded(room.bytes + kGuard, kMark);
        Scaler b;
        b.convertInto(src.get(), w, h, fmt, padded.data(), room.stride, room.bytes, SWS_BICUBIC);
        for (std::size_t i = room.bytes; i < padded.size(); ++i) ASSERT_EQ(padded[i], kMark);
        for (int y = 0; y < h; ++y)
            ASSERT_EQ(std::memcmp(tight.data() + static_cast<std::size_t>(y) * row, padded.data() + static_cast<std::size_t>(y) * room.stride, row), 0) << "row " << y;
        // A buffer too small for the picture is refused, not overrun.
        EXPECT_THROW(a.convertInto(src.get(), w, h, fmt, tight.data(), row, static_cast<std::size_t>(row) * (h - 1), SWS_BICUBIC), MediaError);
    }
}

// Quarter and half turns of a picture: each corner goes where it is shown,
// pixels of several bytes stay whole, and four quarter turns give the
// picture back.
TEST(TurnPicture, TurnsByQuartersCornerToCorner)
{
    // 3 x 2 pixels of 2 bytes: (x, y) holds {10 x + y, 100 + 10 x + y}.
    constexpr int w = 3, h = 2, px = 2;
    std::vector<std::uint8_t> picture(w * h * px);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            picture[static_cast<std::size_t>((y * w + x) * px)] = static_cast<std::uint8_t>(10 * x + y);
            picture[static_cast<std::size_t>((y * w + x) * px + 1)] = static_cast<std::uint8_t>(100 + 10 * x + y);
        }
    auto at = [](std::vector<std::uint8_t> const& p, int stride, int x, int y) {
        return std::pair{p[static_cast<std::size_t>(y * stride + x * px)], p[static_cast<std::size_t>(y * stride + x * px + 1)]};
    };
    auto turned = [&](std::vector<std::uint8_t> const& src, int sw, int sh, int degrees) {
        std::vector<std::uint8_t> out(src.size() + 8, 0xEE); // wider rows than needed: the stride is honoured
        int dw = degrees % 180 ? sh : sw;
        turnPicture(src.data(), sw * px, sw, sh, px, degrees, out.data(), dw * px + 1);
        return out;
    };
    // Clockwise by 90: the top-left corner goes to the top right.
    auto q = turned(picture, w, h, 90);
    int qs = h * px + 1;
    EXPECT_EQ(at(q, qs, 1, 0), (std::pair<std::uint8_t, std::uint8_t>{0, 100}));
    EXPECT_EQ(at(q, qs, 0, 0), (std::pair<std::uint8_t, std::uint8_t>{1, 101}));  // bottom left
    EXPECT_EQ(at(q, qs, 1, 2), (std::pair<std::uint8_t, std::uint8_t>{20, 120})); // the top right to the bottom right
    auto half = turned(picture, w, h, 180);
    EXPECT_EQ(at(half, w * px + 1, 0, 0), (std::pair<std::uint8_t, std::uint8_t>{21, 121}));
    auto three = turned(picture, w, h, 270);
    EXPECT_EQ(at(three, qs, 0, 2), (std::pair<std::uint8_t, std::uint8_t>{0, 100}));
    EXPECT_EQ(at(three, qs, 0, 0), (std::pair<std::uint8_t, std::uint8_t>{20, 120}));
    // Four quarter turns, through tight copies.
    std::vector<std::uint8_t> round = picture;
    int rw = w, rh = h;
    for (int k = 0; k < 4; ++k) {
        std::vector<std::uint8_t> next(round.size());
        turnPicture(round.data(), rw * px, rw, rh, px, 90, next.data(), rh * px);
        std::swap(rw, rh);
        round = next;
    }
    EXPECT_EQ(round, picture);
    std::vector<std::uint8_t> sink(picture.size());
    EXPECT_THROW(turnPicture(picture.data(), w * px, w, h, px, 45, sink.data(), w * px), MediaError);
}

} // namespace
