// dubmatch-cli suggest.
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

Found findSuggestions(dmsync::MovieSession const& session, commandline::Parsed const& args, std::string const& path, bool quiet)
{
    Found found;
    if (args.has("--reference")) {
        ReferenceSound which = referenceSound(args, path);
        dmsync::ReferenceSound ref = which.path == path && which.track ? session.referenceTrack(which.track)
                                                                       : dmsync::MovieSession::referenceFile(which.path);
        found.reference = ref.description;
        found.match = session.matchReference(ref, progressBar(quiet), &gStop);
        found.suggestion = found.match->suggestion;
        return found;
    }
    OffsetList const& list = session.list();
    dm::Track const& unedited = list.backupTrack() ? *list.backupTrack() : *list.soundTrack();
    auto points = media::suggestSyncPoints(session.movie(), unedited, progressBar(quiet), &gStop);
    found.suggestion = std::move(points.suggestion);
    found.evidence = std::move(points.evidence);
    return found;
}

void foundJson(Found const& found, json& out)
{
    if (found.match) {
        json differ = json::array();
        for (auto const& d : found.match->differ) differ.push_back({{"from", d.from}, {"to", d.to}});
        out["reference"] = found.reference;
        out["speed"] = found.match->speed;
        out["speed_name"] = found.match->speedName.empty() ? json(nullptr) : json(found.match->speedName);
        out["differ"] = differ;
        out["coarse"] = {{"agreeing", found.match->coarseAgreeing}, {"windows", found.match->coarseWindows}};
    } else if (found.evidence) {
        auto const& ev = *found.evidence;
        out["faces"] = {{"frames", ev.frames}, {"frames_with_face", ev.framesWithFace}, {"mouth", ev.mouthMethod}, {"note", ev.faceNote},
                        {"voice", ev.dialogueChannel ? "centre channel" : "all channels"}};
    }
}

json offsetJson(suggest::LocalOffset const& o)
{
    return {{"movie_time", o.movieTime},
            {"audio_time", o.audioTime},
            {"offset_ms", (o.audioTime - o.movieTime) * 1000},
            {"confidence", o.confidence},
            {"evidence", o.evidence}};
}

int suggestCommand(commandline::Parsed const& args, json& out)
{
    auto t0 = std::chrono::steady_clock::now();
    bool asJson = args.has("--json");
    std::string path = args.positionals.at(0);
    auto session = openSession(path, args);
    OffsetList& list = session->list();
    out = {{"file", path}, {"sound_track", list.soundTrack()->id()}};
    auto found = findSuggestions(*session, args, path, args.has("--quiet") || asJson);
    auto const& sg = found.suggestion;
    out["windows"] = json::array();
    for (auto const& w : sg.windows) {
        json j = offsetJson(w);
        j["strength"] = w.strength;
        j["distinctness"] = w.distinctness;
        out["windows"].push_back(j);
    }
    out["candidates"] = json::array();
    for (auto const& c : sg.candidates) out["candidates"].push_back(offsetJson(c));
    out["line"] = sg.line ? json{{"slope", sg.line->slope}, {"intercept", sg.line->intercept}} : json(nullptr);
    foundJson(found, out);
    out["timings"] = {{"total_seconds", secondsSince(t0)}};
    if (found.evidence && !found.evidence->faceNote.empty())
        note(found.evidence->faceNote + (found.evidence->mouthMethod == "none" ? "; mouths were not watched." : "."));
    if (found.match)
        for (auto const& d : found.match->differ) note(suggest::differText(d) + ": no point is proposed there.");
    if (sg.refused()) {
        out["refusal"] = sg.refusal;
        throw Refused{"No sync points can be suggested for \"" + path + "\"" + (found.match ? " from " + found.reference : "") + ": "
                          + sg.refusal + ".",
                      found.match ? "Check that the reference is the same film, or find the points by ear in Dubmatch."
                                  : "Find the points by ear in Dubmatch, or give them with sync --point."};
    }
    out["refusal"] = nullptr;
    if (!asJson) {
        int fields = list.duration().width();
        std::size_t agree = sg.line->inliers.size();
        if (found.match)
            std::printf("%zu of %zu stretches match %s: audio = %.7f x movie %+.4f s (speed %s)\n", agree, sg.windows.size(),
                        found.reference.c_str(), sg.line->slope, sg.line->intercept,
                        found.match->speedName.empty() ? (std::to_string((sg.line->slope - 1) * 100).substr(0, 6) + " %").c_str()
                                                       : found.match->speedName.c_str());
        else
            std::printf("%zu of %zu windows agree: audio = %.6f x movie %+.4f s (sound runs %+.3f %% against the picture)\n", agree,
                        sg.windows.size(), sg.line->slope, sg.line->intercept, (sg.line->slope - 1) * 100);
        std::printf("%-14s %-14s %10s %10s  %s\n", "movie time", "audio time", "offset ms", "confidence", "evidence");
        long scale = list.soundTrack()->timeScale();
        for (auto const& c : sg.candidates)
            std::printf("%-14s %-14s %10.1f %10.2f  %s\n", clock(myQTTime(c.movieTime, scale), fields).c_str(),
                        clock(myQTTime(c.audioTime, scale), fields).c_str(), (c.audioTime - c.movieTime) * 1000, c.confidence,
                        c.evidence.c_str());
        if (found.evidence) std::printf("faces seen in %ld of %ld pictures (mouth by %s; voice from %s)\n", found.evidence->framesWithFace,
                                        found.evidence->frames, found.evidence->mouthMethod.c_str(),
                                        found.evidence->dialogueChannel ? "the centre channel" : "all channels");
    }
    return kOk;
}

} // namespace cli
