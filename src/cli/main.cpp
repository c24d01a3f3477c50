// dubmatch-cli: re-times the sound of a movie to sync points given on the
// command line, without the application.
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

namespace {

enum Status { kOk = 0, kFailed = 1, kUsage = 2, kStopped = 130, kTerminated = 143 };

constexpr char const* kUsageText = R"(Usage:
  dubmatch-cli info MOVIE [--json]
  dubmatch-cli sync MOVIE [--point MOVIE_TIME=AUDIO_TIME]... [--points FILE] [--from-movie]
                    (-o OUT | --in-place) [--type TYPE] [--sound-codec CODEC]
                    [--lossless-shift auto|always|never] [--drop-unsupported]
                    [--force] [--accept-truncated] [--dry-run] [--quiet] [--json]
  dubmatch-cli sync MOVIE --auto [--min-confidence X] (-o OUT | --in-place | --dry-run) ...
  dubmatch-cli suggest MOVIE [--quiet] [--json]
  dubmatch-cli demo OUT [--seconds S] [--size WxH] [--fps N] [--offset S] [--rate R]
                    [--points-file FILE]
  dubmatch-cli measure MOVIE
  dubmatch-cli measure ORIGINAL SYNCED [--point M=A]... [--points FILE] [--json]
  dubmatch-cli --help | --version | --completion bash|zsh

Commands:
  info     List the tracks of MOVIE, the sound track that would be synced,
           the duration, and what a save does with each track (copied,
           re-encoded, left out and why). A movie Dubmatch cannot sync or
           save is explained (exit status 1).
  sync     Fit a line through the sync points and re-time the sound track
           along it. Each point pairs a movie time (where a picture is) with
           the time of the unedited sound that belongs there. Times are typed
           as [-][[hours:]minutes:]seconds[.fraction], e.g. 1:02:03.5 or 90.25.
           Before anything is written the points are checked (exit status 1,
           nothing written): each must lie within the movie and its sound,
           give or take 2 s; the line's slope must lie between 0.5 and 2
           (real transfers change the speed by a few percent, 25/24 from
           film to PAL video; silent films by at most 1.5 times); and the
           re-timed sound may end at most at twice the longer of the movie
           and its sound, plus 10 s. The report (and info, for the points a
           movie carries) gives where the re-timed sound ends and about how
           large the new file is.
           The unedited sound is kept in a disabled "Backup Sound Track",
           and the points are stored in the movie: a movie synced before
           is synced again from its unedited sound, never from a copy.
  suggest  Compare the picture with the sound over windows of the movie
           (picture changes with sound onsets, mouth motion with speech)
           and print the sync points on which the windows agree, with a
           confidence from 0 to 1 each. Windows that disagree with the line
           are never proposed; when fewer than two agree, nothing is
           suggested and the reason is given (exit status 1).
  demo     Write a demo movie: a test pattern with a white flash every two
           seconds and a click at each flash, the sound 0.35 s late and 0.4 %
           fast (change with --offset and --rate). --points-file writes four
           sync points that fix it.
  measure  For a demo movie: print how far each click lies from its flash.
           With two movies: where the sound of SYNCED lies against the sound
           of ORIGINAL, under the points SYNCED carries (or those given), in
           windows over the movie: the worst error, the 95th percentile and
           the bias in ms (positive: the sound plays late). Any content
           works (speech, music, noise); exit status 1 when a window's sound
           is not found near where the points put it.

Options of sync:
  --point M=A      a sync point (repeatable)
  --points FILE    sync points, one "M=A" or "M A" per line; # starts a comment;
                   - reads them from standard input. At most 4 MiB is read;
                   folders and devices are refused, and a pipe that sends
                   nothing for 10 s is given up. A file without points is
                   refused (exit status 2)
  --from-movie     the points a save stored in MOVIE (the default when no
                   points are given and the movie carries some)
  -o, --output OUT write the synced movie to OUT (replaced if it exists), in
                   the container of its extension: .mov, .mp4, .m4v, .mkv, .webm
  --in-place       save over MOVIE in its own container (written beside it,
                   then renamed over it); QuickTime, MPEG-4, Matroska and WebM
                   files only: other movies (MPEG-TS, AVI, DV...) are saved
                   with -o
  --type TYPE      export type instead of a self-contained QuickTime movie:
                   mov, web, mp4, aiff, dv, flc, bmp (or the codes MooV, embd,
                   mpg4, AIFF, dvc!, FLC, BMPf)
  --sound-codec C  codec of the re-timed sound: same (default: the source's
                   codec; lossless sources stay lossless), pcm, flac, alac, aac
  --lossless-shift auto|always|never
                   a sound that the points only move (slope 1 within one
                   sample) is written by copying its packets, the move a start
                   delay or cut: auto (the default) where the container takes
                   the codec; always refuses a sound that must be re-encoded
  --drop-unsupported
                   write even when some streams (subtitles, data...) cannot go
                   into the output's container; without it such a save is
                   refused before anything is written
  --force          replace a write-protected file (it stays write-protected)
  --accept-truncated
                   sync a movie whose file ends before its declared length
  --auto           sync with the suggested points (see suggest) whose
                   confidence is at least --min-confidence; refused (exit
                   status 1) when fewer than two agree
  --min-confidence X
                   the confidence a suggested point needs, 0 to 1 (default 0.5)
  --dry-run        fit and report, write nothing
  --quiet          no progress bar (it shows only on a terminal anyway)
  --json           print one JSON document on standard output instead of the
                   report (also for info); see dubmatch-cli(1) for its fields

Only regular files are read and replaced; a symbolic link is followed and
the file it points to is replaced. A file with several hard links is not
replaced (that would split the links): write to another name instead. A file
changed by another program while it was being synced is not replaced.

Messages are coloured on a terminal unless NO_COLOR is set.

Exit status: 0 done, 1 the movie was refused or could not be read or written,
2 bad command line, 130 stopped (Ctrl-C), 143 terminated (SIGTERM); a stopped
or failed write leaves no output behind and the original untouched. A stop
that comes once the new file is in place changes nothing: the file is
complete, the command finishes, says so and exits 0.
)";

