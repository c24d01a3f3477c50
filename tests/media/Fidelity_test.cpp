// Saves of movies such as other tools make them: each is synced with
// dubmatch-cli and the output is compared with the input stream by stream.
#include "FFmpeg.h"
#include "CliRun.h"
#include "FileInspect.h"
#include "MediaTestSupport.h"
#include "MovieFile.h"
#include "MovieWriter.h"
#include "SoundEncoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
#include <libavutil/display.h>
}

using namespace testsupport;

namespace {


// Every decoded sample of a sound stream (as 32-bit integers, exact for
// 16- and 24-bit sources), channel after channel within each sample.
std::vector<std::int32_t> decodeSamples(std::string const& path, int streamIndex)
{
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) throw media::MediaError("cannot open " + path);
    media::InputContext fmt(raw);
    avformat_find_stream_info(raw, nullptr);
    AVStream* st = raw->streams[streamIndex];
    AVCodec const* dec = avcodec_find_decoder(st->codecpar->codec_id);
    media::CodecContext c(avcodec_alloc_context3(dec));
    avcodec_parameters_to_context(c.get(), st->codecpar);
    if (avcodec_open2(c.get(), dec, nullptr) < 0) throw media::MediaError("cannot decode");
    std::vector<std::int32_t> out;
    media::Packet pkt = media::makePacket();
    media::Frame f = media::makeFrame();
    auto drain = [&] {
        while (avcodec_receive_frame(c.get(), f.get()) == 0) {
            int ch = f->ch_layout.nb_channels;
            auto fmtId = static_cast<AVSampleFormat>(f->format);
            bool planar = av_sample_fmt_is_planar(fmtId);
            int bytes = av_get_bytes_per_sample(fmtId);
            for (int i = 0; i < f->nb_samples; ++i)
                for (int k = 0; k < ch; ++k) {
                    std::uint8_t const* p = planar ? f->extended_data[k] + i * bytes : f->data[0] + (i * ch + k) * bytes;
                    std::int32_t v = 0;
                    if (bytes == 2) v = *reinterpret_cast<std::int16_t const*>(p) * 65536;
                    else if (fmtId == AV_SAMPLE_FMT_FLT || fmtId == AV_SAMPLE_FMT_FLTP)
                        v = static_cast<std::int32_t>(std::lrint(*reinterpret_cast<float const*>(p) * 2147483648.0));
                    else v = *reinterpret_cast<std::int32_t const*>(p);
                    out.push_back(v);
                }
            av_frame_unref(f.get());
        }
    };
    while (av_read_frame(raw, pkt.get()) >= 0) {
        if (pkt->stream_index == streamIndex) avcodec_send_packet(c.get(), pkt.get());
        av_packet_unref(pkt.get());
        drain();
    }
    avcodec_send_packet(c.get(), nullptr);
    drain();
    return out;
}

// The sound a player plays: the one flagged default, or the first where the
// container flags none (MPEG-TS).
int enabledSound(FileInfo const& f)
{
    int first = -1;
    for (std::size_t i = 0; i < f.streams.size(); ++i) {
        if (f.streams[i].type != AVMEDIA_TYPE_AUDIO) continue;
        if (f.streams[i].disposition & AV_DISPOSITION_DEFAULT) return static_cast<int>(i);
        if (first < 0) first = static_cast<int>(i);
    }
    return first;
}

// A sound stream named as the backup (Matroska: its title; QuickTime: its handler).
bool isBackup(StreamInfo const& s)
{
    if (s.type != AVMEDIA_TYPE_AUDIO) return false;
    for (char const* key : {"title", "handler_name"})
        if (s.tags.count(key) && s.tags.at(key) == "Backup Sound Track") return true;
    return false;
}

int backupSound(FileInfo const& f)
{
    for (std::size_t i = 0; i < f.streams.size(); ++i)
        if (isBackup(f.streams[i])) return static_cast<int>(i);
    return -1;
}

// Sync points taken from the movie itself, as a user sets them by eye and
// ear: each flash against its click, on the movie's own timeline.
std::string pointsFrom(std::string const& movie, std::string const& file)
{
    media::SyncMeasurement m = media::measureSync(movie);
    media::OpenedMovie om = media::openMovie(movie);
    double origin = static_cast<double>(media::OpenedMovie::mediaOf(*om.movie->tracks().front()).origin) / AV_TIME_BASE;
    std::ofstream out(file);
    int n = 0;
    for (std::size_t i = 0; i < m.flashes.size(); ++i) {
        if (std::fabs(m.errors[i]) > 0.9) continue;
        char line[96];
        std::snprintf(line, sizeof line, "%.6f = %.6f\n", m.flashes[i] - origin, m.flashes[i] + m.errors[i] - origin);
        out << line;
        ++n;
    }
    if (n < 2) throw media::MediaError("the test movie shows fewer than two flashes with clicks");
    return file;
}

struct Case {
    char const* name;
    char const* inputName;
    std::function<void(media::TestMovieSpec&)> make;
    char const* output;     // empty: in place; else the output's file name
    char const* expectFormat; // demuxer name of the output
    double tolerance;       // worst click-to-flash error after the sync, seconds
    char const* extra = ""; // more options
};

media::TestMovieSpec baseSpec()
{
    media::TestMovieSpec s;
    s.seconds = 12;
    s.width = 160;
    s.height = 120;
    s.audioOffset = 0.2;
    s.audioRate = 1.0 / 1.002;
    s.videoBitRate = 400'000;
    return s;
}

