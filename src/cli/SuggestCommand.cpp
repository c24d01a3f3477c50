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

// The sync points the movie's evidence suggests, found with a progress bar.
media::SuggestedPoints findSuggestions(dm::Movie const& movie, OffsetList const& list, bool quiet)
{
    dm::Track const& unedited = list.backupTrack() ? *list.backupTrack() : *list.soundTrack();
    return media::suggestSyncPoints(movie, unedited, progressBar(quiet), &gStop);
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
    auto found = findSuggestions(session->movie(), list, args.has("--quiet") || asJson);
    auto const& sg = found.suggestion;
    auto const& ev = found.evidence;
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
    out["faces"] = {{"frames", ev.frames}, {"frames_with_face", ev.framesWithFace}, {"note", ev.faceNote}};
    out["timings"] = {{"total_seconds", secondsSince(t0)}};
    if (!ev.faceNote.empty()) note(ev.faceNote + "; mouths were not watched.");
    if (sg.refused()) {
        out["refusal"] = sg.refusal;
        throw Refused{"No sync points can be suggested for \"" + path + "\": " + sg.refusal + ".",
                      "Find the points by ear in Dubmatch, or give them with sync --point."};
    }
    out["refusal"] = nullptr;
    if (!asJson) {
        int fields = list.duration().width();
        std::printf("%zu of %zu windows agree: audio = %.6f x movie %+.4f s (sound runs %+.3f %% against the picture)\n",
                    sg.candidates.size(), sg.windows.size(), sg.line->slope, sg.line->intercept, (sg.line->slope - 1) * 100);
        std::printf("%-14s %-14s %10s %10s  %s\n", "movie time", "audio time", "offset ms", "confidence", "evidence");
        long scale = list.soundTrack()->timeScale();
        for (auto const& c : sg.candidates)
            std::printf("%-14s %-14s %10.1f %10.2f  %s\n", clock(myQTTime(c.movieTime, scale), fields).c_str(),
                        clock(myQTTime(c.audioTime, scale), fields).c_str(), (c.audioTime - c.movieTime) * 1000, c.confidence,
                        c.evidence.c_str());
        std::printf("faces seen in %ld of %ld pictures\n", ev.framesWithFace, ev.frames);
    }
    return kOk;
}

} // namespace cli