std::atomic<bool> gStop{false};

// What a stop means once some of the command's files are in place, by how
// many are: end at once with a message, or let the command finish (its files
// are complete; what is left is reporting). Before any is in place a stop
// ends the command: nothing was written. Filled before the writing starts,
// read by the signal handler, which can only copy a message out.
struct StopAnswer {
    bool finish = false;
    char message[512] = {};
};
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

using commandline::UsageError;
using json = nlohmann::json;

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

// A command that ends early with exit status 1 after saying why; with
// --json the reason is also the document on standard output.
struct Refused {
    std::string message;
    std::string suggestion;
};

json trackJson(dm::Track const& t)
{
    auto const& m = media::OpenedMovie::mediaOf(t);
    QTTimeRange r = t.range();
    json j = {{"id", t.id()},
              {"type", dm::mediaTypeName(t.mediaType())},
              {"codec", avcodec_get_name(m.codecpar->codec_id)},
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

// What a sync with `points` writes, worked out before anything is written:
// where the re-timed sound ends, the new file's size, and why the points are
// refused, if they are.
struct Prediction {
    std::size_t points = 0;
    double movieSeconds = 0;
    double uneditedSoundSeconds = 0;
    double soundSeconds = 0; // where the re-timed sound ends on the movie's timeline
    double limitSeconds = 0; // the latest end a sync writes
    std::int64_t inputBytes = 0;
    std::int64_t outputBytes = 0;
    std::string problem; // empty when a sync takes the points
};

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

// How long a pipe may keep the points waiting: a program that writes them
// sends them at once, and a pipe that nobody writes to would otherwise hold
// the command forever.
constexpr int kPointsWaitSeconds = 10;

// A descriptor that this code opened, closed when it goes.
class OwnedFd {
public:
    explicit OwnedFd(int fd) : fd_(fd) {}
    ~OwnedFd()
    {
        if (fd_ >= 0) ::close(fd_);
    }
    OwnedFd(OwnedFd const&) = delete;
    OwnedFd& operator=(OwnedFd const&) = delete;

private:
    int fd_;
};

std::string pointsSourceName(std::string const& file)
{
    return file == "-" ? std::string("standard input") : "the points file \"" + file + "\"";
}

// The text of a points file ("-": standard input), read to its end. A regular
// file, a pipe or a terminal is read; a folder or a device is refused before
// reading. At most kMaxPointsTextBytes are taken, and a pipe or named pipe
// that sends nothing for kPointsWaitSeconds is given up, so the read always ends.
std::string readPointsText(std::string const& file)
{
    std::string name = pointsSourceName(file);
    auto fail = [&](std::string const& why) { return UsageError(name + " " + why); };
    int fd = STDIN_FILENO;
    if (file != "-") {
        // Not blocking: opening a named pipe would otherwise wait for a writer.
        fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        if (fd < 0) throw fail(std::string("cannot be read: ") + std::strerror(errno));
    }
    OwnedFd owned(file != "-" ? fd : -1);
    struct stat st {};
    if (::fstat(fd, &st) != 0) throw fail(std::string("cannot be read: ") + std::strerror(errno));
    bool terminal = file == "-" && ::isatty(fd);
    bool pipe = S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode);
    if (S_ISDIR(st.st_mode)) throw fail("is a folder, not a file of sync points");
    if (!terminal && (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode))) throw fail("is a device, not a file of sync points");
    if (!terminal && !pipe && !S_ISREG(st.st_mode)) throw fail("is not a file of sync points");
    std::string limit = "more than " + std::to_string(kMaxPointsTextBytes / (1024 * 1024))
                        + " MiB: that is no list of sync points (a point takes some 30 bytes)";
    if (S_ISREG(st.st_mode) && static_cast<std::uintmax_t>(st.st_size) > kMaxPointsTextBytes) throw fail("holds " + limit);

    std::string text;
    std::vector<char> buffer(64 * 1024);
    auto lastData = std::chrono::steady_clock::now();
    for (;;) {
        int timeout = -1;
        if (pipe) {
            double waited = secondsSince(lastData);
            if (waited >= kPointsWaitSeconds)
                throw fail("sent nothing for " + std::to_string(kPointsWaitSeconds) + " s (a pipe must deliver its points within "
                           + std::to_string(kPointsWaitSeconds) + " s of each other): write them to a file and give --points FILE");
            timeout = static_cast<int>((kPointsWaitSeconds - waited) * 1000) + 1;
        }
        pollfd ready{fd, POLLIN, 0};
        int polled = ::poll(&ready, 1, timeout);
        if (polled < 0 && errno != EINTR) throw fail(std::string("cannot be read: ") + std::strerror(errno));
        if (polled <= 0) continue;
        std::size_t room = std::min(buffer.size(), kMaxPointsTextBytes + 1 - text.size());
        ssize_t n = ::read(fd, buffer.data(), room);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR) continue;
            throw fail(std::string("cannot be read: ") + std::strerror(errno));
        }
        if (n == 0) break;
        text.append(buffer.data(), static_cast<std::size_t>(n));
        if (text.size() > kMaxPointsTextBytes) throw fail((pipe || terminal ? "sent " : "holds ") + limit);
        lastData = std::chrono::steady_clock::now();
    }
    return text;
}

