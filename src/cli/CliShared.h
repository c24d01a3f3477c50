// What the commands of dubmatch-cli share: exit statuses, messages on the
// terminal, the stop (Ctrl-C, SIGTERM) and what it means once files are in
// place, and each command's entry point.
#pragma once

#include "MovieFile.h"
#include "MovieSession.h"
#include "MovieWriter.h"
#include "OffsetList.h"
#include "Options.h"
#include "Evidence.h"
#include "Suggest.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace cli {

enum Status { kOk = 0, kFailed = 1, kUsage = 2, kStopped = 130, kTerminated = 143 };

using commandline::UsageError;
using json = nlohmann::json;

extern std::atomic<bool> gStop;

// What a stop means once some of the command's files are in place, by how
// many are: end at once with a message, or let the command finish (its files
// are complete; what is left is reporting). Before any is in place a stop
// ends the command: nothing was written. Filled before the writing starts,
// read by the signal handler, which can only copy a message out.
struct StopAnswer {
    bool finish = false;
    char message[512] = {};
};

// A command that ends early with exit status 1 after saying why (with
// --json the reason is also the document on standard output) throws Refused.
using dmsync::Prediction;

// Opens the movie of a command (with the sound track --track names, if
// given) and tells the notes of its reading.
std::unique_ptr<dmsync::MovieSession> openSession(std::string const& path, commandline::Parsed const& args);
// The value of a track-number option (--track N): a whole number from 1.
int trackNumber(commandline::Parsed const& args, std::string const& option);
// A reference sound (--reference TRACK|FILE): a track of `movie` by its
// number, or another file's sound (track 0: the sound that file plays).
struct ReferenceSound {
    std::string path;
    int track = 0;
};
ReferenceSound referenceSound(commandline::Parsed const& args, std::string const& movie);
// FFmpeg's number of the stream that holds track `track` of the movie at
// `path` (as info lists it), or -1 for track 0. Refused when it is not a
// sound track.
int soundStreamOfTrack(std::string const& path, int track);

void setStopAnswers(std::vector<StopAnswer> const& answers);
StopAnswer stopAnswer(bool finish, std::string const& message);
void onSignal(int sig);
void installSignalHandlers();
bool colourOn(int fd);
void message(std::string const& prefix, std::string const& text, char const* colour);
void error(std::string const& text);
void note(std::string const& text);
std::string clock(myQTTime const& t, int fields);
media::Progress progressBar(bool quiet);
double secondsSince(std::chrono::steady_clock::time_point t0);
json trackJson(dm::Track const& t);
std::string howName(media::TrackPlan::How how);
json predictionJson(Prediction const& p);
std::string sizeText(std::int64_t bytes);
std::string predictionText(Prediction const& p);
int info(commandline::Parsed const& args, json& out);
std::string pointsSourceName(std::string const& file);
std::string readPointsText(std::string const& file);
std::vector<Offset> readPoints(std::string const& file, long scale);
std::vector<Offset> parsePoints(std::string const& file, std::string const& text, long scale);
// What suggest found: from the picture, or with --reference from a
// reference sound (then `match` holds the speed and where the sounds differ).
struct Found {
    suggest::Suggestion suggestion;
    std::optional<media::MovieEvidence> evidence;
    std::optional<suggest::SoundMatch> match;
    std::string reference; // the reference's description
};
Found findSuggestions(dmsync::MovieSession const& session, commandline::Parsed const& args, std::string const& path, bool quiet);
// The JSON of what was found beside the candidates: the reference, the
// speed and where the sounds differ, or the faces.
void foundJson(Found const& found, json& out);
json offsetJson(suggest::LocalOffset const& o);
int suggestCommand(commandline::Parsed const& args, json& out);
int sync(commandline::Parsed const& args, json& out);
int demo(commandline::Parsed const& args);
int measureFlashes(std::string const& path);
int measure(commandline::Parsed const& args, json& out);

} // namespace cli
