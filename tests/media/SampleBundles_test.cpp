#include "MediaTestSupport.h"
#include "MovieWriter.h"
#include "SaveCheck.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>

using namespace media;
using namespace testsupport;

namespace {

// Every stream of the file at `path` as a demuxer gives it; with
// `asTables`, the sample tables as written (no edit lists applied).
std::vector<StreamRead> readAll(std::string const& path, bool asTables)
{
    auto file = SourceFile::open(path);
    std::vector<StreamRead> out;
    for (int s = 0;; ++s) {
        AVDictionary* options = nullptr;
        if (asTables) av_dict_set(&options, "ignore_editlist", "1", 0);
        auto in = file->openInput(false, &options);
        av_dict_free(&options);
        if (s >= static_cast<int>(in.format->nb_streams)) break;
        out.push_back(readStream(in, s));
    }
    return out;
}

// The same synced save with the sound handed to the muxer frame by frame
// and in bundles.
void expectSameFile(std::string const& source, TestMovieSpec const& spec, std::string const& dir, std::string const& extension)
{
    OpenedMovie om = openMovie(source);
    OffsetList list(om.movie.get(), nullptr);
    list.replacePoints(markPoints(spec));
    SaveOptions options;
    options.bundleSound = false;
    std::string single = dir + "/single." + extension, bundled = dir + "/bundled." + extension;
    writeMovie(*om.movie, single, {}, options);
    options.bundleSound = true;
    writeMovie(*om.movie, bundled, {}, options);
    for (bool asTables : {false, true}) {
        SCOPED_TRACE(asTables ? "sample tables" : "edit lists applied");
        auto a = readAll(single, asTables), b = readAll(bundled, asTables);
        ASSERT_EQ(a.size(), b.size());
        int sound = 0;
        for (std::size_t s = 0; s < a.size(); ++s) {
            SCOPED_TRACE("stream " + std::to_string(s));
            bool media = avcodec_get_type(static_cast<AVCodecID>(a[s].codec)) != AVMEDIA_TYPE_DATA; // not the chapter track
            EXPECT_TRUE(!media || !a[s].packets.empty());
            EXPECT_TRUE(a[s] == b[s]);
            sound += a[s].codec == AV_CODEC_ID_AAC;
        }
        EXPECT_EQ(sound, 2); // the re-timed sound and its backup
    }
    // The movie's and every stream's duration and start, as players see them.
    auto fa = SourceFile::open(single), fb = SourceFile::open(bundled);
    auto ia = fa->openInput(true), ib = fb->openInput(true);
    EXPECT_EQ(ia.format->duration, ib.format->duration);
    for (unsigned s = 0; s < ia.format->nb_streams; ++s) {
        EXPECT_EQ(ia.format->streams[s]->duration, ib.format->streams[s]->duration) << s;
        EXPECT_EQ(ia.format->streams[s]->start_time, ib.format->streams[s]->start_time) << s;
        EXPECT_EQ(ia.format->streams[s]->nb_frames, ib.format->streams[s]->nb_frames) << s;
    }
}

} // namespace

// A synced QuickTime or MPEG-4 movie whose sound went to the muxer in
// bundles reads back frame for frame, with the same times, edit lists and
// durations, as one whose every frame went alone: with chapters and a
// timecode track (both made again by the muxer, nothing left out), starting
// late, and with a jump in the sound's time stamps (a bundle never spans it).
TEST(SampleBundles, TheFileReadsFrameForFrameAsUnbundled)
{
    ScratchDir dir;
    auto rich = smallSpec(12, 0.25, 1.0 / 1.004);
    rich.chapters = 2;
    rich.timecode = "01:00:00:00";
    auto late = smallSpec(12, 0.25, 1.0 / 1.004);
    late.format = "mp4";
    late.startTime = 1.4;
    auto jump = smallSpec(12, 0.25, 1.0 / 1.004);
    jump.timestampJumpAt = 5.0;
    jump.timestampJump = 0.5;
    struct Case {
        std::string name, extension;
        TestMovieSpec spec;
    };
    for (auto const& c : {Case{"bundles-rich.mov", "mov", rich}, Case{"bundles-late.mp4", "mp4", late},
                          Case{"bundles-jump.mov", "mov", jump}}) {
        SCOPED_TRACE(c.name);
        ScratchDir out;
        expectSameFile(cachedMovie(c.name, c.spec), c.spec, out.path(), c.extension);
    }
}