std::string describeMismatch(StreamInfo const& a, StreamInfo const& b)
{
    std::string d;
    if (a.codec != b.codec) d += std::string(" codec ") + avcodec_get_name(a.codec) + " -> " + avcodec_get_name(b.codec);
    if (a.packets != b.packets) d += " packets differ (" + std::to_string(a.packets.size()) + " vs " + std::to_string(b.packets.size()) + ")";
    if ((a.disposition & ~AV_DISPOSITION_DEFAULT) != (b.disposition & ~AV_DISPOSITION_DEFAULT)) d += " disposition";
    if (a.sideData != b.sideData) d += " side data";
    if (a.extradata != b.extradata) d += " attachment data";
    for (char const* key : {"language", "title", "timecode", "filename", "mimetype"}) {
        auto ia = a.tags.find(key), ib = b.tags.find(key);
        std::string va = ia == a.tags.end() ? "" : ia->second, vb = ib == b.tags.end() ? "" : ib->second;
        if (va != vb) d += std::string(" tag ") + key + " \"" + va + "\" -> \"" + vb + "\"";
    }
    return d;
}

void PrintTo(Case const& c, std::ostream* os) { *os << c.name; }

class Fidelity : public ::testing::TestWithParam<Case> {};

TEST_P(Fidelity, SyncedSaveKeepsEverythingElse)
{
    Case const& c = GetParam();
    ScratchDir dir;
    media::TestMovieSpec spec = baseSpec();
    c.make(spec);
    std::string input = dir.file(c.inputName);
    media::writeTestMovie(input, spec);
    FileInfo before = inspect(input);
    std::string points = pointsFrom(input, dir.file("points.txt"));

    std::string output = *c.output ? dir.file(c.output) : input;
    std::string target = *c.output ? "-o '" + output + "'" : "--in-place";
    CliRun run = cli("sync '" + input + "' --points '" + points + "' " + target + " --quiet " + c.extra);
    ASSERT_EQ(run.status, 0) << run.output;
    FileInfo after = inspect(output);
    EXPECT_NE(after.format.find(c.expectFormat), std::string::npos) << after.format;

    // Sync, measured on the saved file as a player plays it.
    media::SyncMeasurement m = media::measureSync(output);
    EXPECT_GE(m.flashes.size(), 4u);
    EXPECT_LE(m.worst(), c.tolerance) << "worst " << m.worst() * 1000 << " ms";
    std::printf("[ fidelity ] %-14s worst sync error %.4f ms over %zu flashes\n", c.name, m.worst() * 1000, m.flashes.size());

    // Every stream other than the synced sound and its backup, unchanged.
    int synced = enabledSound(before), outSynced = enabledSound(after), backup = backupSound(after);
    ASSERT_GE(synced, 0);
    ASSERT_GE(outSynced, 0);
    ASSERT_GE(backup, 0) << "no backup sound track";
    std::vector<StreamInfo const*> rest, restAfter;
    for (std::size_t i = 0; i < before.streams.size(); ++i)
        if (static_cast<int>(i) != synced && before.streams[i].tag != MKTAG('t', 'm', 'c', 'd')) rest.push_back(&before.streams[i]);
    for (std::size_t i = 0; i < after.streams.size(); ++i)
        if (static_cast<int>(i) != outSynced && static_cast<int>(i) != backup && after.streams[i].tag != MKTAG('t', 'm', 'c', 'd'))
            restAfter.push_back(&after.streams[i]);
    ASSERT_EQ(rest.size(), restAfter.size()) << run.output;
    for (std::size_t i = 0; i < rest.size(); ++i) {
        EXPECT_EQ(rest[i]->type, restAfter[i]->type);
        std::string mismatch = describeMismatch(*rest[i], *restAfter[i]);
        if (before.format == after.format && rest[i]->tag != restAfter[i]->tag) mismatch += " codec tag";
        EXPECT_TRUE(mismatch.empty()) << "stream " << i << ":" << mismatch;
    }
    // The synced sound keeps its tags, layout and depth.
    auto const& s0 = before.streams[static_cast<std::size_t>(synced)];
    auto const& s1 = after.streams[static_cast<std::size_t>(outSynced)];
    EXPECT_EQ(s0.layout, s1.layout);
    EXPECT_EQ(s0.tags.count("language") ? s0.tags.at("language") : "", s1.tags.count("language") ? s1.tags.at("language") : "");
    if (s0.bits > 16) {
        EXPECT_EQ(s0.bits, s1.bits);
    }
    std::printf("[ fidelity ] %-14s sound %s %s %d-bit -> %s %s %d-bit; %zu other streams compared\n", c.name, avcodec_get_name(s0.codec),
                s0.layout.c_str(), s0.bits, avcodec_get_name(s1.codec), s1.layout.c_str(), s1.bits, rest.size());
    // The backup is the original: the same packets, or the same samples.
    auto const& b = after.streams[static_cast<std::size_t>(backup)];
    EXPECT_EQ(b.disposition & AV_DISPOSITION_DEFAULT, 0);
    if (b.codec == s0.codec) {
        EXPECT_EQ(b.packets, s0.packets) << "backup packets";
    } else {
        EXPECT_EQ(decodeSamples(output, backup), decodeSamples(input, synced)) << "backup samples";
    }
    // The file's tags and chapters.
    for (char const* key : {"title"})
        EXPECT_EQ(before.tags.count(key) ? before.tags.at(key) : "", after.tags.count(key) ? after.tags.at(key) : "") << key;
    ASSERT_EQ(before.chapters.size(), after.chapters.size());
    for (std::size_t i = 0; i < before.chapters.size(); ++i) {
        EXPECT_EQ(before.chapters[i].first, after.chapters[i].first);
        EXPECT_NEAR(before.chapters[i].second, after.chapters[i].second, 0.002);
    }
    // A timecode track comes back as one.
    auto timecodeOf = [](FileInfo const& f) {
        for (auto const& s : f.streams)
            if (s.tag == MKTAG('t', 'm', 'c', 'd')) return s.tags.count("timecode") ? s.tags.at("timecode") : std::string("?");
        return std::string();
    };
    EXPECT_EQ(timecodeOf(before), timecodeOf(after));
    // Reopened, the movie has exactly one enabled sound track again.
    media::OpenedMovie reopened = media::openMovie(output);
    int enabled = 0;
    for (auto const& t : reopened.movie->tracks()) enabled += t->mediaType() == dm::MediaType::Sound && t->isEnabled();
    EXPECT_EQ(enabled, 1);
}

