// A dub beside the original language, as the ffmpeg program muxes it at its
// defaults (x264 with B-frames, AAC): the dub chosen with --track, its
// points found against the original track, the sync written and proved by
// where the dub's sound now lies against the original's.
#include "CliRun.h"
#include "FileInspect.h"
#include "MediaTestSupport.h"
#include "MovieSession.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdlib>
#include <string>

using namespace testsupport;
using json = nlohmann::json;

namespace {

bool installed(std::string const& tool) { return std::system(("command -v " + tool + " >/dev/null 2>&1").c_str()) == 0; }

// A bed of pink noise in bursts (music and effects), and "speech" of white
// noise pulsing at syllable rate that differs between the languages. The
// dub's bed runs at 24/25 of the picture's speed (a PAL transfer) and starts
// 1.7 s late: its audio time a = 24/25 m + 1.7.
constexpr double kSpeed = 24.0 / 25.0;
constexpr double kOffset = 1.7;
constexpr char const* kMake =
    "ffmpeg -nostdin -y -v error -f lavfi -i 'anoisesrc=c=pink:a=0.5:d=60:r=48000:seed=3,"
    "volume=eval=frame:volume=0.3+0.35*(1+sgn(sin(2*PI*t*0.37)+sin(2*PI*t*1.3)))' bed.wav && "
    "ffmpeg -nostdin -y -v error -f lavfi -i 'anoisesrc=c=white:a=0.3:d=70:r=48000:seed=11,"
    "volume=eval=frame:volume=0.5*(1+sgn(sin(2*PI*t*4.1)*sin(2*PI*t*0.23)))' en.wav && "
    "ffmpeg -nostdin -y -v error -f lavfi -i 'anoisesrc=c=white:a=0.3:d=70:r=48000:seed=29,"
    "volume=eval=frame:volume=0.5*(1+sgn(sin(2*PI*t*3.7)*sin(2*PI*t*0.19)))' de.wav && "
    "ffmpeg -nostdin -y -v error -i bed.wav -i en.wav -filter_complex '[0][1]amix=inputs=2:duration=first:normalize=0' english.wav && "
    "ffmpeg -nostdin -y -v error -i bed.wav -i de.wav -filter_complex "
    "'[0]asetrate=50000,aresample=48000,adelay=1700:all=1[b];[b][1]amix=inputs=2:duration=first:normalize=0' german.wav && "
    "ffmpeg -nostdin -y -v error -f lavfi -i testsrc2=s=160x120:r=25:d=60 -i english.wav -i german.wav -map 0 -map 1 -map 2 "
    "-c:v libx264 -c:a aac -metadata:s:a:0 language=eng -metadata:s:a:0 title=English -metadata:s:a:1 language=ger "
    "-metadata:s:a:1 title=German -disposition:a:0 default -disposition:a:1 0 -t 60 dub.mkv && "
    "ffmpeg -nostdin -y -v error -f lavfi -i 'anoisesrc=c=pink:a=0.5:d=60:r=48000:seed=77' other.wav";

std::string makeDub(ScratchDir const& dir)
{
    std::string cmd = "cd '" + dir.path() + "' && " + kMake;
    std::string quoted;
    for (char ch : cmd) {
        if (ch == '"' || ch == '\\' || ch == '$' || ch == '`') quoted += '\\';
        quoted += ch;
    }
    EXPECT_EQ(std::system(("bash -c \"" + quoted + "\"").c_str()), 0);
    return dir.file("dub.mkv");
}

TEST(Dub, ChosenTrackSyncedToTheOriginalLanguage)
{
    if (!installed("ffmpeg")) GTEST_SKIP() << "ffmpeg is not installed";
    ScratchDir dir;
    std::string movie = makeDub(dir);
    ASSERT_TRUE(exists(movie));

    // The default is the English track; --track chooses the dub.
    auto info = json::parse(cliStdout("info '" + movie + "' --json").output);
    EXPECT_EQ(info["sound_track"], 2);
    info = json::parse(cliStdout("info '" + movie + "' --track 3 --json").output);
    EXPECT_EQ(info["sound_track"], 3);
    CliRun notSound = cli("info '" + movie + "' --track 1");
    EXPECT_EQ(notSound.status, 1);
    EXPECT_NE(notSound.output.find("is not a sound track"), std::string::npos) << notSound.output;

    // Points against the English track: on the line within a millisecond.
    // The ffmpeg program starts both AAC tracks with the encoder's priming
    // (1024 samples) in the file, the picture moved by as much: on the
    // file's timelines the dub's line is a = r (m - p) + c + p.
    constexpr double kPriming = 1024.0 / 48000;
    CliRun suggested = cliStdout("suggest '" + movie + "' --track 3 --reference 2 --json --quiet");
    ASSERT_EQ(suggested.status, 0) << suggested.output;
    auto s = json::parse(suggested.output);
    ASSERT_TRUE(s["line"].is_object());
    EXPECT_EQ(s["speed_name"], "24/25");
    for (double t : {0.0, 60.0})
        EXPECT_NEAR(s["line"]["slope"].get<double>() * t + s["line"]["intercept"].get<double>(), kSpeed * (t - kPriming) + kOffset + kPriming, 0.001) << t;
    EXPECT_GE(s["candidates"].size(), 2u);
    EXPECT_TRUE(s["differ"].empty());

    // The sync: the dub re-timed, the picture and the English track copied.
    std::string out = dir.file("synced.mkv");
    CliRun sync = cli("sync '" + movie + "' --track 3 --reference 2 --auto -o '" + out + "' --quiet");
    ASSERT_EQ(sync.status, 0) << sync.output;
    FileInfo before = inspect(movie), after = inspect(out);
    ASSERT_EQ(after.streams.size(), 4u); // picture, English, the dub, its backup
    EXPECT_EQ(after.streams[0].packets, before.streams[0].packets);
    EXPECT_EQ(after.streams[1].packets, before.streams[1].packets);
    EXPECT_EQ(after.streams[1].tags["language"], "eng");
    EXPECT_TRUE(after.streams[1].disposition & AV_DISPOSITION_DEFAULT);
    EXPECT_EQ(after.streams[2].tags["language"], "ger");
    EXPECT_EQ(after.streams[2].tags["title"], "German");
    EXPECT_FALSE(after.streams[2].disposition & AV_DISPOSITION_DEFAULT);
    EXPECT_EQ(after.streams[3].tags["title"], "Backup Sound Track");

    // The dub now lies where the English sound does.
    auto measured = json::parse(cliStdout("measure '" + out + "' --track 3 --reference 2 --json").output);
    ASSERT_GE(measured["windows"].size(), 20u) << measured.dump();
    EXPECT_LT(measured["worst_ms"].get<double>(), 1.0);
    // Measured against the movie it came from: the English track did not
    // move (the stored points are the dub's), the dub moved as they say.
    auto english = json::parse(cliStdout("measure '" + movie + "' '" + out + "' --track 2 --json").output);
    EXPECT_EQ(english["points_from"], "none (the sound should not have moved)");
    EXPECT_LT(english["worst_ms"].get<double>(), 0.1) << english.dump();
    auto dubbed = json::parse(cliStdout("measure '" + movie + "' '" + out + "' --track 3 --json").output);
    EXPECT_EQ(dubbed["points_from"], "the synced movie");
    EXPECT_EQ(dubbed["unmatched"], 0);
    EXPECT_LT(dubbed["worst_ms"].get<double>(), 0.1) << dubbed.dump();

    // Opened again, the dub is the sound to sync, its backup the unedited
    // sound; a sync of the English track would undo it and is refused.
    auto again = dmsync::MovieSession::open(out);
    ASSERT_TRUE(again->canSync()) << again->refusal().message;
    EXPECT_TRUE(again->syncedBefore());
    EXPECT_EQ(again->list().soundTrack()->id(), 3);
    EXPECT_EQ(again->list().soundTrack()->displayName(), "German");
    EXPECT_FALSE(again->list().soundTrack()->isEnabled());
    auto other = dmsync::MovieSession::open(out, 2);
    EXPECT_FALSE(other->canSync());
    EXPECT_NE(other->refusal().message.find("would undo that sync"), std::string::npos) << other->refusal().message;

    // A reference from another film is refused with a reason.
    CliRun unrelated = cliStdout("suggest '" + movie + "' --track 3 --reference '" + dir.file("other.wav") + "' --json --quiet");
    EXPECT_EQ(unrelated.status, 1);
    auto u = json::parse(unrelated.output);
    EXPECT_TRUE(u["refusal"].is_string()) << u.dump();
    EXPECT_TRUE(u["candidates"].empty());
    // The sound to sync is no reference for itself.
    EXPECT_EQ(cli("suggest '" + movie + "' --track 3 --reference 3 --quiet").status, 1);
}

} // namespace
