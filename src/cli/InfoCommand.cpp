// dubmatch-cli info, and the prediction of what a sync writes.
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
#include <charconv>
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

namespace {
// A track number as info lists it: a whole number from 1.
int parseTrackNumber(std::string const& v, std::string const& option)
{
    int n = 0;
    auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), n);
    if (ec != std::errc() || end != v.data() + v.size() || n < 1)
        throw UsageError(option + " takes a track number as info lists it (1, 2, ...), not \"" + v + "\"");
    return n;
}
} // namespace

int trackNumber(commandline::Parsed const& args, std::string const& option)
{
    return args.has(option) ? parseTrackNumber(args.value(option), option) : 0;
}

ReferenceSound referenceSound(commandline::Parsed const& args, std::string const& movie)
{
    std::string v = args.value("--reference");
    if (v.empty()) throw UsageError("--reference takes a track number of the movie or another movie or sound file");
    // All digits: a track of the movie; anything else names a file.
    if (std::all_of(v.begin(), v.end(), [](char c) { return c >= '0' && c <= '9'; })) return {movie, parseTrackNumber(v, "--reference")};
    return {v, 0};
}

int soundStreamOfTrack(std::string const& path, int track)
{
    if (track == 0) return -1;
    media::OpenedMovie m = media::openMovie(path);
    dm::TrackPtr t = m.movie->trackWithID(track);
    if (!t || t->mediaType() != dm::MediaType::Sound)
        throw Refused("Track " + std::to_string(track) + " of \"" + path + "\" is not a sound track.", "dubmatch-cli info lists the tracks.");
    return media::OpenedMovie::mediaOf(*t).streamIndex;
}

std::unique_ptr<dmsync::MovieSession> openSession(std::string const& path, commandline::Parsed const& args)
{
    auto session = dmsync::MovieSession::open(path, trackNumber(args, "--track"));
    for (auto const& n : session->notes()) note(n + ".");
    return session;
}

json predictionJson(Prediction const& p)
{
    return {{"points", p.points},
            {"movie_seconds", p.movieSeconds},
            {"unedited_sound_seconds", p.uneditedSoundSeconds},
            {"sound_seconds", p.soundSeconds},
            {"limit_seconds", p.limitSeconds},
            {"input_bytes", p.inputBytes},
            {"output_bytes", p.outputBytes},
            {"problem", p.problem.empty() ? json(nullptr) : json(p.problem)}};
}

std::string sizeText(std::int64_t bytes)
{
    char text[64];
    double b = static_cast<double>(bytes);
    if (b < 1e6) std::snprintf(text, sizeof text, "%.0f kB", b / 1e3);
    else if (b < 1e9) std::snprintf(text, sizeof text, "%.1f MB", b / 1e6);
    else std::snprintf(text, sizeof text, "%.2f GB", b / 1e9);
    return text;
}

std::string predictionText(Prediction const& p)
{
    char line[320];
    std::snprintf(line, sizeof line, "re-timed sound: ends at %.3f s in a movie of %.3f s (a sync writes sound up to %.3f s); ",
                  p.soundSeconds, p.movieSeconds, p.limitSeconds);
    return line + ("the new file: about " + sizeText(p.outputBytes) + " (this one: " + sizeText(p.inputBytes) + ")\n");
}