std::vector<Case> cases()
{
    return {
        {"ts-ac3", "rec.ts", [](auto& s) { s.format = "mpegts"; s.audioCodec = "ac3"; s.audioBitRate = 192000; },
         "rec-synced.mkv", "matroska", 0.00005},
        {"ts-offset", "late.ts", [](auto& s) { s.format = "mpegts"; s.audioCodec = "ac3"; s.audioBitRate = 192000; s.startTime = 3600; },
         "late-synced.mkv", "matroska", 0.00005},
        {"mkv-rich", "rich.mkv",
         [](auto& s) {
             s.format = "matroska";
             s.extraSoundTracks = 1;
             s.languages = {"eng", "fra"};
             s.subtitleCodecs = {"subrip", "ass"};
             s.subtitleLanguages = {"eng", "deu"};
             s.chapters = 2;
             s.title = "A rich movie";
             s.attachment = true;
         },
         "", "matroska", 0.00005},
        {"mkv-flac24", "hifi.mkv", [](auto& s) { s.format = "matroska"; s.audioCodec = "flac"; s.bitsPerSample = 24; s.channelLayout = "3.0"; },
         "", "matroska", 0.00005},
        {"flac-to-mov", "hifi2.mkv", [](auto& s) { s.format = "matroska"; s.audioCodec = "flac"; s.bitsPerSample = 24; s.channelLayout = "3.0"; },
         "hifi2-synced.mov", "mov", 0.00005},
        {"webm", "clip.webm", [](auto& s) { s.format = "webm"; s.videoCodec = "libvpx-vp9"; s.audioCodec = "libopus"; s.audioBitRate = 96000; },
         "", "matroska", 0.00005},
        {"mp4-rotated", "phone.mp4", [](auto& s) { s.format = "mp4"; s.rotation = 90; }, "", "mp4", 0.00005},
        {"mp4-hevc", "hevc.mp4", [](auto& s) { s.format = "mp4"; s.videoCodec = "libx265"; s.videoTag = "hvc1"; }, "", "mp4", 0.00005},
        {"mov-timecode", "tc.mov", [](auto& s) { s.timecode = "01:00:00:00"; }, "", "mov", 0.00005},
        {"ts-layout-change", "switch.ts",
         [](auto& s) {
             s.format = "mpegts";
             s.audioCodec = "ac3";
             s.audioBitRate = 384000;
             s.channelLayout = "5.1";
             s.layoutChangeAt = 6.1;
         },
         "switch-synced.mkv", "matroska", 0.00005},
    };
}

INSTANTIATE_TEST_SUITE_P(Movies, Fidelity, ::testing::ValuesIn(cases()),
                         [](auto const& info) {
                             std::string n = info.param.name;
                             for (auto& ch : n)
                                 if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
                             return n;
                         });

