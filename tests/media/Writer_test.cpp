#include "AudioRenderer.h"
#include "Codec.h"
#include "MediaTestSupport.h"
#include "MovieWriter.h"
#include "OffsetList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace media;
using namespace testsupport;

namespace {


TEST(Writer, SaveInPlaceReplacesTheFileAndTheMovieKeepsWorking)
{
    ScratchDir dir;
    auto spec = smallSpec(10, 0.25, 1.0);
    std::string path = dir.file("talk.mov");
    writeFile(path, readFile(cachedMovie("quarter-late.mov", spec)));
    chmod(path.c_str(), 0640);

    OpenedMovie om = openMovie(path);
    OffsetList list(om.movie.get(), nullptr);
    list.replacePoints(markPoints(spec));
    saveInPlace(*om.movie, path);
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{"talk.mov"});
    struct stat st {};
    stat(path.c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_LT(measureSync(path).worst(), 0.001);
    EXPECT_EQ(disabledSoundTracks(path), 1);

    // Edit again and save again: the movie still reads its original sound.
    list.remove(list.getIterator(0));
    while (!list.points().empty()) list.remove(list.getIterator(0));
    saveInPlace(*om.movie, path);
    EXPECT_EQ(disabledSoundTracks(path), 0);
    EXPECT_NEAR(measureSync(path).worst(), 0.25, 0.001);
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{"talk.mov"});
}

TEST(Writer, AStopOrAFailureLeavesNothingBehind)
{
    ScratchDir dir;
    auto spec = smallSpec(10, 0.25, 1.0);
    std::string path = dir.file("talk.mov");
    std::string original = readFile(cachedMovie("quarter-late.mov", spec));
    writeFile(path, original);
    OpenedMovie om = openMovie(path);
    OffsetList list(om.movie.get(), nullptr);
    list.replacePoints(markPoints(spec));

    // Stopped half way, through the progress callback.
    std::vector<Phase> phases;
    auto stopHalfWay = [&](std::string const& op, Phase p, double f) {
        EXPECT_FALSE(op.empty());
        phases.push_back(p);
        return f < 0.5;
    };
    EXPECT_THROW(saveInPlace(*om.movie, path, stopHalfWay), Cancelled);
    EXPECT_EQ(phases.front(), Phase::Begin);
    EXPECT_EQ(phases.back(), Phase::End);
    EXPECT_EQ(readFile(path), original);
    EXPECT_THROW(writeMovie(*om.movie, dir.file("copy.mov"), stopHalfWay), Cancelled);
    EXPECT_THROW(exportMovie(*om.movie, dir.file("copy.mp4"), ExportType::MPEG4, myQTTime(), stopHalfWay), Cancelled);
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{"talk.mov"});

    // A folder that does not exist.
    EXPECT_THROW(writeMovie(*om.movie, dir.file("no/such/folder/x.mov")), MediaError);

    // A full disk: the file size limit makes every write past 64 KB fail.
    struct rlimit old {};
    getrlimit(RLIMIT_FSIZE, &old);
    auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = old;
    small.rlim_cur = 64 * 1024;
    setrlimit(RLIMIT_FSIZE, &small);
    bool threw = false;
    try {
        saveInPlace(*om.movie, path);
    } catch (MediaError const& e) {
        threw = true;
        EXPECT_FALSE(std::string(e.what()).empty());
    }
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);
    EXPECT_TRUE(threw);
    EXPECT_EQ(readFile(path), original);
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{"talk.mov"});

    // A folder we may not write in (root may write anywhere).
    if (geteuid() != 0) {
        chmod(dir.path().c_str(), 0555);
        EXPECT_THROW(saveInPlace(*om.movie, path), MediaError);
        chmod(dir.path().c_str(), 0755);
        EXPECT_EQ(readFile(path), original);
    }
}

// Mean brightness of each frame of the first enabled video track.
std::vector<double> frameBrightness(std::string const& path)
{
    OpenedMovie om = openMovie(path);
    dm::TrackPtr video;
    for (auto const& t : om.movie->tracksOfMediaType(dm::MediaType::Video))
        if (t->isEnabled()) video = t;
    if (!video) return {};
    VideoDecoder dec(std::static_pointer_cast<const FileMedia>(video->media()));
    Frame f = makeFrame();
    Scaler gray;
    std::vector<double> out;
    while (dec.next(f.get())) {
        AVFrame* g = gray.convert(f.get(), 32, 24, AV_PIX_FMT_GRAY8);
        double sum = 0;
        for (int y = 0; y < 24; ++y)
            for (int x = 0; x < 32; ++x) sum += g->data[0][y * g->linesize[0] + x];
        out.push_back(sum / (32 * 24));
        av_frame_unref(f.get());
    }
    return out;
}

