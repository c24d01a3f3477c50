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

// The end of a sound track on its own timeline, in seconds.
double soundEndSeconds(dm::Track const& sound)
{
    QTTimeRange r = sound.range();
    return myQTTime(QTTime{r.time.timeValue + r.duration.timeValue, r.time.timeScale, 0}).seconds();
}

// About how many bytes a second of the re-timed sound takes in the new file.
double soundBytesPerSecond(dm::Track const& sound, media::SoundCodec codec)
{
    auto const& m = media::OpenedMovie::mediaOf(sound);
    AVCodecParameters const* par = m.codecpar;
    int bits = par->bits_per_raw_sample > 0 ? par->bits_per_raw_sample : av_get_bits_per_sample(par->codec_id);
    if (bits <= 0) bits = 16;
    double channels = std::max(1, m.channels);
    double pcm = std::max(1, m.sampleRate) * channels * ((bits + 7) / 8);
    double source = par->bit_rate > 0 ? static_cast<double>(par->bit_rate) / 8 : pcm;
    switch (codec) {
    case media::SoundCodec::Same: return source;
    case media::SoundCodec::Pcm: return pcm;
    case media::SoundCodec::Flac:
    case media::SoundCodec::Alac: return pcm * 0.6; // what lossless coding typically keeps
    case media::SoundCodec::Aac: return source < pcm ? source : 16000 * channels; // a lossy source keeps its rate
    }
    return source;
}



// `list` has no points yet: its sound track is the unedited sound. A movie
// synced before holds a re-timed sound that the new one replaces.
Prediction predict(std::string const& path, OffsetList const& list, std::vector<Offset> const& points, bool syncedBefore,
                   media::SoundCodec codec)
{
    dm::Track const& sound = *list.soundTrack();
    synclimits::Extent extent{list.duration().seconds(), soundEndSeconds(sound)};
    Prediction p;
    p.points = points.size();
    p.movieSeconds = extent.movie;
    p.uneditedSoundSeconds = extent.sound;
    p.limitSeconds = synclimits::longestRetimedSound(extent);
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) p.inputBytes = st.st_size;
    p.soundSeconds = extent.sound;
    p.outputBytes = p.inputBytes;
    if (points.empty()) return p; // the sound is written unchanged, without a backup
    SyncLine line = fitSyncLine(points, list.duration());
    p.problem = synclimits::problemWith(points, line, extent);
    if (line.fitted) p.soundSeconds = synclimits::retimedSoundEnd(line, extent.sound);
    double perSecond = soundBytesPerSecond(sound, codec);
    double bytes = static_cast<double>(p.inputBytes) + perSecond * (p.soundSeconds - (syncedBefore ? extent.sound : 0.0));
    p.outputBytes = static_cast<std::int64_t>(std::clamp(bytes, 0.0, 9e18));
    return p;
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
    media::OpenedMovie om = media::openMovie(path);
    for (auto const& n : om.notes) note(n + ".");
    dm::Movie& movie = *om.movie;
    SavedSync saved = adoptSavedSync(movie, om.syncPointsTag);
    if (!saved.note.empty()) note(saved.note);
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
        text << "  track " << t->id() << ": " << dm::mediaTypeName(t->mediaType()) << ", " << avcodec_get_name(m.codecpar->codec_id);
        if (t->mediaType() == dm::MediaType::Sound) text << ", " << m.sampleRate << " Hz, " << m.channels << " channels";
        if (t->mediaType() == dm::MediaType::Video) text << ", " << m.width << "x" << m.height;
        text << ", " << (t->isEnabled() ? "enabled" : "disabled") << ", \"" << t->displayName() << "\", " << clock(myQTTime(r.time), fields)
             << " + " << clock(myQTTime(r.duration), fields) << "\n";
        out["tracks"].push_back(trackJson(*t));
    }
    auto finish = [&](int status) {
        if (!asJson) std::cout << text.str();
        return status;
    };
    auto made = makeOffsetList(&movie, nullptr);
    if (auto* refusal = std::get_if<Refusal>(&made)) {
        finish(kFailed);
        throw Refused{refusal->message, refusal->suggestion};
    }
    auto& list = *std::get<std::unique_ptr<OffsetList>>(made);
    // What a save does: with the points the movie carries, as sync uses them.
    std::vector<Offset> stored = saved.points ? *saved.points : std::vector<Offset>{};
    Prediction predicted = predict(path, list, stored, saved.backupAdopted, media::SoundCodec::Same);
    out["prediction"] = predictionJson(predicted);
    if (!stored.empty() && predicted.problem.empty()) list.replacePoints(stored);
    text << "sound track to sync: track " << list.soundTrack()->id() << " (\"" << list.soundTrack()->displayName() << "\")\n";
    out["sound_track"] = list.soundTrack()->id();
    out["saved_sync"] = {{"backup_adopted", saved.backupAdopted},
                         {"points", saved.points ? json(saved.points->size()) : json(nullptr)},
                         {"note", saved.note}};
    if (saved.backupAdopted)
        text << "synced before: the backup is the sound to sync"
             << (saved.points ? ", with " + std::to_string(saved.points->size()) + " stored sync point(s) (sync uses them when given none)"
                              : "; no sync points stored")
             << "\n";
    if (!stored.empty()) text << "with the stored sync points, " << predictionText(predicted);
    if (!predicted.problem.empty()) text << "sync refuses the stored sync points: " << predicted.problem << "\n";

    // What a save does: in place where the container is written, else as a copy.
    std::vector<std::string> tried = {media::containerForSaveAs(om.container, om.formatName)};
    for (char const* c : {"matroska", "mov", "mp4"})
        if (tried.front() != c) tried.push_back(c);
    std::string failure;
    for (auto const& container : tried) {
        media::SaveOptions options;
        options.container = container;
        media::SavePlan plan;
        try {
            plan = media::planSave(movie, options);
        } catch (media::MediaError const& e) {
            if (failure.empty()) failure = e.what();
            continue;
        }
        bool inPlace = container == tried.front() && !om.container.empty();
        if (inPlace) text << "saving in place (" << media::containerTitle(container) << "):\n";
        else
            text << "saving as a new " << media::containerTitle(container) << " file (-o NAME." << media::extensionOfContainer(container) << ")"
                 << (om.container.empty() ? "; this container is read, not written, so --in-place is refused" : "") << ":\n";
        json save = {{"mode", inPlace ? "in-place" : "new-file"},
                     {"container", container},
                     {"extension", media::extensionOfContainer(container)},
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
    throw Refused{"This movie cannot be saved in any container Dubmatch writes: " + failure, ""};
}


} // namespace cli