// The points of a points text; a text without any point is refused, since
// syncing with none would write the sound unchanged.
std::vector<Offset> parsePoints(std::string const& file, std::string const& text, long scale)
{
    std::vector<Offset> points;
    try {
        points = parsePointsText(text, scale);
    } catch (PointsTextError const& e) {
        throw UsageError(pointsSourceName(file) + ", " + e.what());
    }
    if (points.empty()) throw UsageError(pointsSourceName(file) + " holds no sync points");
    return points;
}

std::vector<Offset> readPoints(std::string const& file, long scale) { return parsePoints(file, readPointsText(file), scale); }

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
    media::OpenedMovie om = media::openMovie(path);
    for (auto const& n : om.notes) note(n + ".");
    SavedSync saved = adoptSavedSync(*om.movie, om.syncPointsTag);
    if (!saved.note.empty()) note(saved.note);
    auto made = makeOffsetList(om.movie.get(), nullptr);
    if (auto* refusal = std::get_if<Refusal>(&made)) throw Refused{refusal->message, refusal->suggestion};
    OffsetList& list = *std::get<std::unique_ptr<OffsetList>>(made);
    out = {{"file", path}, {"sound_track", list.soundTrack()->id()}};
    auto found = findSuggestions(*om.movie, list, args.has("--quiet") || asJson);
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
    struct stat target {};
    bool regularOrNew = output.empty() || ::stat(output.c_str(), &target) != 0 || S_ISREG(target.st_mode);
    if (!exportType && !dryRun && !inPlace && regularOrNew && media::containerForPath(output).empty())
        throw UsageError("cannot tell the container of \"" + output
                         + "\" from its extension: use .mov, .mp4, .m4v, .mkv or .webm (or --type for the other export types)");

    // The points input is read first: a refused one costs no work on the movie.
    std::optional<std::string> pointsText;
    if (args.has("--points")) pointsText = readPointsText(args.value("--points"));

    out = {{"file", path}, {"output", inPlace ? path : output}, {"in_place", inPlace}, {"dry_run", dryRun}};
    media::OpenedMovie om = media::openMovie(path);
    for (auto const& n : om.notes) note(n + ".");
    SavedSync saved = adoptSavedSync(*om.movie, om.syncPointsTag);
    if (!saved.note.empty()) note(saved.note);
    double openSeconds = secondsSince(t0);
    if (inPlace && om.container.empty()) {
        auto dot = path.find_last_of('.');
        auto slash = path.find_last_of('/');
        std::string stem = dot == std::string::npos || (slash != std::string::npos && dot < slash) ? path : path.substr(0, dot);
        throw Refused{"\"" + path + "\" is a " + om.formatName + " file, which Dubmatch reads but does not write, so it cannot be saved in place.",
                      "Save a copy instead: -o " + stem + "-synced."
                          + media::extensionOfContainer(media::containerForSaveAs(om.container, om.formatName))};
    }
    options.container = inPlace ? om.container : media::containerForPath(output);
    if (!inPlace && options.container.empty()) options.container = "mov"; // not a file: refused before anything is written
    if (om.truncated) {
        char line[256];
        std::snprintf(line, sizeof line, "\"%s\" is cut short: it can be read to %.3f s of the %.3f s it declares.", path.c_str(),
                      om.readableSeconds, om.declaredSeconds);
        if (!acceptTruncated) throw Refused{line, "Nothing was written; give --accept-truncated to sync what there is."};
        note(line);
    }
    auto made = makeOffsetList(om.movie.get(), nullptr);
    if (auto* refusal = std::get_if<Refusal>(&made)) throw Refused{refusal->message, refusal->suggestion};
    OffsetList& list = *std::get<std::unique_ptr<OffsetList>>(made);
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
        auto found = findSuggestions(*om.movie, list, quiet);
        auto const& sg = found.suggestion;
        std::vector<suggest::LocalOffset> confident;
        for (auto const& c : sg.candidates)
            if (c.confidence >= minConfidence) confident.push_back(c);
        out["suggested"] = {{"min_confidence", minConfidence},
                            {"candidates", sg.candidates.size()},
                            {"used", confident.size()},
                            {"refusal", sg.refused() ? json(sg.refusal) : json(nullptr)}};
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
    bool fromMovie = args.has("--from-movie") || (points.empty() && saved.points && !saved.points->empty());
    if (fromMovie) {
        if (!points.empty()) throw UsageError("--from-movie takes the points stored in the movie: give no other points");
        if (!saved.points) throw Refused{"\"" + path + "\" carries no sync points that can be used.", saved.note};
        points = *saved.points;
        note("using the " + std::to_string(points.size()) + " sync point(s) stored in the movie.");
    }
    if (points.empty()) note("no sync points given: the sound is written unchanged.");
    // The line is checked before any work: a mistaken point costs nothing.
    Prediction predicted = predict(path, list, points, saved.backupAdopted, options.soundCodec);
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
    // The points travel with the movie, so that it can be opened again and refined.
    options.syncPoints = syncPointsTag(list);

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
    std::string written = inPlace ? path : output;
    // A stop once the new file is in place changes nothing on disk: the sync is done.
    setStopAnswers({stopAnswer(true, "")});
    auto w0 = std::chrono::steady_clock::now();
    try {
        if (inPlace) result = media::saveInPlace(*om.movie, path, progressBar(quiet), options);
        else if (exportType) result = media::exportMovie(*om.movie, output, *exportType, myQTTime(), progressBar(quiet), options);
        else result = media::writeMovie(*om.movie, output, progressBar(quiet), options);
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
    if (args.positionals.size() < 2) {
        if (args.has("--point") || args.has("--points") || args.has("--json"))
            throw UsageError("--point, --points and --json need the synced movie: measure ORIGINAL SYNCED");
        return measureFlashes(args.positionals.at(0));
    }
    media::SoundMeasureOptions options;
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
    auto m = media::measureSoundAgainst(args.positionals.at(0), args.positionals.at(1), options);
    bool found = m.unmatched == 0 && !m.windows.empty();
    json windows = json::array();
    for (auto const& w : m.windows) windows.push_back({{"movie_time", w.movieTime}, {"error_ms", w.error * 1000}, {"match", w.match}});
    out = {{"original", args.positionals.at(0)}, {"synced", args.positionals.at(1)}, {"points_from", m.pointsFrom},
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

// Runs one command; with --json, every outcome but a usage error prints one
// JSON document on standard output: the result, or the failure with its
// message and exit status.
int run(std::string const& name, std::vector<std::string> const& rest)
{
    commandline::Command const* command = commandline::findCommand(name);
    if (!command) throw UsageError("unknown command \"" + name + "\"");
    commandline::Parsed args = commandline::parse(*command, rest);
    bool asJson = args.has("--json");
    json out;
    auto failed = [&](int status, std::string const& message, std::string const& suggestion) {
        error(message);
        if (!suggestion.empty()) std::cerr << suggestion << "\n";
        if (asJson) {
            json doc = {{"command", name}, {"exit_status", status}, {"error", message}};
            if (!suggestion.empty()) doc["suggestion"] = suggestion;
            for (auto const& [k, v] : out.items()) doc.emplace(k, v);
            std::cout << doc.dump(2) << "\n";
        }
        return status;
    };
    try {
        int status = kOk;
        if (name == "info") status = info(args, out);
        else if (name == "sync") status = sync(args, out);
        else if (name == "suggest") status = suggestCommand(args, out);
        else if (name == "demo") return demo(args);
        else status = measure(args, out);
        if (asJson) {
            json doc = {{"command", name}, {"exit_status", status}};
            for (auto const& [k, v] : out.items()) doc.emplace(k, v);
            std::cout << doc.dump(2) << "\n";
        }
        return status;
    } catch (Refused const& r) {
        return failed(kFailed, r.message, r.suggestion);
    } catch (media::Cancelled const&) {
        return failed(kStopped, "stopped; nothing was written.", "");
    } catch (UsageError const&) {
        throw;
    } catch (OffsetList::BadBackup const&) {
        return failed(kFailed, "the movie cannot hold a backup of its sound track.", "");
    } catch (myQTTime::BadScale const&) {
        return failed(kFailed, "the movie has a track with a bad time scale.", "");
    } catch (std::exception const& e) {
        return failed(kFailed, e.what(), "");
    }
}

} // namespace

int main(int argc, char** argv)
{
    installSignalHandlers();
    media::setupMediaLogging();
    media::keepLargeAllocationsMapped();
    std::vector<std::string> args(argv + 1, argv + argc);
    try {
        if (args.empty()) throw UsageError("no command given");
        std::string cmd = args.front();
        std::vector<std::string> rest(args.begin() + 1, args.end());
        if (cmd == "--help" || cmd == "-h" || cmd == "help") {
            std::cout << kUsageText;
            return kOk;
        }
        if (cmd == "--version") {
            std::cout << "dubmatch-cli " << DUBMATCH_VERSION << "\n";
            return kOk;
        }
        if (cmd == "--completion") {
            if (rest.size() != 1) throw UsageError("--completion takes one shell: bash or zsh");
            std::cout << commandline::completionScript(rest.front());
            return kOk;
        }
        return run(cmd, rest);
    } catch (UsageError const& e) {
        error(e.what());
        std::cerr << "Try 'dubmatch-cli --help'.\n";
        return kUsage;
    } catch (std::exception const& e) {
        error(e.what());
        return kFailed;
    }
}