int info(commandline::Parsed const& args, json& out)
{
    bool asJson = args.has("--json");
    std::string path = args.positionals.at(0);
    auto session = openSession(path, args);
    media::OpenedMovie const& om = session->file();
    dm::Movie& movie = session->movie();
    myQTTime duration = movie.duration();
    int fields = duration.width();
    out = {{"file", path}, {"format", om.formatName}, {"duration", duration.seconds()}, {"truncated", om.truncated},
           {"notes", om.notes}, {"tracks", json::array()}, {"sound_track", nullptr}, {"save", nullptr}};
    if (om.truncated) {
        out["readable_seconds"] = om.readableSeconds;
        out["declared_seconds"] = om.declaredSeconds;
    }
    std::ostringstream text;
    text << path << " (" << om.formatName << "), duration " << clock(duration, fields) << "\n";
    if (om.truncated) {
        char line[128];
        std::snprintf(line, sizeof line, "  the file is cut short: readable to %.3f s of %.3f s\n", om.readableSeconds, om.declaredSeconds);
        text << line;
    }
    for (auto const& t : movie.tracks()) {
        auto const& m = media::OpenedMovie::mediaOf(*t);
        QTTimeRange r = t->range();
        text << "  track " << t->id() << ": " << dm::mediaTypeName(t->mediaType()) << ", " << m.codecName();
        if (t->mediaType() == dm::MediaType::Sound) text << ", " << m.sampleRate << " Hz, " << m.channels << " channels";
        if (t->mediaType() == dm::MediaType::Video) {
            text << ", " << m.width << "x" << m.height;
            auto [w, h] = m.displaySize();
            if (m.rotation != 0) text << " turned " << m.rotation << " degrees clockwise";
            if (m.rotation != 0 || w != m.width || h != m.height) text << " (shown " << w << "x" << h << ")";
        }
        text << ", " << (t->isEnabled() ? "enabled" : "disabled") << ", \"" << t->displayName() << "\", " << clock(myQTTime(r.time), fields)
             << " + " << clock(myQTTime(r.duration), fields) << "\n";
        out["tracks"].push_back(trackJson(*t));
    }
    auto finish = [&](int status) {
        if (!asJson) std::cout << text.str();
        return status;
    };
    if (!session->canSync()) finish(kFailed);
    OffsetList& list = session->list();
    // What a save does: with the points the movie carries, as sync uses them.
    std::vector<Offset> stored = session->storedPoints().value_or(std::vector<Offset>{});
    Prediction predicted = session->predict(stored, media::SoundCodec::Same);
    out["prediction"] = predictionJson(predicted);
    if (!stored.empty() && predicted.problem.empty()) list.replacePoints(stored);
    text << "sound track to sync: track " << list.soundTrack()->id() << " (\"" << list.soundTrack()->displayName() << "\")\n";
    out["sound_track"] = list.soundTrack()->id();
    auto const& storedPoints = session->storedPoints();
    out["saved_sync"] = {{"backup_adopted", session->syncedBefore()},
                         {"points", storedPoints ? json(storedPoints->size()) : json(nullptr)},
                         {"note", session->storedNote()}};
    if (session->syncedBefore())
        text << "synced before: the backup is the sound to sync"
             << (storedPoints ? ", with " + std::to_string(storedPoints->size()) + " stored sync point(s) (sync uses them when given none)"
                              : "; no sync points stored")
             << "\n";
    if (!stored.empty()) text << "with the stored sync points, " << predictionText(predicted);
    if (!predicted.problem.empty()) text << "sync refuses the stored sync points: " << predicted.problem << "\n";

    // What a save does: in place where the container is written, else as a copy.
    using Kind = media::Container::Kind;
    std::vector<media::Container> tried = {session->saveAsContainer()};
    for (media::Container c : {Kind::Matroska, Kind::QuickTime, Kind::Mpeg4})
        if (tried.front() != c) tried.push_back(c);
    std::string failure;
    for (auto const container : tried) {
        media::SaveOptions options;
        options.container = container;
        media::SavePlan plan;
        try {
            plan = session->plan(options);
        } catch (media::MediaError const& e) {
            if (failure.empty()) failure = e.what();
            continue;
        }
        bool inPlace = container == tried.front() && om.container;
        if (inPlace) text << "saving in place (" << container.title() << "):\n";
        else
            text << "saving as a new " << container.title() << " file (-o NAME." << container.extension() << ")"
                 << (!om.container ? "; this container is read, not written, so --in-place is refused" : "") << ":\n";
        json save = {{"mode", inPlace ? "in-place" : "new-file"},
                     {"container", container.muxer()},
                     {"extension", container.extension()},
                     {"tracks", json::array()},
                     {"notes", plan.notes},
                     {"losses", plan.losses}};
        for (auto const& t : plan.tracks) {
            text << "  " << t.description << ": " << t.detail << "\n";
            save["tracks"].push_back({{"id", t.trackId}, {"description", t.description}, {"how", howName(t.how)}, {"detail", t.detail}});
        }
        for (auto const& n : plan.notes) text << "  note: " << n << "\n";
        if (!plan.losses.empty())
            text << "  " << plan.losses.size() << " stream(s) would be left out: sync refuses unless --drop-unsupported\n";
        out["save"] = save;
        return finish(kOk);
    }
    finish(kFailed);
    throw Refused("This movie cannot be saved in any container Dubmatch writes: " + failure);
}


} // namespace cli