// The bundler itself: consecutive frames go in bundles, a frame with side
// data or out of line goes alone, and the header then lists every frame.
TEST(SampleBundles, BundlesOnlyConsecutivePlainFrames)
{
    ScratchDir dir;
    std::string source = cachedMovie("bundles-plain.mov", smallSpec(6, 0.0, 1.0));
    auto file = SourceFile::open(source);
    auto in = file->openInput(false);
    int sound = av_find_best_stream(in.format.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    ASSERT_GE(sound, 0);
    AVStream* inSt = in.format->streams[sound];

    std::string path = dir.file("sound.mov");
    std::vector<std::int64_t> sizes;
    {
        AtomicFile target(path, AtomicFile::Kind::NewOrReplace);
        MovieOutput output(target);
        AVFormatContext* raw = nullptr;
        ASSERT_GE(avformat_alloc_output_context2(&raw, nullptr, "mov", output.url().c_str()), 0);
        OutputContext out(raw);
        AVStream* st = avformat_new_stream(out.get(), nullptr);
        ASSERT_GE(avcodec_parameters_copy(st->codecpar, inSt->codecpar), 0);
        st->codecpar->codec_tag = 0;
        st->time_base = inSt->time_base;
        output.attach(out.get());
        output.bundleSound(out.get());
        ASSERT_GE(avformat_write_header(out.get(), nullptr), 0);
        Packet pkt = makePacket();
        int n = 0;
        while (av_read_frame(in.format.get(), pkt.get()) >= 0) {
            if (pkt->stream_index != sound) {
                av_packet_unref(pkt.get());
                continue;
            }
            av_packet_free_side_data(pkt.get()); // the priming's skip, read from the edit list...
            pkt->flags = AV_PKT_FLAG_KEY;         // ...and its discard flag
            pkt->stream_index = 0;
            pkt->pos = -1;
            av_packet_rescale_ts(pkt.get(), inSt->time_base, st->time_base);
            ++n;
            if (n == 40) { // side data: alone
                std::uint8_t* side = av_packet_new_side_data(pkt.get(), AV_PKT_DATA_SKIP_SAMPLES, 10);
                ASSERT_TRUE(side);
                std::fill(side, side + 10, std::uint8_t{0});
            }
            if (n >= 100) { // a jump: a new bundle starts after it
                pkt->pts += 4800;
                pkt->dts += 4800;
            }
            sizes.push_back(pkt->size);
            ASSERT_GE(writePacket(out.get(), pkt.get()), 0);
        }
        output.finish(out.get(), output.writeTrailer(out.get()));
        EXPECT_EQ(output.bundler().framesBundled(), static_cast<std::int64_t>(sizes.size()));
        // 39 in bundles, 1 alone, 59 and the rest in bundles of 16 at most.
        std::int64_t frames = static_cast<std::int64_t>(sizes.size());
        std::int64_t expected = (39 + 15) / 16 + 1 + (59 + 15) / 16 + (frames - 99 + 15) / 16;
        EXPECT_EQ(output.bundler().bundlesWritten(), expected);
        target.commit();
    }
    auto written = SourceFile::open(path);
    auto back = written->openInput(false);
    StreamRead r = readStream(back, 0);
    ASSERT_EQ(r.packets.size(), sizes.size());
    for (std::size_t i = 1; i < r.packets.size(); ++i) {
        std::int64_t step = std::get<1>(r.packets[i]) - std::get<1>(r.packets[i - 1]);
        EXPECT_EQ(step, i == 99 ? 1024 + 4800 : 1024) << i; // the jump stays where it was
    }
}
