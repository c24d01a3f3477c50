// dubmatch-cli demo and measure.
#include "AtomicFile.h"
#include "Containers.h"
#include "Evidence.h"
#include "MovieFile.h"
#include "MovieWriter.h"
#include "OffsetList.h"
#include "PointsText.h"
#include "Refusal.h"
#include "SaveCheck.h"
#include "MovieSession.h"
#include "SoundMeasure.h"
#include "SavedSync.h"
#include "SyncLimits.h"
#include "CliShared.h"
#include "Options.h"
#include "TestMovie.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cmath>
#include <set>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace cli {

int demo(commandline::Parsed const& args)
{
    std::string out = args.positionals.at(0);
    media::TestMovieSpec spec;
    spec.seconds = 30;
    auto number = [&](std::string const& option, std::string const& what, double fallback) {
        if (!args.has(option)) return fallback;
        std::string v = args.value(option);
        try {
            std::size_t used = 0;
            double d = std::stod(v, &used);
            if (used != v.size() || !std::isfinite(d)) throw std::invalid_argument(v);
            return d;
        } catch (std::exception const&) {
            throw UsageError("not a number for " + what + ": \"" + v + "\"");
        }
    };
    spec.seconds = number("--seconds", "seconds", spec.seconds);
    spec.fpsNum = static_cast<int>(number("--fps", "frames per second", spec.fpsNum));
    spec.audioOffset = number("--offset", "an offset in seconds", spec.audioOffset);
    spec.audioRate = number("--rate", "a rate", spec.audioRate);
    if (args.has("--size")) {
        std::string v = args.value("--size");
        if (std::sscanf(v.c_str(), "%dx%d", &spec.width, &spec.height) != 2 || spec.width < 16 || spec.height < 16 || spec.width > 7680
            || spec.height > 4320)
            throw UsageError("bad size \"" + v + "\" (use WxH, e.g. 1280x720)");
        spec.width &= ~1;
        spec.height &= ~1;
    }
    std::string pointsFile = args.value("--points-file");
    if (spec.seconds < 3 || spec.seconds > 6 * 3600) throw UsageError("--seconds must lie between 3 and 21600");
    if (spec.fpsNum < 1 || spec.fpsNum > 120) throw UsageError("--fps must lie between 1 and 120");
    if (!(spec.audioRate > 0.5 && spec.audioRate < 2)) throw UsageError("--rate must lie between 0.5 and 2");
    // A stop once the movie is in place leaves it complete; the points file
    // comes after it, and a stop before that is said to have left it out.
    StopAnswer finish = stopAnswer(true, "");
    if (pointsFile.empty()) setStopAnswers({finish});
    else setStopAnswers({stopAnswer(false, "stopped; \"" + out + "\" is complete, but the points file \"" + pointsFile + "\" was not written."),
                         finish});
    {
        // Like a save: the movie appears whole under its name or not at all.
        media::AtomicFile file(out, media::AtomicFile::Kind::NewOrReplace);
        media::writeTestMovie(file.path(), spec);
        media::verifyFileReadsAs(file.path(), "mov", 2);
        media::OpenedMovie back = media::openMovie(file.path());
        if (back.truncated || std::fabs(back.movie->duration().seconds() - spec.seconds) > 0.5)
            throw media::SaveCheckFailed("The new demo movie does not read back whole.");
        file.commit();
    }
    auto marks = media::testMovieMarks(spec);
    std::printf("wrote %s: %.0f s, %dx%d at %d fps, %zu flashes, sound %+.3f s and x%.5f against the picture\n", out.c_str(),
                spec.seconds, spec.width, spec.height, spec.fpsNum, marks.size(), spec.audioOffset, spec.audioRate);
    if (!pointsFile.empty() && !marks.empty()) {
        media::AtomicFile file(pointsFile, media::AtomicFile::Kind::NewOrReplace);
        std::vector<Offset> points;
        {
            std::ofstream f(file.path());
            std::size_t n = marks.size();
            // At the sound's rate, the scale points are read back at.
            auto at = [&](double seconds) { return myQTTime(static_cast<long long>(std::llround(seconds * spec.sampleRate)), spec.sampleRate); };
            // Up to four marks spread over the movie, each once (a short demo has fewer).
            for (std::size_t k : std::set<std::size_t>{0, n / 3, 2 * n / 3, n - 1}) points.emplace_back(at(marks[k].movieTime), at(marks[k].audioTime));
            f << formatPointsText(points, "sync points for " + out);
            f.close();
            if (!f) throw media::MediaError("Cannot write the points file \"" + pointsFile + "\".");
        }
        file.commit();
        std::printf("wrote %s: %zu sync point%s\n", pointsFile.c_str(), points.size(), points.size() == 1 ? "" : "s");
    }
    if (gStop) note("the stop came after everything was written: the files are complete.");
    return kOk;
}

