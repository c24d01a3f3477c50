// Messages, progress and the stop, shared by the commands of dubmatch-cli.
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

std::atomic<bool> gStop{false};


constexpr int kStopAnswers = 3;
StopAnswer gStopAnswers[kStopAnswers];
std::atomic<int> gStopAnswersSet{0}; // how many of gStopAnswers hold an answer

// For a command that puts files in place: answers[n - 1] is what a stop
// means once n of them are in place (the last one also for more).
void setStopAnswers(std::vector<StopAnswer> const& answers)
{
    gStopAnswersSet = 0;
    for (std::size_t i = 0; i < answers.size() && i < kStopAnswers; ++i) gStopAnswers[i] = answers[i];
    gStopAnswersSet = static_cast<int>(std::min<std::size_t>(answers.size(), kStopAnswers));
}

StopAnswer stopAnswer(bool finish, std::string const& message)
{
    StopAnswer a;
    a.finish = finish;
    std::snprintf(a.message, sizeof a.message, "\ndubmatch-cli: %s\n", message.c_str());
    return a;
}

// Temporaries are removed and the process ends at once, unless the new file
// is already in place: then it is complete, and the command finishes and
// says so. Only async-signal-safe calls.
void onSignal(int sig)
{
    int savedErrno = errno;
    gStop = true;
    int placed = media::removeTemporariesNow();
    int set = gStopAnswersSet.load();
    if (placed > 0 && set > 0) {
        StopAnswer const& answer = gStopAnswers[std::min(placed, set) - 1];
        if (answer.finish) {
            errno = savedErrno;
            return;
        }
        ssize_t ignored = ::write(STDERR_FILENO, answer.message, std::strlen(answer.message));
        (void)ignored;
    } else {
        static constexpr char kMessage[] = "\ndubmatch-cli: stopped; nothing was written.\n";
        ssize_t ignored = ::write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
        (void)ignored;
    }
    ::_exit(sig == SIGTERM ? kTerminated : kStopped);
}

void installSignalHandlers()
{
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaddset(&sa.sa_mask, SIGINT);
    sigaddset(&sa.sa_mask, SIGTERM);
    // A stop after the file is in place lets the command finish: its
    // system calls go on rather than fail.
    sa.sa_flags = SA_RESTART;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}


// Colour for messages on a terminal, unless NO_COLOR is set (any value).
bool colourOn(int fd)
{
    char const* no = std::getenv("NO_COLOR");
    char const* term = std::getenv("TERM");
    return isatty(fd) && !(no && *no) && !(term && std::string(term) == "dumb");
}

void message(std::string const& prefix, std::string const& text, char const* colour)
{
    if (colourOn(STDERR_FILENO)) std::cerr << "\033[" << colour << "m" << prefix << "\033[0m" << text << "\n";
    else std::cerr << prefix << text << "\n";
}
void error(std::string const& text) { message("dubmatch-cli: ", text, "1;31"); }
void note(std::string const& text) { message("note: ", text, "33"); }

media::Progress progressBar(bool quiet)
{
    bool tty = !quiet && isatty(STDERR_FILENO);
    return [tty](std::string const& op, media::Phase phase, double f) {
        if (tty) {
            int width = 40, fill = static_cast<int>(f * width);
            std::fprintf(stderr, "\r%-32s [%s%s] %3d%%", op.c_str(), std::string(static_cast<std::size_t>(fill), '#').c_str(),
                         std::string(static_cast<std::size_t>(width - fill), ' ').c_str(), static_cast<int>(f * 100));
            if (phase == media::Phase::End) std::fprintf(stderr, "\n");
            std::fflush(stderr);
        }
        return !gStop.load();
    };
}

std::string clock(myQTTime const& t, int fields) { return t.asString(fields, 3); }

double secondsSince(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}



json trackJson(dm::Track const& t)
{
    auto const& m = media::OpenedMovie::mediaOf(t);
    QTTimeRange r = t.range();
    json j = {{"id", t.id()},
              {"type", dm::mediaTypeName(t.mediaType())},
              {"codec", m.codecName()},
              {"enabled", t.isEnabled()},
              {"name", t.displayName()},
              {"start", myQTTime(r.time).seconds()},
              {"duration", myQTTime(r.duration).seconds()}};
    if (t.mediaType() == dm::MediaType::Sound) {
        j["sample_rate"] = m.sampleRate;
        j["channels"] = m.channels;
    }
    if (t.mediaType() == dm::MediaType::Video) {
        j["width"] = m.width;
        j["height"] = m.height;
        // As players show it: turned by its display matrix, in its pixels' shape.
        auto [w, h] = m.displaySize();
        j["shown_width"] = w;
        j["shown_height"] = h;
        j["rotation"] = m.rotation;
    }
    return j;
}

std::string howName(media::TrackPlan::How how)
{
    switch (how) {
    case media::TrackPlan::How::Copied: return "copied";
    case media::TrackPlan::How::Encoded: return "encoded";
    case media::TrackPlan::How::Recreated: return "recreated";
    case media::TrackPlan::How::LeftOut: return "left-out";
    }
    return "copied";
}

} // namespace cli