// Movies made by another tool: the ffmpeg program transcodes a test movie
// the way users' files are made (its own muxer settings, its own priming
// and start offsets), and each is synced and measured.
TEST(FidelityForeign, MoviesMadeByFfmpegComeOutInSync)
{
    if (std::system("command -v ffmpeg >/dev/null 2>&1") != 0) GTEST_SKIP() << "the ffmpeg program is not installed";
    ScratchDir dir;
    media::TestMovieSpec spec = baseSpec();
    std::string master = dir.file("master.mov");
    media::writeTestMovie(master, spec);
    struct Foreign {
        char const* name;
        char const* args;
        char const* output; // empty: in place
        // Non-empty: a known fault of this row, not yet fixed; the row must
        // still save, its sync is reported but not held to the bound.
        char const* open = "";
    };
    std::vector<Foreign> rows = {
        {"vp9-opus.webm", "-c:v libvpx-vp9 -b:v 200k -deadline realtime -c:a libopus -b:a 96k", ""},
        {"h264-opus.mkv", "-c:v copy -c:a libopus -b:a 96k", ""},
        {"h264-flac.mkv", "-c:v copy -c:a flac", "h264-flac-synced.mov"},
        {"h264-ac3.ts", "-c:v copy -c:a ac3 -b:a 192k -output_ts_offset 1.4", "h264-ac3-synced.mkv"},
        {"h264-aac.mp4", "-c:v copy -c:a aac -b:a 128k", ""},
        // A camera's or editor's movie: a timecode track beside the video.
        {"h264-aac-timecode.mov", "-c:v copy -c:a aac -b:a 128k -timecode 10:00:00:00", ""},
        // Chapters: QuickTime keeps them in a text track of their own.
        {"h264-aac-chapters.mov", "-map 0 -map_chapters 1 -c:v copy -c:a aac -b:a 128k", ""},
        // Pictures encoded afresh, as other tools write them: reordered
        // frames (x264's default B-frames), Matroska without decoding
        // times, MPEG-PS with presentation times on some packs only.
        {"x264-vorbis.mkv", "-c:v libx264 -preset veryfast -c:a libvorbis", ""},
        {"x264-aac-mkv.mkv", "-c:v libx264 -preset veryfast -c:a aac", "x264-aac-mkv-synced.mov"},
        {"mpeg1-mp2.mpg", "-c:v mpeg1video -c:a mp2 -f vob", "mpeg1-mp2-synced.mkv",
         "open: flashes and clicks of an MPEG-PS saved to Matroska along a drift lie 16 ms apart"},
        {"mpeg2-ac3.mkv", "-c:v mpeg2video -c:a ac3", ""},
        // Headers without the picture size (MPEG-4 Part 2, H.263).
        {"mpeg4-aac.mp4", "-c:v mpeg4 -c:a aac", ""},
        {"h263-aac.3gp", "-c:v h263 -s 176x144 -c:a aac -ar 16000", ""},
        // AAC framed for broadcast (ADTS) copied into QuickTime.
        {"x264-aac.ts", "-c:v libx264 -preset veryfast -c:a aac", "x264-aac-ts-synced.mov"},
        // A web download: fragmented MPEG-4.
        {"x264-aac-frag.mp4", "-c:v libx264 -preset veryfast -c:a aac -movflags frag_keyframe+empty_moov", "x264-aac-frag-synced.mp4"},
    };
    std::string chapters = dir.file("chapters.txt");
    writeFile(chapters, ";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=4000\ntitle=Opening\n"
                        "[CHAPTER]\nTIMEBASE=1/1000\nSTART=4000\nEND=8000\ntitle=Closing\n");
    for (auto const& r : rows) {
        std::string input = dir.file(r.name);
        bool withChapters = std::string(r.args).find("-map_chapters") != std::string::npos;
        std::string cmd = "ffmpeg -nostdin -y -v error -i '" + master + "' " + (withChapters ? "-i '" + chapters + "' " : "") + r.args + " '"
                        + input + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
        std::string points = pointsFrom(input, dir.file("points.txt"));
        std::string output = *r.output ? dir.file(r.output) : input;
        CliRun run = cli("sync '" + input + "' --points '" + points + "' " + (*r.output ? "-o '" + output + "'" : "--in-place") + " --quiet");
        ASSERT_EQ(run.status, 0) << r.name << ": " << run.output;
        if (std::string(r.name).find(".3gp") != std::string::npos) {
            // Still a 3GP file, not the writer's own brand.
            EXPECT_EQ(inspect(output).tags["major_brand"].substr(0, 3), "3gp") << r.name;
        }
        media::SyncMeasurement m = media::measureSync(output);
        std::printf("[ fidelity ] ffmpeg-made %-14s worst sync error %.4f ms over %zu flashes\n", r.name, m.worst() * 1000, m.flashes.size());
        EXPECT_GE(m.flashes.size(), 4u) << r.name;
        if (*r.open) {
            std::printf("[ fidelity ] %s\n", r.open);
            continue;
        }
        // Within 0.05 ms, or one sample of a sound sampled more coarsely.
        double bound = std::string(r.args).find("-ar 16000") != std::string::npos ? 1.0 / 16000 + 1e-9 : 0.00005;
        EXPECT_LE(m.worst(), bound) << r.name << ": worst " << m.worst() * 1000 << " ms";
        if (std::string(r.args).find("-timecode") != std::string::npos) {
            // Still one timecode track, with its time.
            int timecodes = 0;
            for (auto const& st : inspect(output).streams)
                if (st.tag == MKTAG('t', 'm', 'c', 'd')) {
                    ++timecodes;
                    EXPECT_EQ(st.tags.count("timecode") ? st.tags.at("timecode") : "", "10:00:00:00");
                }
            EXPECT_EQ(timecodes, 1) << r.name;
        }
        if (withChapters) {
            // The chapters, with their titles and times.
            auto file = media::SourceFile::open(output);
            auto in = file->openInput(false);
            ASSERT_EQ(in.format->nb_chapters, 2u) << r.name;
            AVDictionaryEntry const* title = av_dict_get(in.format->chapters[1]->metadata, "title", nullptr, 0);
            EXPECT_STREQ(title ? title->value : "", "Closing");
            EXPECT_NEAR(static_cast<double>(in.format->chapters[1]->start) * av_q2d(in.format->chapters[1]->time_base), 4.0, 0.001);
        }
    }
}

} // namespace