int measureFlashes(std::string const& path)
{
    auto m = media::measureSync(path);
    std::printf("%zu flashes, %zu clicks\n", m.flashes.size(), m.clicks.size());
    for (std::size_t i = 0; i < m.flashes.size(); ++i) std::printf("  flash at %9.3f s: click %+9.3f ms\n", m.flashes[i], m.errors[i] * 1000);
    std::printf("worst: %.3f ms\n", m.worst() * 1000);
    return m.flashes.empty() ? kFailed : kOk;
}

int measure(commandline::Parsed const& args, json& out)
{
    bool againstReference = args.has("--reference");
    if (againstReference && args.positionals.size() > 1)
        throw UsageError("--reference measures one movie's sound: measure MOVIE --track N --reference TRACK|FILE");
    if (args.positionals.size() < 2 && !againstReference) {
        if (args.has("--point") || args.has("--points") || args.has("--json") || args.has("--track"))
            throw UsageError("--point, --points, --track and --json need the synced movie: measure ORIGINAL SYNCED");
        return measureFlashes(args.positionals.at(0));
    }
    media::SoundMeasureOptions options;
    std::string originalPath, syncedPath;
    int track = trackNumber(args, "--track");
    if (againstReference) {
        // A synced track against another sound (the original language's
        // track beside a dub): where the points put it, else where the
        // reference's sound is.
        syncedPath = args.positionals.at(0);
        ReferenceSound ref = referenceSound(args, syncedPath);
        originalPath = ref.path;
        options.originalStream = soundStreamOfTrack(ref.path, ref.track);
        options.useStoredPoints = false;
    } else {
        // A save keeps the tracks' numbers: the same track in both files.
        originalPath = args.positionals.at(0);
        syncedPath = args.positionals.at(1);
        options.originalStream = soundStreamOfTrack(originalPath, track);
        // The stored points re-time one track: another should not have moved.
        if (track != 0) {
            auto synced = dmsync::MovieSession::open(syncedPath);
            if (!synced->canSync() || synced->list().soundTrack()->id() != track) options.useStoredPoints = false;
        }
    }
    options.syncedStream = soundStreamOfTrack(syncedPath, track);
    if (args.has("--point") || args.has("--points")) {
        std::vector<Offset> points;
        long scale = 1000000000L; // nanoseconds: typed times are kept exactly enough to measure against
        for (auto const& text : args.all("--point")) {
            try {
                points.push_back(parsePoint(text, scale));
            } catch (PointsTextError const& e) {
                throw UsageError("--point " + text + ": " + e.what());
            }
        }
        if (args.has("--points"))
            for (auto const& p : readPoints(args.value("--points"), scale)) points.push_back(p);
        options.points = points;
    }
    auto m = media::measureSoundAgainst(originalPath, syncedPath, options);
    // Against another track only the sound both share (music and effects
    // under different speech) can match: windows of speech alone do not.
    bool found = againstReference ? !m.windows.empty() : m.unmatched == 0 && !m.windows.empty();
    json windows = json::array();
    for (auto const& w : m.windows) windows.push_back({{"movie_time", w.movieTime}, {"error_ms", w.error * 1000}, {"match", w.match}});
    out = {{"original", originalPath}, {"synced", syncedPath}, {"points_from", m.pointsFrom},
           {"original_stream", options.originalStream}, {"synced_stream", options.syncedStream},
           {"slope", m.slope}, {"intercept", m.intercept}, {"windows", windows}, {"unmatched", m.unmatched}, {"silent", m.silent},
           {"worst_ms", m.worst() * 1000}, {"p95_ms", m.percentile(0.95) * 1000}, {"bias_ms", m.bias() * 1000}};
    if (!args.has("--json")) {
        std::printf("line from %s: slope %.9f, intercept %+.6f s\n", m.pointsFrom.c_str(), m.slope, m.intercept);
        std::printf("%zu windows measured, %d silent, %d not found near the line\n", m.windows.size(), m.silent, m.unmatched);
        if (!m.windows.empty())
            std::printf("worst %.4f ms, 95th percentile %.4f ms, bias %+.4f ms\n", m.worst() * 1000, m.percentile(0.95) * 1000, m.bias() * 1000);
    }
    if (!found) {
        if (m.windows.empty() && m.unmatched == 0) throw Refused{"No window of the synced movie has sound to measure.", ""};
        return kFailed;
    }
    return kOk;
}

} // namespace cli
