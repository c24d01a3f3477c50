// dubmatch-cli sync.
#include "AtomicFile.h"
#include "Containers.h"
#include "Evidence.h"
#include "MovieFile.h"
#include "MovieWriter.h"
#include "OffsetList.h"
#include "PointsText.h"
#include "Refusal.h"
#include "SaveCheck.h"
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

int sync(commandline::Parsed const& args, json& out)
{
    auto t0 = std::chrono::steady_clock::now();
    bool asJson = args.has("--json");
    std::string path = args.positionals.at(0);
    std::vector<std::string> pointTexts = args.all("--point");
    std::string output = args.value("--output"), type = args.value("--type");
    bool inPlace = args.has("--in-place"), dryRun = args.has("--dry-run"), quiet = args.has("--quiet") || asJson;
    bool acceptTruncated = args.has("--accept-truncated");
    double minConfidence = 0.5;
    if (args.has("--min-confidence")) {
        if (!args.has("--auto")) throw UsageError("--min-confidence goes with --auto");
        std::string v = args.value("--min-confidence");
        try {
            std::size_t used = 0;
            minConfidence = std::stod(v, &used);
            if (used != v.size()) throw std::invalid_argument(v);
        } catch (std::exception const&) {
            minConfidence = -1;
        }
        if (!(minConfidence >= 0 && minConfidence <= 1)) throw UsageError("--min-confidence takes a number from 0 to 1, not \"" + v + "\"");
    }
    media::SaveOptions options;
    options.dropUnsupported = args.has("--drop-unsupported");
    options.target.replaceWriteProtected = args.has("--force");
    if (args.has("--lossless-shift")) {
        std::string v = args.value("--lossless-shift");
        if (v == "auto") options.losslessShift = media::SaveOptions::LosslessShift::Auto;
        else if (v == "always") options.losslessShift = media::SaveOptions::LosslessShift::Always;
        else if (v == "never") options.losslessShift = media::SaveOptions::LosslessShift::Never;
        else throw UsageError("--lossless-shift takes auto, always or never, not \"" + v + "\"");
    }
    if (args.has("--sound-codec")) {
        try {
            options.soundCodec = media::soundCodecNamed(args.value("--sound-codec"));
        } catch (media::MediaError const& e) {
            throw UsageError(e.what());
        }
    }
    if (!dryRun && output.empty() == !inPlace) throw UsageError("give either -o OUT or --in-place (or --dry-run)");
    if (inPlace && !type.empty()) throw UsageError("--type exports to a new file; it cannot be used with --in-place");
    if (output == "-") throw UsageError("a movie cannot be written to standard output: it is checked as a file before it gets its name");
    std::optional<media::ExportType> exportType;
    if (!type.empty()) {
        try {
            exportType = media::exportTypeNamed(type);
        } catch (media::MediaError const& e) {
            throw UsageError(e.what());
        }
    }

    // A target that is not a regular file is refused by the writer with its own words, whatever its name.
    struct stat targetStat {};
    bool regularOrNew = output.empty() || ::stat(output.c_str(), &targetStat) != 0 || S_ISREG(targetStat.st_mode);
    if (!exportType && !dryRun && !inPlace && regularOrNew && !media::Container::forPath(output))
        throw UsageError("cannot tell the container of \"" + output
                         + "\" from its extension: use .mov, .mp4, .m4v, .mkv or .webm (or --type for the other export types)");

    // The points input is read first: a refused one costs no work on the movie.
    std::optional<std::string> pointsText;
    if (args.has("--points")) pointsText = readPointsText(args.value("--points"));

    out = {{"file", path}, {"output", inPlace ? path : output}, {"in_place", inPlace}, {"dry_run", dryRun}};
    auto session = openSession(path, args);
    media::OpenedMovie const& om = session->file();
    double openSeconds = secondsSince(t0);
    dmsync::SaveTarget target{inPlace ? path : output, inPlace};
    options.container = session->containerFor(target);
    // Not a file: refused by the writer before anything is written.
    if (!options.container) options.container = media::Container::Kind::QuickTime;
    if (om.truncated) {
        char line[256];
        std::snprintf(line, sizeof line, "\"%s\" is cut short: it can be read to %.3f s of the %.3f s it declares.", path.c_str(),
                      om.readableSeconds, om.declaredSeconds);
        if (!acceptTruncated) throw Refused{line, "Nothing was written; give --accept-truncated to sync what there is."};
        note(line);
    }
    OffsetList& list = session->list();
    long scale = list.soundTrack()->timeScale();
    std::vector<Offset> points;
    try {
        for (auto const& t : pointTexts) points.push_back(parsePoint(t, scale));
    } catch (PointsTextError const& e) {
        throw UsageError(e.what());
    }
    if (pointsText)
        for (auto const& p : parsePoints(args.value("--points"), *pointsText, scale)) points.push_back(p);
    if (args.has("--auto")) {
        if (!points.empty() || args.has("--from-movie")) throw UsageError("--auto finds its own points: give no other points");
        auto found = findSuggestions(*session, args, path, quiet);
        auto const& sg = found.suggestion;
        if (found.match)
            for (auto const& d : found.match->differ) note(suggest::differText(d) + ": no point is proposed there.");
        std::vector<suggest::LocalOffset> confident;
        for (auto const& c : sg.candidates)
            if (c.confidence >= minConfidence) confident.push_back(c);
        out["suggested"] = {{"min_confidence", minConfidence},
                            {"candidates", sg.candidates.size()},
                            {"used", confident.size()},
                            {"refusal", sg.refused() ? json(sg.refusal) : json(nullptr)}};
        if (found.match) foundJson(found, out["suggested"]);
        if (sg.refused())
            throw Refused{"Nothing was synced: no sync points can be suggested for \"" + path + "\": " + sg.refusal + ".",
                          "Find the points by ear in Dubmatch, or give them with --point."};
        if (confident.size() < 2) {
            char line[256];
            std::snprintf(line, sizeof line, "only %zu of the %zu suggested points reach the confidence %.2f, and a sync needs two that agree",
                          confident.size(), sg.candidates.size(), minConfidence);
            throw Refused{std::string("Nothing was synced: ") + line + ".",
                          "Lower --min-confidence, or check the points with dubmatch-cli suggest."};
        }
        for (auto const& c : confident) points.emplace_back(myQTTime(c.movieTime, scale), myQTTime(c.audioTime, scale));
        if (!asJson) note("syncing with " + std::to_string(points.size()) + " suggested point(s) of confidence " + std::to_string(minConfidence).substr(0, 4) + " or more.");
    }
    auto const& stored = session->storedPoints();
    bool fromMovie = args.has("--from-movie") || (points.empty() && stored && !stored->empty());
    if (fromMovie) {
        if (!points.empty()) throw UsageError("--from-movie takes the points stored in the movie: give no other points");
        if (!stored) throw Refused{"\"" + path + "\" carries no sync points that can be used.", session->storedNote()};
        points = *stored;
        note("using the " + std::to_string(points.size()) + " sync point(s) stored in the movie.");
    }
    if (points.empty()) note("no sync points given: the sound is written unchanged.");
    // The line is checked before any work: a mistaken point costs nothing.
    Prediction predicted = session->predict(points, options.soundCodec);
    out["prediction"] = predictionJson(predicted);
    if (!predicted.problem.empty()) {
        std::string check = fromMovie ? "The points stored in the movie do not fit it: give points with --point or --points."
                            : args.has("--auto")
                                ? "Check the suggested points with dubmatch-cli suggest, or give points with --point."
                                : "Check the points: each pairs a time of this movie's picture with the time of its unedited sound, "
                                  "as MOVIE_TIME=AUDIO_TIME.";
        throw Refused{predicted.problem, "Nothing was written. " + check};
    }
    list.replacePoints(points);
    out["points_from_movie"] = fromMovie;

    int fields = list.duration().width();
    out["fit"] = {{"slope", list.slope()}, {"intercept", list.intercept()}, {"kept_previous_line", list.keptPreviousLine()}};
    out["points"] = json::array();
    std::ostringstream text;
    char line[256];
    std::snprintf(line, sizeof line, "slope %.9f (sound runs %+.4f %% against the picture), intercept %+.6f s\n", list.slope(),
                  (list.slope() - 1) * 100, list.intercept());
    text << line;
    if (list.keptPreviousLine()) text << "These points admit no line with a positive slope; the sound is left as it was.\n";
    text << predictionText(predicted);
    std::snprintf(line, sizeof line, "%-14s %-14s %12s  %s\n", "movie time", "audio time", "residual ms", "flag");
    text << line;
    for (auto const& p : list.points()) {
        double r = list.residual(p);
        std::snprintf(line, sizeof line, "%-14s %-14s %12.3f  %s\n", clock(p.movieTime, fields).c_str(), clock(p.audioTime, fields).c_str(),
                      r * 1000, p.flag ? "strays" : "");
        text << line;
        out["points"].push_back(
            {{"movie_time", p.movieTime.seconds()}, {"audio_time", p.audioTime.seconds()}, {"residual_ms", r * 1000}, {"strays", p.flag}});
    }
    if (!asJson) std::cout << text.str() << std::flush;
    out["written"] = nullptr;
    if (dryRun) {
        out["timings"] = {{"open_seconds", openSeconds}, {"write_seconds", 0.0}, {"total_seconds", secondsSince(t0)}};
        return kOk;
    }

    media::WriteResult result;
    options.stop = &gStop;
    std::string written = target.path;
    target.exportType = exportType;
    // A stop once the new file is in place changes nothing on disk: the sync is done.
    setStopAnswers({stopAnswer(true, "")});
    auto w0 = std::chrono::steady_clock::now();
    try {
        result = session->save(target, progressBar(quiet), options);
    } catch (media::StreamsLeftOut const& e) {
        throw Refused{std::string("nothing was written. ") + e.what(),
                      "Write to another container (-o NAME.mkv takes almost anything), or accept the loss with --drop-unsupported."};
    }
    if (gStop) result.notes.push_back("the stop came after \"" + written + "\" was complete: it is kept, and the sync is done.");
    for (auto const& n : result.notes) note(n);
    out["written"] = {{"path", written}, {"bytes", result.bytes}, {"notes", result.notes}};
    out["timings"] = {{"open_seconds", openSeconds}, {"write_seconds", secondsSince(w0)}, {"total_seconds", secondsSince(t0)}};
    if (!asJson) std::printf("wrote %s (%.1f MB)\n", written.c_str(), static_cast<double>(result.bytes) / 1e6);
    return kOk;
}

} // namespace cli