TEST(Writer, EveryExportTypeWritesWhatFFmpegReads)
{
    ScratchDir dir;
    auto spec = smallSpec(8, 0.2, 1.0);
    std::string source = cachedMovie("fifth-late.mov", spec);
    OpenedMovie om = openMovie(source);
    OffsetList list(om.movie.get(), nullptr);
    list.replacePoints(markPoints(spec));

    for (auto const& format : exportFormats()) {
        SCOPED_TRACE(format.title);
        std::string path = dir.file(std::string("export.") + format.extension);
        int updates = 0;
        WriteResult r = exportMovie(*om.movie, path, format.type, myQTTime(2.0, 600), [&](std::string const&, Phase p, double) {
            updates += p == Phase::Update;
            return true;
        });
        EXPECT_GT(r.bytes, 0);
        OpenedMovie back = openMovie(path);
        auto sounds = back.movie->tracksOfMediaType(dm::MediaType::Sound);
        auto videos = back.movie->tracksOfMediaType(dm::MediaType::Video);
        auto codecOf = [](dm::TrackPtr const& t) { return OpenedMovie::mediaOf(*t).codecpar->codec_id; };
        switch (format.type) {
        case ExportType::AIFF:
            ASSERT_EQ(sounds.size(), 1u);
            EXPECT_TRUE(videos.empty());
            EXPECT_EQ(codecOf(sounds[0]), AV_CODEC_ID_PCM_S16BE);
            break;
        case ExportType::BMP: {
            ASSERT_EQ(videos.size(), 1u);
            EXPECT_EQ(codecOf(videos[0]), AV_CODEC_ID_BMP);
            auto b = frameBrightness(path);
            ASSERT_EQ(b.size(), 1u);
            EXPECT_GT(b[0], 200); // 2.0 s is a flash
            break;
        }
        case ExportType::DV: {
            ASSERT_EQ(videos.size(), 1u);
            EXPECT_EQ(codecOf(videos[0]), AV_CODEC_ID_DVVIDEO);
            EXPECT_EQ(OpenedMovie::mediaOf(*videos[0]).width, 720);
            EXPECT_EQ(OpenedMovie::mediaOf(*videos[0]).height, 576);
            ASSERT_EQ(sounds.size(), 1u);
            EXPECT_EQ(OpenedMovie::mediaOf(*sounds[0]).sampleRate, 48000);
            EXPECT_LT(measureSync(path).worst(), 0.001);
            break;
        }
        case ExportType::FLC: {
            ASSERT_EQ(videos.size(), 1u);
            EXPECT_EQ(codecOf(videos[0]), AV_CODEC_ID_FLIC);
            auto b = frameBrightness(path);
            auto src = frameBrightness(source);
            ASSERT_EQ(b.size(), src.size());
            for (std::size_t i = 0; i < b.size(); ++i) {
                EXPECT_NEAR(b[i], src[i], 12) << "frame " << i;
                EXPECT_EQ(b[i] > 200, src[i] > 200) << "flash at frame " << i;
            }
            break;
        }
        case ExportType::MPEG4:
            ASSERT_EQ(sounds.size(), 1u); // the backup is not part of an export
            EXPECT_EQ(codecOf(sounds[0]), AV_CODEC_ID_AAC);
            EXPECT_EQ(codecOf(videos.at(0)), AV_CODEC_ID_H264);
            EXPECT_LT(measureSync(path).worst(), 0.001);
            break;
        case ExportType::QuickTime:
        case ExportType::QuickTimeWeb: {
            EXPECT_EQ(sounds.size(), 2u);
            EXPECT_LT(measureSync(path).worst(), 0.001);
            std::string bytes = readFile(path);
            bool indexFirst = bytes.find("moov") < bytes.find("mdat");
            EXPECT_EQ(indexFirst, format.type == ExportType::QuickTimeWeb);
            break;
        }
        }
        if (format.type != ExportType::BMP) {
            EXPECT_GT(updates, 0);
        }
    }
    EXPECT_EQ(exportTypeNamed("dvc!"), ExportType::DV);
    EXPECT_EQ(exportTypeNamed("FLC"), ExportType::FLC);
    EXPECT_EQ(exportTypeNamed("mp4"), ExportType::MPEG4);
    EXPECT_THROW(exportTypeNamed("gif"), MediaError);
    EXPECT_EQ(static_cast<std::uint32_t>(ExportType::QuickTime), 0x4D6F6F56u);
}

} // namespace