namespace {

media::TestMovieSpec richMatroska()
{
    media::TestMovieSpec s = baseSpec();
    s.format = "matroska";
    s.seconds = 8;
    s.subtitleCodecs = {"subrip", "ass"};
    s.subtitleLanguages = {"eng", "deu"};
    s.attachment = true;
    return s;
}

bool contains(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

TEST(FidelityCli, LossesAreRefusedBeforeWritingUnlessAccepted)
{
    ScratchDir dir;
    std::string input = dir.file("rich.mkv");
    media::writeTestMovie(input, richMatroska());
    std::string points = pointsFrom(input, dir.file("p.txt"));

    // QuickTime takes neither the subtitles nor the attachment: refused, nothing written.
    CliRun refused = cli("sync '" + input + "' --points '" + points + "' -o '" + dir.file("out.mov") + "' --quiet");
    EXPECT_EQ(refused.status, 1) << refused.output;
    EXPECT_TRUE(contains(refused.output, "subrip")) << refused.output;
    EXPECT_TRUE(contains(refused.output, "ass")) << refused.output;
    EXPECT_TRUE(contains(refused.output, "Matroska")) << refused.output;
    EXPECT_TRUE(contains(refused.output, "--drop-unsupported")) << refused.output;
    EXPECT_EQ(listDir(dir.path()).size(), 2u) << "only the input and the points";

    CliRun accepted = cli("sync '" + input + "' --points '" + points + "' -o '" + dir.file("out.mov") + "' --quiet --drop-unsupported");
    ASSERT_EQ(accepted.status, 0) << accepted.output;
    EXPECT_TRUE(contains(accepted.output, "note: left out subtitle track 3 (subrip, eng): QuickTime takes no subrip (Matroska does)"))
        << accepted.output;
    EXPECT_TRUE(contains(accepted.output, "note: left out attachment track 5 (notes.txt): QuickTime takes no attachments (Matroska does)"))
        << accepted.output;
    FileInfo out = inspect(dir.file("out.mov"));
    for (auto const& s : out.streams) EXPECT_NE(s.type, AVMEDIA_TYPE_SUBTITLE);
    EXPECT_LE(media::measureSync(dir.file("out.mov")).worst(), 0.00005);

    // An unknown extension is a usage error; a transport stream is not saved in place.
    EXPECT_EQ(cli("sync '" + input + "' --points '" + points + "' -o '" + dir.file("out.avi") + "'").status, 2);
    media::TestMovieSpec ts = baseSpec();
    ts.format = "mpegts";
    ts.seconds = 6;
    std::string tsPath = dir.file("rec.ts");
    media::writeTestMovie(tsPath, ts);
    std::string before = readFile(tsPath);
    CliRun inPlace = cli("sync '" + tsPath + "' --point 1=1.2 --point 5=5.2 --in-place --quiet");
    EXPECT_EQ(inPlace.status, 1);
    EXPECT_TRUE(contains(inPlace.output, "rec-synced.mkv")) << inPlace.output;
    EXPECT_EQ(readFile(tsPath), before);
}

TEST(FidelityCli, CodecsQuickTimeCannotDescribeAreRefusedNamingMatroska)
{
    if (std::system("command -v ffmpeg >/dev/null 2>&1") != 0) GTEST_SKIP() << "the ffmpeg program is not installed";
    ScratchDir dir;
    std::string master = dir.file("master.mov");
    media::writeTestMovie(master, baseSpec());
    std::string wmv = dir.file("windows.wmv");
    std::string cmd = "ffmpeg -nostdin -y -v error -i '" + master + "' -c:v wmv2 -c:a wmav2 '" + wmv + "'";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    std::string points = pointsFrom(wmv, dir.file("points.txt"));
    // QuickTime has no sample description for Windows Media: the writer
    // would make a file no reader decodes.
    CliRun refused = cli("sync '" + wmv + "' --points '" + points + "' -o '" + dir.file("out.mov") + "' --quiet");
    EXPECT_NE(refused.status, 0);
    EXPECT_TRUE(contains(refused.output, "wmv2") && contains(refused.output, "Matroska")) << refused.output;
    EXPECT_NE(::access(dir.file("out.mov").c_str(), F_OK), 0);
    CliRun kept = cli("sync '" + wmv + "' --points '" + points + "' -o '" + dir.file("out.mkv") + "' --quiet");
    ASSERT_EQ(kept.status, 0) << kept.output;
    media::SyncMeasurement m = media::measureSync(dir.file("out.mkv"));
    EXPECT_GE(m.flashes.size(), 4u);
    EXPECT_LE(m.worst(), 0.00005) << "worst " << m.worst() * 1000 << " ms";
}

TEST(FidelityCli, InfoTellsWhatASaveDoes)
{
    ScratchDir dir;
    std::string input = dir.file("rich.mkv");
    media::writeTestMovie(input, richMatroska());
    CliRun mkv = cli("info '" + input + "'");
    EXPECT_EQ(mkv.status, 0) << mkv.output;
    EXPECT_TRUE(contains(mkv.output, "saving in place (Matroska)")) << mkv.output;
    EXPECT_TRUE(contains(mkv.output, "(subrip, eng): copied")) << mkv.output;
    EXPECT_TRUE(contains(mkv.output, "(aac): unchanged, packets copied")) << mkv.output;

    media::TestMovieSpec ts = baseSpec();
    ts.format = "mpegts";
    ts.audioCodec = "ac3";
    ts.seconds = 4;
    std::string tsPath = dir.file("rec.ts");
    media::writeTestMovie(tsPath, ts);
    CliRun tsInfo = cli("info '" + tsPath + "'");
    EXPECT_EQ(tsInfo.status, 0) << tsInfo.output;
    EXPECT_TRUE(contains(tsInfo.output, "saving as a new Matroska file")) << tsInfo.output;
    EXPECT_TRUE(contains(tsInfo.output, "--in-place is refused")) << tsInfo.output;
}

// The codec of the re-timed sound, for sources and containers users have.
TEST(SoundFormat, KeepsLosslessLosslessAndLossyAboveTheFloor)
{
    struct Row {
        AVCodecID source;
        int bits;
        char const* layout;
        std::int64_t bitRate;
        char const* container;
        media::SoundCodec policy;
        bool lossless;
        char const* encoder; // expected
        int expectBits;
        std::int64_t expectRate; // expected bit rate, 0 for lossless
        bool expectNote;
    };
    using SC = media::SoundCodec;
    std::vector<Row> rows = {
        {AV_CODEC_ID_AAC, 0, "stereo", 128000, "mov", SC::Same, false, "aac", 0, 192000, false},
        {AV_CODEC_ID_AAC, 0, "stereo", 320000, "mp4", SC::Same, false, "aac", 0, 320000, false},
        {AV_CODEC_ID_AAC, 0, "stereo", 0, "matroska", SC::Same, false, "aac", 0, 192000, false},
        {AV_CODEC_ID_AC3, 0, "5.1", 448000, "matroska", SC::Same, false, "ac3", 0, 448000, false},
        {AV_CODEC_ID_AC3, 0, "5.1", 0, "matroska", SC::Same, false, "ac3", 0, 384000, false},
        {AV_CODEC_ID_FLAC, 24, "3.0", 0, "matroska", SC::Same, false, "flac", 24, 0, false},
        {AV_CODEC_ID_FLAC, 24, "3.0", 0, "mov", SC::Same, false, "alac", 24, 0, true},
        {AV_CODEC_ID_FLAC, 16, "stereo", 0, "mp4", SC::Same, true, "alac", 16, 0, true},
        {AV_CODEC_ID_PCM_S24LE, 24, "stereo", 0, "mov", SC::Same, false, "pcm_s24le", 0, 0, false},
        {AV_CODEC_ID_OPUS, 0, "stereo", 96000, "mov", SC::Same, false, "aac", 0, 192000, true},
        {AV_CODEC_ID_AAC, 0, "stereo", 128000, "webm", SC::Same, false, "libopus", 0, 128000, true},
        {AV_CODEC_ID_AAC, 0, "stereo", 128000, "mov", SC::Pcm, false, "pcm_s16le", 0, 0, false},
        {AV_CODEC_ID_AAC, 0, "stereo", 128000, "mov", SC::Flac, false, "alac", 16, 0, true},
        {AV_CODEC_ID_AAC, 0, "stereo", 128000, "matroska", SC::Flac, false, "flac", 16, 0, false},
        {AV_CODEC_ID_FLAC, 16, "stereo", 0, "mov", SC::Aac, false, "aac", 0, 192000, false},
    };
    for (auto const& r : rows) {
        media::CodecParameters par(avcodec_parameters_alloc());
        par->codec_type = AVMEDIA_TYPE_AUDIO;
        par->codec_id = r.source;
        par->sample_rate = 48000;
        par->bits_per_raw_sample = r.bits;
        par->bit_rate = r.bitRate;
        ASSERT_EQ(av_channel_layout_from_string(&par->ch_layout, r.layout), 0);
        std::string what = std::string(avcodec_get_name(r.source)) + " " + r.layout + " in " + r.container + " as "
                         + media::soundCodecName(r.policy) + (r.lossless ? " (lossless)" : "");
        media::SoundFormat f = media::chooseSoundFormat(media::Container::named(r.container), par.get(), par->ch_layout, r.policy, r.lossless);
        EXPECT_EQ(f.encoder, r.encoder) << what;
        if (r.expectBits) {
            EXPECT_EQ(f.bitsPerRawSample, r.expectBits) << what;
        }
        EXPECT_EQ(f.bitRate, r.expectRate) << what;
        EXPECT_EQ(!f.note.empty(), r.expectNote) << what << ": " << f.note;
    }
}

// A Matroska movie with FLAC sound.
media::TestMovieSpec flacMatroska(double seconds)
{
    media::TestMovieSpec s = baseSpec();
    s.format = "matroska";
    s.audioCodec = "flac";
    s.seconds = seconds;
    return s;
}

// Waits at most `limit` for `child`, calling `poll` every few milliseconds;
// kills it when it is still running then. Returns whether it ended by
// itself, its wait status and the seconds waited.
struct Waited {
    bool ended;
    int status;
    double seconds;
};
Waited waitForChild(pid_t child, std::chrono::milliseconds limit, std::function<void()> const& poll = {})
{
    int status = 0;
    pid_t done = 0;
    auto t0 = std::chrono::steady_clock::now();
    while ((done = waitpid(child, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() - t0 < limit) {
        if (poll) poll();
        usleep(5'000);
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (done == 0) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    return {done == child, status, seconds};
}

// A sound whose time stamps jump ten hours ahead: the track ends with the
// pictures, the user is told, and the save stays small and quick.
TEST(FidelityCli, ATimestampJumpOfHoursEndsWithTheOtherTracks)
{
    ScratchDir dir;
    media::TestMovieSpec s = flacMatroska(6);
    s.timestampJumpAt = 3;
    s.timestampJump = 36000;
    std::string input = dir.file("jump.mkv");
    media::writeTestMovie(input, s);
    std::string output = dir.file("out.mkv"), log = dir.file("log.txt");

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        FILE* f = std::freopen(log.c_str(), "w", stderr);
        (void)f;
        execl(DUBMATCH_CLI, DUBMATCH_CLI, "sync", input.c_str(), "--point", "1=1.2", "--point", "2=2.2", "-o", output.c_str(), "--quiet",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    auto peakKb = [&] {
        std::ifstream st("/proc/" + std::to_string(child) + "/status");
        std::string line;
        while (std::getline(st, line))
            if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
        return 0L;
    };
    long peak = 0;
    Waited w = waitForChild(child, std::chrono::seconds(60), [&] { peak = std::max(peak, peakKb()); });
    std::printf("[ fidelity ] 10-hour jump: saved in %.2f s, peak memory %.1f MB\n", w.seconds, peak / 1024.0);
    ASSERT_TRUE(w.ended) << "still writing after a minute";
    ASSERT_TRUE(WIFEXITED(w.status));
    EXPECT_EQ(WEXITSTATUS(w.status), 0) << readFile(log);
    EXPECT_LT(peak, 200 * 1024);
    EXPECT_NE(readFile(log).find("note: Sound ends at 6."), std::string::npos) << readFile(log);
    media::OpenedMovie out = media::openMovie(output);
    EXPECT_NEAR(out.movie->duration().seconds(), 6.0, 0.1);
}

// Stopping a long save: Ctrl-C ends it at once and leaves nothing.
TEST(FidelityCli, ALongSaveStopsOnInterrupt)
{
    ScratchDir dir;
    media::TestMovieSpec s = flacMatroska(600);
    s.width = 64;
    s.height = 48;
    s.videoBitRate = 50'000;
    std::string input = dir.file("long.mkv");
    media::writeTestMovie(input, s);
    std::string output = dir.file("out.mkv");
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        execl(DUBMATCH_CLI, DUBMATCH_CLI, "sync", input.c_str(), "--point", "1=1.2", "--point", "500=500.4", "-o", output.c_str(),
              "--quiet", "--sound-codec", "flac", static_cast<char*>(nullptr));
        _exit(127);
    }
    usleep(1'000'000);
    kill(child, SIGINT);
    Waited w = waitForChild(child, std::chrono::seconds(5));
    std::printf("[ fidelity ] stopped %.3f s after Ctrl-C\n", w.seconds);
    ASSERT_TRUE(w.ended);
    EXPECT_LT(w.seconds, 0.5);
    ASSERT_TRUE(WIFEXITED(w.status));
    EXPECT_EQ(WEXITSTATUS(w.status), 130);
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{"long.mkv"});
}

} // namespace

namespace {

int countBackups(FileInfo const& f) { return static_cast<int>(std::count_if(f.streams.begin(), f.streams.end(), isBackup)); }

// A synced movie opens again with its points and its unedited sound: saved
// again it comes out the same, with the one original backup, never a copy.
TEST(SavedPoints, SaveReopenSaveGivesTheSameMovie)
{
    for (char const* name : {"talk.mov", "talk.mkv"}) {
        ScratchDir dir;
        media::TestMovieSpec spec = baseSpec();
        if (std::string(name).find(".mkv") != std::string::npos) {
            spec.format = "matroska";
            spec.audioCodec = "flac";
        }
        std::string movie = dir.file(name);
        media::writeTestMovie(movie, spec);
        std::string original = dir.file(std::string("original-") + name);
        writeFile(original, readFile(movie));
        std::string points = pointsFrom(movie, dir.file("points.txt"));

        CliRun first = cli("sync '" + movie + "' --points '" + points + "' --in-place --quiet");
        ASSERT_EQ(first.status, 0) << first.output;
        FileInfo once = inspect(movie);
        std::string onceCopy = dir.file("once");
        writeFile(onceCopy, readFile(movie));
        CliRun info = cliStdout("info '" + movie + "' --json");
        EXPECT_NE(info.output.find("\"backup_adopted\": true"), std::string::npos) << info.output;
        // The plan is the save's: the sound re-timed by the stored points, the backup copied.
        EXPECT_NE(info.output.find("\"how\": \"encoded\""), std::string::npos) << info.output;
        EXPECT_NE(info.output.find("Backup Sound Track"), std::string::npos) << info.output;

        // No points given: the stored ones, from the unedited sound.
        CliRun second = cli("sync '" + movie + "' --in-place");
        ASSERT_EQ(second.status, 0) << second.output;
        EXPECT_NE(second.output.find("using the"), std::string::npos) << second.output;
        EXPECT_NE(second.output.find(first.output.substr(0, first.output.find('\n'))), std::string::npos)
            << "the same line:\n" << first.output << "\n" << second.output;
        FileInfo twice = inspect(movie);
        EXPECT_EQ(countBackups(twice), 1) << name;
        ASSERT_EQ(twice.streams.size(), once.streams.size()) << name;
        int sound = enabledSound(twice), backup = backupSound(twice);
        // The backup is still the first original, sample for sample.
        int originalSound = enabledSound(inspect(original));
        EXPECT_EQ(decodeSamples(movie, backup), decodeSamples(original, originalSound)) << name;
        // The re-timed sound is the one the first save wrote.
        EXPECT_EQ(decodeSamples(movie, sound), decodeSamples(onceCopy, enabledSound(once))) << name;
        EXPECT_EQ(twice.tags.at(twice.tags.count("dubmatch_sync_points") ? "dubmatch_sync_points" : "DUBMATCH_SYNC_POINTS"),
                  once.tags.at(once.tags.count("dubmatch_sync_points") ? "dubmatch_sync_points" : "DUBMATCH_SYNC_POINTS"));
        EXPECT_LE(media::measureSync(movie).worst(), 0.00005) << name;
    }
}

// A movie synced by a version that stored no points: its backup is still
// recognised, and new points re-time from it.
TEST(SavedPoints, ABackupWithoutPointsIsTheSoundNewPointsStartFrom)
{
    ScratchDir dir;
    media::TestMovieSpec spec = baseSpec();
    std::string movie = dir.file("old.mov");
    media::writeTestMovie(movie, spec);
    std::string points = pointsFrom(movie, dir.file("points.txt"));
    ASSERT_EQ(cli("sync '" + movie + "' --points '" + points + "' -o '" + dir.file("synced.mov") + "' --quiet").status, 0);
    // The same file without the stored points, as older versions wrote it.
    std::string old = dir.file("old-synced.mov");
    {
        media::OpenedMovie om = media::openMovie(dir.file("synced.mov"));
        media::SaveOptions options;
        options.container = media::Container::Kind::QuickTime;
        options.syncPoints = std::string();
        media::writeMovie(*om.movie, old, {}, options);
    }
    ASSERT_EQ(countBackups(inspect(old)), 1);
    CliRun info = cli("info '" + old + "'");
    EXPECT_NE(info.output.find("does not carry its sync points"), std::string::npos) << info.output;
    EXPECT_EQ(cli("sync '" + old + "' --from-movie -o '" + dir.file("x.mov") + "'").status, 1);

    // The user's points are about the unedited sound, which is what plays now.
    std::string out = dir.file("again.mov");
    CliRun again = cli("sync '" + old + "' --points '" + points + "' -o '" + out + "' --quiet");
    ASSERT_EQ(again.status, 0) << again.output;
    FileInfo f = inspect(out);
    EXPECT_EQ(countBackups(f), 1);
    EXPECT_EQ(decodeSamples(out, backupSound(f)), decodeSamples(movie, enabledSound(inspect(movie))));
    EXPECT_LE(media::measureSync(out).worst(), 0.00005);
}

} // namespace

namespace {

// Where another program's pipeline puts sound and picture: ffmpeg (the
// demuxing and decoding ffplay uses) and mpv's encoding mode (its player's
// timeline) write what they would play into a plain file, measured with our
// detector. Empty when the program is missing.
std::optional<double> measuredBy(std::string const& program, std::string const& movie, std::string const& dir)
{
    if (std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) != 0) return std::nullopt;
    std::string out = dir + "/" + program + "-check.mkv";
    std::string cmd = program == "ffmpeg"
                        ? "ffmpeg -nostdin -y -v error -i '" + movie + "' -map 0:v:0 -map 0:a:0 -c:v copy -c:a pcm_s16le '" + out + "'"
                        : "timeout 120 mpv --no-config --really-quiet --o='" + out + "' --ovc=mpeg4 --ovcopts=qscale=2 --oac=pcm_s16le '"
                              + movie + "' >/dev/null 2>&1";
    if (std::system(cmd.c_str()) != 0) return -1.0;
    return media::measureSync(out).worst();
}

// A sync that only moves the sound is written without re-encoding it: its
// packets copied, the move a start delay (exact) or a cut (QuickTime and
// MPEG-4 exact through an edit list; Matroska drops the frame the cut falls
// in and keeps whole milliseconds), in sync in our player, ffmpeg and mpv.
TEST(LosslessShift, AMoveIsWrittenWithTheOriginalPackets)
{
    struct Row {
        char const* output;
        double offset;    // how late the sound is in the source: > 0 cut, < 0 delay
        double tolerance; // worst click-to-flash error
    } rows[] = {
        // A cut may be off by up to one frame of the codec (AAC: 1024 samples) in a player.
        {"cut.mov", 0.35, 1024 / 48000.0},  {"cut.mp4", 0.35, 1024 / 48000.0},  {"cut.mkv", 0.35, 1024 / 48000.0},
        {"delay.mov", -0.35, 0.00005}, {"delay.mp4", -0.35, 0.00005}, {"delay.mkv", -0.35, 0.00005},
    };
    for (auto const& r : rows) {
        ScratchDir dir;
        media::TestMovieSpec spec = baseSpec();
        spec.audioRate = 1.0;
        spec.audioOffset = r.offset;
        std::string input = dir.file("source.mov");
        media::writeTestMovie(input, spec);
        std::string points = pointsFrom(input, dir.file("points.txt"));
        std::string output = dir.file(r.output);
        CliRun run = cli("sync '" + input + "' --points '" + points + "' -o '" + output + "' --lossless-shift always");
        ASSERT_EQ(run.status, 0) << r.output << ": " << run.output;
        EXPECT_NE(run.output.find("intercept " + std::string(r.offset > 0 ? "+" : "-") + "0.35"), std::string::npos) << run.output;

        FileInfo before = inspect(input), after = inspect(output);
        auto const& original = before.streams[static_cast<std::size_t>(enabledSound(before))].packets;
        auto const& moved = after.streams[static_cast<std::size_t>(enabledSound(after))].packets;
        ASSERT_FALSE(moved.empty());
        ASSERT_LE(moved.size(), original.size());
        // The moved sound is the original's packets: for a delay all that are
        // played (not the encoder's priming frame), for a cut those from the cut on.
        std::vector<std::uint64_t> tail(original.end() - static_cast<std::ptrdiff_t>(moved.size()), original.end());
        EXPECT_EQ(moved, tail) << r.output;
        if (r.offset < 0) {
            EXPECT_GE(moved.size() + 1, original.size()) << r.output;
        } else {
            EXPECT_NEAR(static_cast<double>(original.size() - moved.size()), r.offset * 48000 / 1024, 2.0) << r.output;
        }
        EXPECT_EQ(countBackups(after), 1);

        double ours = media::measureSync(output).worst();
        std::printf("[ lossless ] %-10s ours %.4f ms", r.output, ours * 1000);
        EXPECT_LE(ours, r.tolerance) << r.output;
        if (std::string(r.output) != "cut.mkv") {
            EXPECT_LE(ours, 0.00005) << "our player plays an edit list to the sample: " << r.output;
        }
        for (char const* program : {"ffmpeg", "mpv"}) {
            std::optional<double> theirs = measuredBy(program, output, dir.path());
            if (!theirs) continue;
            std::printf(", %s %.4f ms", program, *theirs * 1000);
            EXPECT_GE(*theirs, 0) << program << " could not play " << r.output;
            EXPECT_LE(*theirs, r.tolerance) << program << " on " << r.output;
        }
        std::printf("\n");
    }
}

TEST(LosslessShift, AStretchIsReEncodedAndAlwaysRefusesIt)
{
    ScratchDir dir;
    media::TestMovieSpec spec = baseSpec(); // the sound also runs 0.2 % slow
    std::string input = dir.file("source.mov");
    media::writeTestMovie(input, spec);
    std::string points = pointsFrom(input, dir.file("points.txt"));
    CliRun always = cli("sync '" + input + "' --points '" + points + "' -o '" + dir.file("x.mov") + "' --lossless-shift always");
    EXPECT_EQ(always.status, 1);
    EXPECT_NE(always.output.find("stretched"), std::string::npos) << always.output;
    EXPECT_FALSE(std::ifstream(dir.file("x.mov")).good());
    CliRun bad = cli("sync '" + input + "' --points '" + points + "' -o '" + dir.file("x.mov") + "' --lossless-shift sometimes");
    EXPECT_EQ(bad.status, 2);

    // A pure move re-encoded on request: the packets are new, the sync the same.
    media::TestMovieSpec moved = baseSpec();
    moved.audioRate = 1.0;
    std::string movedInput = dir.file("moved.mov");
    media::writeTestMovie(movedInput, moved);
    std::string movedPoints = pointsFrom(movedInput, dir.file("moved-points.txt"));
    std::string out = dir.file("never.mov");
    ASSERT_EQ(cli("sync '" + movedInput + "' --points '" + movedPoints + "' -o '" + out + "' --lossless-shift never --quiet").status, 0);
    FileInfo a = inspect(movedInput), b = inspect(out);
    EXPECT_NE(b.streams[static_cast<std::size_t>(enabledSound(b))].packets.back(),
              a.streams[static_cast<std::size_t>(enabledSound(a))].packets.back());
    EXPECT_LE(media::measureSync(out).worst(), 0.00005);
}

} // namespace
