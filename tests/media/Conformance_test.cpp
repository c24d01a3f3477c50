// Movies as other tools make them at their default settings (the ffmpeg
// program, mkvmerge, HandBrake, mencoder, GStreamer), each synced with
// dubmatch-cli along a drift and along a pure shift, and checked against
// its source: the picture's packets unchanged, every other stream kept, one
// disabled backup, the container kept, and the sound where the points say,
// found by cross-correlation with the original sound.
#include "CliRun.h"
#include "FileInspect.h"
#include "MediaTestSupport.h"
#include "SoundMeasure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

using namespace testsupport;

namespace {

struct Case {
    char const* name;    // the input's file name
    char const* tool;    // the program that must be installed
    char const* make;    // bash, run in the case's folder; writes `name`
    char const* output;  // the synced file's name; empty: saved in place
    char const* refusal; // non-empty: the save is refused before writing, naming this
    // Non-empty: a fault not yet fixed, found by this case; the case is
    // skipped with this reason until it is.
    char const* open = "";
};


// Ten seconds of a moving test picture and pink noise (which correlates
// sharply at every window), as each tool's defaults encode them.
#define FF "ffmpeg -nostdin -y -v error "
#define PIC "-f lavfi -i testsrc2=s=160x120:r=25:d=10 "
#define NOISE "-f lavfi -i anoisesrc=c=pink:a=0.3:d=10:r=48000 "
#define GST_PIC "videotestsrc num-buffers=250 pattern=ball ! video/x-raw,width=160,height=120,framerate=25/1 ! videoconvert "
#define GST_NOISE "audiotestsrc num-buffers=470 wave=pink-noise volume=0.3 ! audio/x-raw,rate=48000,channels=2 ! audioconvert "

Case const kCases[] = {
    // The ffmpeg program, default encoders (x264 and x265 with B-frames).
    {"x264-aac.mkv", "ffmpeg", FF PIC NOISE "-c:a aac x264-aac.mkv", "", ""},
    {"x264-aac.mp4", "ffmpeg", FF PIC NOISE "x264-aac.mp4", "", ""},
    {"x264-aac.mov", "ffmpeg", FF PIC NOISE "x264-aac.mov", "", ""},
    {"x264-aac-faststart.mp4", "ffmpeg", FF PIC NOISE "-movflags +faststart x264-aac-faststart.mp4", "", ""},
    {"x264-aac-frag.mp4", "ffmpeg", FF PIC NOISE "-movflags frag_keyframe+empty_moov x264-aac-frag.mp4", "out.mp4", ""},
    {"x265-aac.mkv", "ffmpeg", FF PIC NOISE "-c:v libx265 -x265-params log-level=none -c:a aac x265-aac.mkv", "", ""},
    {"x265-aac.mp4", "ffmpeg", FF PIC NOISE "-c:v libx265 -x265-params log-level=none x265-aac.mp4", "", ""},
    {"mpeg4-aac.mp4", "ffmpeg", FF PIC NOISE "-c:v mpeg4 mpeg4-aac.mp4", "", ""},
    {"mpeg4-mp3.avi", "ffmpeg", FF PIC NOISE "mpeg4-mp3.avi", "out.mkv", ""},
    {"x264-mp3.avi", "ffmpeg", FF PIC NOISE "-c:v libx264 x264-mp3.avi", "out.mkv", ""},
    {"x264-mp3-to-mov.avi", "ffmpeg", FF PIC NOISE "-c:v libx264 x264-mp3-to-mov.avi", "out.mov", ""},
    {"h263-aac.3gp", "ffmpeg", FF PIC NOISE "-s 176x144 -c:v h263 -c:a aac -ar 16000 -ac 1 h263-aac.3gp", "", ""},
    {"x264-aac.3gp", "ffmpeg", FF PIC NOISE "-c:v libx264 -c:a aac -ar 16000 x264-aac.3gp", "", ""},
    {"mpeg1-mp2.mpg", "ffmpeg", FF PIC NOISE "mpeg1-mp2.mpg", "out.mkv", ""},
    {"mpeg2-ac3.vob", "ffmpeg", FF PIC NOISE "-c:v mpeg2video -c:a ac3 -f vob mpeg2-ac3.vob", "out.mkv", ""},
    {"mpeg2-interlaced.ts", "ffmpeg", FF PIC NOISE "-c:v mpeg2video -flags +ilme+ildct -top 1 mpeg2-interlaced.ts", "out.mkv", ""},
    {"x264-aac.ts", "ffmpeg", FF PIC NOISE "-c:v libx264 -c:a aac x264-aac.ts", "out.mov", ""},
    {"x264-ac3.m2ts", "ffmpeg", FF PIC NOISE "-c:v libx264 -c:a ac3 -mpegts_m2ts_mode 1 x264-ac3.m2ts", "out.mkv", ""},
    {"late-start.ts", "ffmpeg", FF PIC NOISE "-c:v libx264 -c:a aac -output_ts_offset 10 late-start.ts", "out.mkv", ""},
    {"vp8-vorbis.webm", "ffmpeg", FF PIC NOISE "-c:v libvpx -c:a libvorbis vp8-vorbis.webm", "", ""},
    {"vp9-opus.webm", "ffmpeg", FF PIC NOISE "vp9-opus.webm", "", ""},
    {"vp9-opus.mp4", "ffmpeg", FF PIC NOISE "-c:v libvpx-vp9 -c:a libopus vp9-opus.mp4", "", ""},
    {"theora-vorbis.ogv", "ffmpeg", FF PIC NOISE "theora-vorbis.ogv", "out.mkv", ""},
    {"flv1-mp3.flv", "ffmpeg", FF PIC NOISE "flv1-mp3.flv", "out.mkv", ""},
    {"x264-aac.flv", "ffmpeg", FF PIC NOISE "-c:v libx264 -c:a aac x264-aac.flv", "out.mkv", ""},
    {"wmv2-wma.wmv", "ffmpeg", FF PIC NOISE "wmv2-wma.wmv", "out.mkv", ""},
    {"wmv2-wma-to-mov.wmv", "ffmpeg", FF PIC NOISE "wmv2-wma-to-mov.wmv", "out.mov", ""},
    {"x264-flac.mkv", "ffmpeg", FF PIC NOISE "-c:a flac x264-flac.mkv", "", ""},
    {"x264-pcm.mov", "ffmpeg", FF PIC NOISE "-c:a pcm_s16le x264-pcm.mov", "", ""},
    {"x264-eac3.mkv", "ffmpeg", FF PIC NOISE "-c:a eac3 x264-eac3.mkv", "", ""},
    {"x264-ac3.mp4", "ffmpeg", FF PIC NOISE "-c:a ac3 x264-ac3.mp4", "", ""},
    {"x264-opus.mkv", "ffmpeg", FF PIC NOISE "-c:a libopus x264-opus.mkv", "", ""},
    {"x264-vorbis-default.mkv", "ffmpeg", FF PIC NOISE "x264-vorbis-default.mkv", "", ""},
    {"x264-vorbis.mkv", "ffmpeg", FF PIC NOISE "-c:a libvorbis x264-vorbis.mkv", "", ""},
    {"x264-mp3.mkv", "ffmpeg", FF PIC NOISE "-c:a libmp3lame x264-mp3.mkv", "", ""},
    // Shapes: film rate, variable frame rate, sound before and after the
    // picture, a rotated phone movie, two sound tracks.
    {"film-rate.mkv", "ffmpeg", FF "-f lavfi -i testsrc2=s=160x120:r=24000/1001:d=10 " NOISE "-c:a aac film-rate.mkv", "", ""},
    {"vfr.mkv", "ffmpeg", FF PIC NOISE "-vf \"select='not(mod(n\\,3))'\" -fps_mode vfr -c:a aac vfr.mkv", "", ""},
    {"picture-late.mp4", "ffmpeg", FF "-itsoffset 0.5 " PIC NOISE "picture-late.mp4", "", ""},
    {"sound-late.mkv", "ffmpeg", FF PIC "-itsoffset 0.3 " NOISE "-c:a aac sound-late.mkv", "", ""},
    {"rotated.mp4", "ffmpeg", FF PIC NOISE "-metadata:s:v rotate=90 rotated.mp4", "", ""},
    {"two-sounds.mkv", "ffmpeg",
     FF PIC NOISE "-f lavfi -i anoisesrc=c=white:a=0.2:d=10:r=44100:seed=7 -map 0 -map 1 -map 2 -metadata:s:a:1 language=ger -c:a aac two-sounds.mkv",
     "", ""},
    // mkvmerge, remuxing what the ffmpeg program encoded.
    {"mkvmerge.mkv", "mkvmerge", FF PIC NOISE "src.mp4 && mkvmerge -q -o mkvmerge.mkv src.mp4", "", ""},
    {"mkvmerge-to-mp4.mkv", "mkvmerge", FF PIC NOISE "src.mp4 && mkvmerge -q -o mkvmerge-to-mp4.mkv src.mp4", "out.mp4", ""},
    {"mkvmerge-webm.webm", "mkvmerge", FF PIC NOISE "src.webm && mkvmerge -q --webm -o mkvmerge-webm.webm src.webm", "", ""},
    // HandBrake's default preset.
    {"handbrake.mp4", "HandBrakeCLI", FF PIC NOISE "-c:v mpeg4 -q:v 2 src.mkv && HandBrakeCLI -i src.mkv -o handbrake.mp4 >/dev/null 2>&1", "", ""},
    {"handbrake.mkv", "HandBrakeCLI", FF PIC NOISE "-c:v mpeg4 -q:v 2 src.mkv && HandBrakeCLI -i src.mkv -o handbrake.mkv >/dev/null 2>&1", "", ""},
    // mencoder.
    {"mencoder.avi", "mencoder",
     FF PIC NOISE "-c:v mpeg4 -q:v 2 -c:a pcm_s16le src.avi && mencoder -really-quiet src.avi -ovc lavc -oac mp3lame -o mencoder.avi >/dev/null 2>&1",
     "out.mkv", ""},
    // GStreamer's muxers.
    {"gst-qtmux.mov", "gst-launch-1.0",
     "gst-launch-1.0 -q " GST_PIC "! x264enc ! h264parse ! qtmux name=m ! filesink location=gst-qtmux.mov " GST_NOISE "! avenc_aac ! aacparse ! m.",
     "", ""},
    {"gst-mp4mux.mp4", "gst-launch-1.0",
     "gst-launch-1.0 -q " GST_PIC "! x264enc ! h264parse ! mp4mux name=m ! filesink location=gst-mp4mux.mp4 " GST_NOISE "! avenc_aac ! aacparse ! m.",
     "", ""},
    {"gst-matroskamux.mkv", "gst-launch-1.0",
     "gst-launch-1.0 -q " GST_PIC "! x264enc ! h264parse ! matroskamux name=m ! filesink location=gst-matroskamux.mkv " GST_NOISE
     "! avenc_aac ! aacparse ! m.",
     "", ""},
    {"gst-mpegtsmux.ts", "gst-launch-1.0",
     "gst-launch-1.0 -q " GST_PIC "! x264enc ! h264parse ! mpegtsmux name=m ! filesink location=gst-mpegtsmux.ts " GST_NOISE
     "! avenc_aac ! aacparse ! m.",
     "out.mkv", ""},
    {"gst-avimux.avi", "gst-launch-1.0",
     "gst-launch-1.0 -q " GST_PIC "! x264enc ! h264parse ! avimux name=m ! filesink location=gst-avimux.avi " GST_NOISE
     "! lamemp3enc ! m.",
     "out.mkv", ""},
    {"gst-flvmux.flv", "gst-launch-1.0",
     "gst-launch-1.0 -q " GST_PIC "! x264enc ! h264parse ! flvmux name=m ! filesink location=gst-flvmux.flv " GST_NOISE
     "! audioresample ! audio/x-raw,rate=44100 ! lamemp3enc ! mpegaudioparse ! m.",
     "out.mkv", ""},
};

#undef FF
#undef PIC
#undef NOISE
#undef GST_PIC
#undef GST_NOISE

bool installed(std::string const& tool) { return std::system(("command -v " + tool + " >/dev/null 2>&1").c_str()) == 0; }

int sounds(FileInfo const& f)
{
    int n = 0;
    for (auto const& s : f.streams) n += s.type == AVMEDIA_TYPE_AUDIO ? 1 : 0;
    return n;
}

// The backups: sound streams named so and not flagged to play.
int backups(FileInfo const& f)
{
    int n = 0;
    for (auto const& s : f.streams) {
        auto title = s.tags.find("title");
        auto handler = s.tags.find("handler_name");
        bool named = (title != s.tags.end() && title->second == "Backup Sound Track")
                  || (handler != s.tags.end() && handler->second == "Backup Sound Track");
        n += s.type == AVMEDIA_TYPE_AUDIO && named && !(s.disposition & AV_DISPOSITION_DEFAULT) ? 1 : 0;
    }
    return n;
}

std::vector<std::uint64_t> const* picturePackets(FileInfo const& f)
{
    for (auto const& s : f.streams)
        if (s.type == AVMEDIA_TYPE_VIDEO && !(s.disposition & AV_DISPOSITION_ATTACHED_PIC)) return &s.packets;
    return nullptr;
}

std::string familyOf(std::string const& demuxer)
{
    if (demuxer.find("mp4") != std::string::npos) return "quicktime";
    if (demuxer.find("matroska") != std::string::npos) return "matroska";
    return demuxer;
}

class Conformance : public ::testing::TestWithParam<Case> {};

TEST_P(Conformance, SyncedAlongADriftAndAShift)
{
    Case const& c = GetParam();
    if (*c.open) GTEST_SKIP() << c.open;
    if (!installed(c.tool)) GTEST_SKIP() << c.tool << " is not installed";
    ScratchDir dir;
    std::string made = "cd '" + dir.path() + "' && " + c.make;
    ASSERT_EQ(std::system(("bash -c \"" + [&] {
                              std::string escaped;
                              for (char ch : made) {
                                  if (ch == '"' || ch == '\\' || ch == '$' || ch == '`') escaped += '\\';
                                  escaped += ch;
                              }
                              return escaped;
                          }() + "\"")
                              .c_str()),
              0)
        << made;
    std::string source = dir.file(c.name);
    ASSERT_TRUE(exists(source)) << c.make;
    FileInfo before = inspect(source);

    // A drift of +1.25 % from 100 ms early, then a pure shift of 87.3 ms
    // late (not a whole number of sound frames or milliseconds).
    struct Sync {
        char const* what;
        char const* points;
        std::vector<Offset> line;
    };
    auto at = [](double m, double a) { return Offset(myQTTime(std::llround(m * 10000), 10000), myQTTime(std::llround(a * 10000), 10000)); };
    for (Sync const& s : {Sync{"drift", "--point 1=1.1 --point 9=9.2", {at(1, 1.1), at(9, 9.2)}},
                          Sync{"shift", "--point 1=0.9127 --point 9=8.9127", {at(1, 0.9127), at(9, 8.9127)}}}) {
        SCOPED_TRACE(std::string(c.name) + ", " + s.what);
        std::string input = dir.file(std::string(s.what) + "-" + c.name);
        ASSERT_EQ(std::system(("cp '" + source + "' '" + input + "'").c_str()), 0);
        std::string output = *c.output ? dir.file(std::string(s.what) + "-" + c.output) : input;
        std::string where = *c.output ? "-o '" + output + "'" : "--in-place";
        CliRun run = cli("sync '" + input + "' " + s.points + " " + where + " --quiet");
        if (*c.refusal) {
            EXPECT_EQ(run.status, 1) << run.output;
            EXPECT_NE(run.output.find(c.refusal), std::string::npos) << run.output;
            EXPECT_EQ(run.output.find("-o NAME." + std::string(c.output).substr(std::string(c.output).find('.') + 1)), std::string::npos)
                << "the refusal proposes the container just refused: " << run.output;
            if (*c.output) {
                EXPECT_FALSE(exists(output));
            }
            continue;
        }
        ASSERT_EQ(run.status, 0) << run.output;

        FileInfo after = inspect(output);
        // The container: its own in place, the one asked for otherwise.
        if (!*c.output) {
            EXPECT_EQ(familyOf(after.format), familyOf(before.format));
            if (before.tags.count("major_brand")) {
                EXPECT_EQ(after.tags["major_brand"], before.tags["major_brand"]);
            }
        }
        // Every stream kept, one disabled backup more.
        EXPECT_EQ(after.streams.size(), before.streams.size() + 1);
        EXPECT_EQ(sounds(after), sounds(before) + 1);
        EXPECT_EQ(backups(after), 1);
        // The picture's packets unchanged, in order.
        auto const* pictureBefore = picturePackets(before);
        auto const* pictureAfter = picturePackets(after);
        ASSERT_TRUE(pictureBefore && pictureAfter);
        EXPECT_EQ(pictureAfter->size(), pictureBefore->size());
        auto differ = std::mismatch(pictureBefore->begin(), pictureBefore->end(), pictureAfter->begin(), pictureAfter->end());
        EXPECT_TRUE(differ.first == pictureBefore->end() && differ.second == pictureAfter->end())
            << "the picture's packets changed from packet " << (differ.first - pictureBefore->begin());
        // A rotated picture stays rotated.
        for (auto const& st : before.streams)
            if (st.type == AVMEDIA_TYPE_VIDEO && st.sideData.count(AV_PKT_DATA_DISPLAYMATRIX))
                for (auto const& out : after.streams)
                    if (out.type == AVMEDIA_TYPE_VIDEO) {
                        EXPECT_EQ(out.sideData.count(AV_PKT_DATA_DISPLAYMATRIX), 1u);
                    }

        // The sound where the points say, against the original sound.
        media::SoundMeasurement m = media::measureSoundAgainst(source, output);
        // 3GPP files have no place for a tag of our own: the points are not stored.
        if (std::string(c.name).find(".3gp") == std::string::npos && std::string(c.output).find(".3gp") == std::string::npos) {
            EXPECT_EQ(m.pointsFrom, "the synced movie");
        } else {
            m = media::measureSoundAgainst(source, output, {s.line, 0.5, 0.5, 0.25});
        }
        std::printf("[ conformance ] %-22s %-5s %2zu windows, worst %.4f ms, p95 %.4f ms, bias %+.4f ms\n", c.name, s.what, m.windows.size(),
                    m.worst() * 1000, m.percentile(0.95) * 1000, m.bias() * 1000);
        EXPECT_GE(m.windows.size(), 10u);
        EXPECT_EQ(m.unmatched, 0);
        EXPECT_LE(m.percentile(0.95), 0.00005);
        EXPECT_LE(m.worst(), 0.0001);
    }
}

std::string caseName(::testing::TestParamInfo<Case> const& info)
{
    std::string n;
    for (char ch : std::string(info.param.name)) n += std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
    return n;
}

INSTANTIATE_TEST_SUITE_P(Corpus, Conformance, ::testing::ValuesIn(kCases), caseName);

} // namespace