namespace {

// Channel 0 of the enabled sound track of a file, decoded as players do.
std::vector<float> decodedSound(std::string const& path)
{
    OpenedMovie om = openMovie(path);
    for (auto const& t : om.movie->tracks()) {
        if (t->mediaType() != dm::MediaType::Sound || !t->isEnabled()) continue;
        auto m = std::static_pointer_cast<const FileMedia>(t->media());
        AudioDecoder decoder(m);
        PcmBuffer buf(decoder.channels(), static_cast<std::size_t>(m->length));
        std::vector<float*> ptrs;
        for (auto& c : buf.channels) ptrs.push_back(c.data());
        decoder.read(0, static_cast<int>(m->length), ptrs.data());
        return buf.channels[0];
    }
    return {};
}

// The re-timed sound of a synced movie saved with `codec` and `threads`.
std::vector<float> savedSound(std::string const& source, media::TestMovieSpec const& spec, std::string const& out, SoundCodec codec,
                              EncoderThreads threads)
{
    OpenedMovie om = openMovie(source);
    OffsetList list(om.movie.get(), nullptr);
    list.replacePoints(markPoints(spec));
    SaveOptions options;
    options.soundCodec = codec;
    options.soundThreads = threads;
    writeMovie(*om.movie, out, {}, options);
    return decodedSound(out);
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

} // namespace

// The sound encoded in chunks on several threads, each chunk's encoder
// started a few frames early, decodes like the sound encoded by one
// encoder: at every splice between chunks the error against the re-timed
// sound (saved as PCM) is no larger than at the other frame boundaries.
struct SpliceCase {
    char const* name;
    char const* sourceCodec; // of the movie's sound, kept by the save
    int frame;               // the encoder's frame size
    int chunk;               // frames in a chunk
    bool exact;              // chunks decode exactly as one encoder's output (no state across frames)
};

class ChunkedSplices : public ::testing::TestWithParam<SpliceCase> {};

TEST_P(ChunkedSplices, AreInaudible)
{
    ScratchDir dir;
    SpliceCase const& param = GetParam();
    auto spec = smallSpec(24, 0.25, 1.0 / 1.004);
    spec.music = true;
    spec.audioCodec = param.sourceCodec;
    spec.audioBitRate = 192000;
    std::string source = cachedMovie(std::string("music-stretched-") + param.name + ".mov", spec);
    int const kFrame = param.frame, kChunk = param.chunk; // a splice every 1 to 1.4 s
    std::size_t const frame = static_cast<std::size_t>(kFrame);
    SoundCodec const same = SoundCodec::Same;
    std::vector<float> ref = savedSound(source, spec, dir.file("pcm.mov"), SoundCodec::Pcm, {1, 0});
    std::vector<float> seq = savedSound(source, spec, dir.file("seq.mov"), same, {1, 0});
    std::vector<float> chk = savedSound(source, spec, dir.file("chunked.mov"), same, {2, kChunk});
    ASSERT_GT(ref.size(), 20u * 48000);
    ASSERT_EQ(seq.size(), chk.size()); // the same priming, length and time stamps
    if (param.exact) {
        EXPECT_TRUE(seq == chk);
    }
    ASSERT_NEAR(static_cast<double>(seq.size()), static_cast<double>(ref.size()), 2 * kFrame);

    // Around each frame boundary (a frame either side): the signal-to-error
    // ratio against the PCM sound, and the largest error (a click).
    struct Window {
        double snr, peak;
    };
    auto window = [&](std::vector<float> const& x, std::size_t boundary) {
        double signal = 0, error = 0, peak = 0;
        for (std::size_t i = boundary - frame; i < boundary + frame; ++i) {
            double e = static_cast<double>(x[i]) - ref[i];
            signal += static_cast<double>(ref[i]) * ref[i];
            error += e * e;
            peak = std::max(peak, std::fabs(e));
        }
        return Window{10 * std::log10(signal / std::max(error, 1e-20)), peak};
    };
    std::vector<double> spliceSnr, ordinarySnr, seqSnr;
    // The same, as a difference from one encoder's at the same boundary
    // (which takes the signal's own ups and downs out).
    std::vector<double> spliceDelta, ordinaryDelta;
    double splicePeak = 0, ordinaryPeak = 0, worstSplice = 1e9;
    std::size_t frames = std::min(ref.size(), chk.size()) / frame;
    for (std::size_t j = 2; j + 2 < frames; ++j) {
        Window c = window(chk, j * frame), s = window(seq, j * frame);
        seqSnr.push_back(s.snr);
        ordinaryPeak = std::max(ordinaryPeak, s.peak);
        if (j % kChunk == 0) {
            spliceSnr.push_back(c.snr);
            spliceDelta.push_back(c.snr - s.snr);
            splicePeak = std::max(splicePeak, c.peak);
            worstSplice = std::min(worstSplice, c.snr);
        } else {
            ordinarySnr.push_back(c.snr);
            ordinaryDelta.push_back(c.snr - s.snr);
            ordinaryPeak = std::max(ordinaryPeak, c.peak);
        }
    }
    std::vector<double> sorted = ordinarySnr;
    std::sort(sorted.begin(), sorted.end());
    double lowOrdinary = sorted[sorted.size() / 20]; // the 5th percentile
    std::printf("[ splices ] %s, %zu splices: SNR median %.2f dB, worst %.2f dB, peak error %.5f; other frame boundaries: "
                "median %.2f dB, 5th percentile %.2f dB, worst %.2f dB, peak error %.5f; one encoder: median %.2f dB; "
                "against one encoder at the same boundary: splices %+.2f dB, elsewhere %+.2f dB (medians)\n",
                param.name, spliceSnr.size(), median(spliceSnr), worstSplice, splicePeak, median(ordinarySnr), lowOrdinary, sorted.front(),
                ordinaryPeak, median(seqSnr), median(spliceDelta), median(ordinaryDelta));
    ASSERT_GT(spliceSnr.size(), 12u);
    EXPECT_GT(median(ordinarySnr), 15.0); // the codec at work: the comparison means something
    // A splice falls where a chunk's encoder has had only its pre-roll to
    // settle: within the codec's ordinary spread, a little below its median.
    EXPECT_GE(median(spliceSnr), median(ordinarySnr) - 2.0);
    EXPECT_GE(worstSplice, lowOrdinary - 3.0);
    // Chunks here are a sixteenth of a save's, so most frames lie in the
    // settling that follows a pre-roll; a save's chunks lose less.
    EXPECT_GE(median(ordinarySnr), median(seqSnr) - 2.0);
    EXPECT_LE(splicePeak, ordinaryPeak); // no click
    EXPECT_GE(median(spliceDelta), median(ordinaryDelta) - 1.5);
}

INSTANTIATE_TEST_SUITE_P(Writer, ChunkedSplices, ::testing::Values(SpliceCase{"aac", "aac", 1024, 64, false},
                                                                       SpliceCase{"ac3", "ac3", 1536, 32, true},
                                                                       SpliceCase{"eac3", "eac3", 1536, 32, true}),
                         [](auto const& info) { return std::string(info.param.name); });

// Lossless codecs chunk exactly: the decoded sound is the PCM save's.
TEST(Writer, ChunkedLosslessEncodingIsExact)
{
    ScratchDir dir;
    auto spec = smallSpec(24, 0.25, 1.0 / 1.004);
    spec.music = true;
    std::string source = cachedMovie("music-stretched.mov", spec);
    std::vector<float> ref = savedSound(source, spec, dir.file("pcm.mov"), SoundCodec::Pcm, {1, 0});
    std::vector<float> pcm = savedSound(source, spec, dir.file("pcm-chunked.mov"), SoundCodec::Pcm, {2, 16});
    std::vector<float> alac = savedSound(source, spec, dir.file("alac-chunked.mov"), SoundCodec::Alac, {2, 4});
    ASSERT_GT(ref.size(), 20u * 48000);
    EXPECT_TRUE(ref == pcm);
    EXPECT_TRUE(ref == alac);
}
