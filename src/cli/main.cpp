// dubmatch-cli: re-times the sound of a movie to sync points given on the
// command line, without the application.
#include "AtomicFile.h"
#include "MovieFile.h"
#include "MovieWriter.h"
#include "OffsetList.h"
#include "Refusal.h"
#include "SaveCheck.h"
#include "TestMovie.h"

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

enum Status { kOk = 0, kFailed = 1, kUsage = 2, kStopped = 130, kTerminated = 143 };

constexpr char const* kUsageText = R"(Usage:
  dubmatch-cli info MOVIE
  dubmatch-cli sync MOVIE [--point MOVIE_TIME=AUDIO_TIME]... [--points FILE]
                    (-o OUT | --in-place) [--type TYPE] [--sound-codec CODEC]
                    [--drop-unsupported] [--force] [--accept-truncated]
                    [--dry-run] [--quiet]
  dubmatch-cli demo OUT [--seconds S] [--size WxH] [--fps N] [--offset S] [--rate R]
                    [--points-file FILE]
  dubmatch-cli measure MOVIE
  dubmatch-cli --help

Commands:
  info     List the tracks of MOVIE, the sound track that would be synced,
           the duration, and what a save does with each track (copied,
           re-encoded, left out and why). A movie Dubmatch cannot sync or
           save is explained (exit status 1).
  sync     Fit a line through the sync points and re-time the sound track
           along it. Each point pairs a movie time (where a picture is) with
           the time of the unedited sound that belongs there. Times are typed
           as [-][[hours:]minutes:]seconds[.fraction], e.g. 1:02:03.5 or 90.25.
           The unedited sound is kept in a disabled "Backup Sound Track".
  demo     Write a demo movie: a test pattern with a white flash every two
           seconds and a click at each flash, the sound 0.35 s late and 0.4 %
           fast (change with --offset and --rate). --points-file writes four
           sync points that fix it.
  measure  For a demo movie: print how far each click lies from its flash.

Options of sync:
  --point M=A      a sync point (repeatable)
  --points FILE    sync points, one "M=A" or "M A" per line; # starts a comment
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
  --drop-unsupported
                   write even when some streams (subtitles, data...) cannot go
                   into the output's container; without it such a save is
                   refused before anything is written
  --force          replace a write-protected file (it stays write-protected)
  --accept-truncated
                   sync a movie whose file ends before its declared length
  --dry-run        fit and report, write nothing
  --quiet          no progress bar

Only regular files are read and replaced; a symbolic link is followed and
the file it points to is replaced. A file with several hard links is not
replaced (that would split the links): write to another name instead. A file
changed by another program while it was being synced is not replaced.

Exit status: 0 done, 1 the movie was refused or could not be read or written,
2 bad command line, 130 stopped (Ctrl-C), 143 terminated (SIGTERM); a stopped
or failed write leaves no output behind and the original untouched.
)";

std::atomic<bool> gStop{false};

// Ends the process at once: what is being written has no name yet (or a
// temporary one, removed here), so the original and the output stay as they
// were. Only async-signal-safe calls.
void onSignal(int sig)
{
    gStop = true;
    media::removeTemporariesNow();
    static constexpr char kMessage[] = "\ndubmatch-cli: stopped; nothing was written.\n";
    ssize_t ignored = ::write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
    (void)ignored;
    ::_exit(sig == SIGTERM ? kTerminated : kStopped);
}

void installSignalHandlers()
{
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaddset(&sa.sa_mask, SIGINT);
    sigaddset(&sa.sa_mask, SIGTERM);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Args {
    std::vector<std::string> items;
    std::size_t next = 0;
    bool more() const { return next < items.size(); }
    std::string take(std::string const& what)
    {
        if (!more()) throw UsageError("missing " + what);
        return items[next++];
    }
};

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

int info(Args& args)
{
    std::string path = args.take("MOVIE");
    if (args.more()) throw UsageError("unexpected argument " + args.items[args.next]);
    media::OpenedMovie om = media::openMovie(path);
    for (auto const& n : om.notes) std::cerr << "note: " << n << ".\n";
    dm::Movie& movie = *om.movie;
    myQTTime duration = movie.duration();
    int fields = duration.width();
    std::cout << path << " (" << om.formatName << "), duration " << clock(duration, fields) << "\n";
    if (om.truncated)
        std::printf("  the file is cut short: readable to %.3f s of %.3f s\n", om.readableSeconds, om.declaredSeconds);
    for (auto const& t : movie.tracks()) {
        auto const& m = media::OpenedMovie::mediaOf(*t);
        QTTimeRange r = t->range();
        std::cout << "  track " << t->id() << ": " << dm::mediaTypeName(t->mediaType()) << ", "
                  << avcodec_get_name(m.codecpar->codec_id);
        if (t->mediaType() == dm::MediaType::Sound) std::cout << ", " << m.sampleRate << " Hz, " << m.channels << " channels";
        if (t->mediaType() == dm::MediaType::Video) std::cout << ", " << m.width << "x" << m.height;
        std::cout << ", " << (t->isEnabled() ? "enabled" : "disabled") << ", \"" << t->displayName() << "\", "
                  << clock(myQTTime(r.time), fields) << " + " << clock(myQTTime(r.duration), fields) << "\n";
    }
    auto made = makeOffsetList(&movie, nullptr);
    if (auto* refusal = std::get_if<Refusal>(&made)) {
        std::cerr << refusal->message << "\n" << refusal->suggestion << "\n";
        return kFailed;
    }
    auto const& list = *std::get<std::unique_ptr<OffsetList>>(made);
    std::cout << "sound track to sync: track " << list.soundTrack()->id() << " (\"" << list.soundTrack()->displayName() << "\")\n";

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
        if (container == tried.front() && !om.container.empty())
            std::cout << "saving in place (" << media::containerTitle(container) << "):\n";
        else
            std::cout << "saving as a new " << media::containerTitle(container) << " file (-o NAME." << media::extensionOfContainer(container)
                      << ")" << (om.container.empty() ? "; this container is read, not written, so --in-place is refused" : "") << ":\n";
        for (auto const& t : plan.tracks) std::cout << "  " << t.description << ": " << t.detail << "\n";
        for (auto const& n : plan.notes) std::cout << "  note: " << n << "\n";
        if (!plan.losses.empty())
            std::cout << "  " << plan.losses.size() << " stream(s) would be left out: sync refuses unless --drop-unsupported\n";
        return kOk;
    }
    std::cerr << "This movie cannot be saved in any container Dubmatch writes: " << failure << "\n";
    return kFailed;
}

// "M=A" or "M A".
Offset parsePoint(std::string const& text, long scale)
{
    std::string s = text;
    auto eq = s.find('=');
    if (eq == std::string::npos) eq = s.find_first_of(" \t");
    if (eq == std::string::npos) throw UsageError("a sync point needs MOVIE_TIME=AUDIO_TIME: \"" + text + "\"");
    auto trim = [](std::string v) {
        auto a = v.find_first_not_of(" \t\r"), b = v.find_last_not_of(" \t\r");
        return a == std::string::npos ? std::string() : v.substr(a, b - a + 1);
    };
    std::string m = trim(s.substr(0, eq)), a = trim(s.substr(eq + 1));
    try {
        return Offset(myQTTime(m, scale), myQTTime(a, scale));
    } catch (myQTTime::BadDuration const&) {
        throw UsageError("bad time in sync point \"" + text + "\" (use [-][[h:]m:]s[.frac])");
    }
}

int sync(Args& args)
{
    std::string path = args.take("MOVIE");
    std::vector<std::string> pointTexts;
    std::string output, type;
    bool inPlace = false, dryRun = false, quiet = false, acceptTruncated = false;
    media::SaveOptions options;
    while (args.more()) {
        std::string a = args.take("option");
        if (a == "--point") pointTexts.push_back(args.take("a point after --point"));
        else if (a.rfind("--point=", 0) == 0) pointTexts.push_back(a.substr(8));
        else if (a == "--points") {
            std::string file = args.take("a file after --points");
            std::ifstream in(file);
            if (!in) throw UsageError("cannot read the points file \"" + file + "\"");
            std::string line;
            while (std::getline(in, line)) {
                auto hash = line.find('#');
                if (hash != std::string::npos) line.resize(hash);
                if (line.find_first_not_of(" \t\r") != std::string::npos) pointTexts.push_back(line);
            }
        } else if (a == "-o" || a == "--output") output = args.take("a file after " + a);
        else if (a == "--in-place") inPlace = true;
        else if (a == "--type") type = args.take("a type after --type");
        else if (a == "--dry-run") dryRun = true;
        else if (a == "--quiet") quiet = true;
        else if (a == "--drop-unsupported") options.dropUnsupported = true;
        else if (a == "--sound-codec") {
            std::string c = args.take("a codec after --sound-codec");
            try {
                options.soundCodec = media::soundCodecNamed(c);
            } catch (media::MediaError const& e) {
                throw UsageError(e.what());
            }
        } else if (a == "--force") options.target.replaceWriteProtected = true;
        else if (a == "--accept-truncated") acceptTruncated = true;
        else throw UsageError("unknown option " + a);
    }
    if (!dryRun && output.empty() == !inPlace) throw UsageError("give either -o OUT or --in-place (or --dry-run)");
    if (inPlace && !type.empty()) throw UsageError("--type exports to a new file; it cannot be used with --in-place");
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

    media::OpenedMovie om = media::openMovie(path);
    for (auto const& n : om.notes) std::cerr << "note: " << n << ".\n";
    if (inPlace && om.container.empty()) {
        auto dot = path.find_last_of('.');
        auto slash = path.find_last_of('/');
        std::string stem = dot == std::string::npos || (slash != std::string::npos && dot < slash) ? path : path.substr(0, dot);
        std::cerr << "dubmatch-cli: \"" << path << "\" is a " << om.formatName
                  << " file, which Dubmatch reads but does not write, so it cannot be saved in place.\n"
                  << "Save a copy instead: -o " << stem << "-synced."
                  << media::extensionOfContainer(media::containerForSaveAs(om.container, om.formatName)) << "\n";
        return kFailed;
    }
    options.container = inPlace ? om.container : media::containerForPath(output);
    if (!inPlace && options.container.empty()) options.container = "mov"; // not a file: refused before anything is written
    if (om.truncated) {
        std::fprintf(stderr, "\"%s\" is cut short: it can be read to %.3f s of the %.3f s it declares.\n", path.c_str(),
                     om.readableSeconds, om.declaredSeconds);
        if (!acceptTruncated) {
            std::fprintf(stderr, "Nothing was written; give --accept-truncated to sync what there is.\n");
            return kFailed;
        }
    }
    auto made = makeOffsetList(om.movie.get(), nullptr);
    if (auto* refusal = std::get_if<Refusal>(&made)) {
        std::cerr << refusal->message << "\n" << refusal->suggestion << "\n";
        return kFailed;
    }
    OffsetList& list = *std::get<std::unique_ptr<OffsetList>>(made);
    long scale = list.soundTrack()->timeScale();
    std::vector<Offset> points;
    for (auto const& t : pointTexts) points.push_back(parsePoint(t, scale));
    if (points.empty()) std::cerr << "No sync points given: the sound is written unchanged.\n";
    list.replacePoints(points);

    int fields = list.duration().width();
    std::printf("slope %.9f (sound runs %+.4f %% against the picture), intercept %+.6f s\n", list.slope(),
                (list.slope() - 1) * 100, list.intercept());
    if (list.keptPreviousLine())
        std::printf("These points admit no line with a positive slope; the sound is left as it was.\n");
    std::printf("%-14s %-14s %12s  %s\n", "movie time", "audio time", "residual ms", "flag");
    for (auto const& p : list.points()) {
        double r = list.slope() * p.movieTime.seconds() + list.intercept() - p.audioTime.seconds();
        std::printf("%-14s %-14s %12.3f  %s\n", clock(p.movieTime, fields).c_str(), clock(p.audioTime, fields).c_str(), r * 1000,
                    p.flag ? "strays" : "");
    }
    if (dryRun) return kOk;

    media::WriteResult result;
    options.stop = &gStop;
    try {
        if (inPlace) result = media::saveInPlace(*om.movie, path, progressBar(quiet), options);
        else if (exportType) result = media::exportMovie(*om.movie, output, *exportType, myQTTime(), progressBar(quiet), options);
        else result = media::writeMovie(*om.movie, output, progressBar(quiet), options);
    } catch (media::StreamsLeftOut const& e) {
        std::cerr << "dubmatch-cli: nothing was written. " << e.what() << "\n"
                  << "Write to another container (-o NAME.mkv takes almost anything), or accept the loss with --drop-unsupported.\n";
        return kFailed;
    }
    for (auto const& n : result.notes) std::cerr << "note: " << n << "\n";
    std::printf("wrote %s (%.1f MB)\n", inPlace ? path.c_str() : output.c_str(), static_cast<double>(result.bytes) / 1e6);
    return kOk;
}

int demo(Args& args)
{
    std::string out = args.take("OUT");
    media::TestMovieSpec spec;
    spec.seconds = 30;
    std::string pointsFile;
    auto number = [&](std::string const& what) {
        std::string v = args.take(what);
        try {
            std::size_t used = 0;
            double d = std::stod(v, &used);
            if (used != v.size() || !std::isfinite(d)) throw std::invalid_argument(v);
            return d;
        } catch (std::exception const&) {
            throw UsageError("not a number: \"" + v + "\"");
        }
    };
    while (args.more()) {
        std::string a = args.take("option");
        if (a == "--seconds") spec.seconds = number("seconds");
        else if (a == "--fps") spec.fpsNum = static_cast<int>(number("frames per second"));
        else if (a == "--offset") spec.audioOffset = number("an offset in seconds");
        else if (a == "--rate") spec.audioRate = number("a rate");
        else if (a == "--size") {
            std::string v = args.take("WxH");
            if (std::sscanf(v.c_str(), "%dx%d", &spec.width, &spec.height) != 2 || spec.width < 16 || spec.height < 16
                || spec.width > 7680 || spec.height > 4320)
                throw UsageError("bad size \"" + v + "\" (use WxH, e.g. 1280x720)");
            spec.width &= ~1;
            spec.height &= ~1;
        } else if (a == "--points-file") pointsFile = args.take("a file");
        else throw UsageError("unknown option " + a);
    }
    if (spec.seconds < 3 || spec.seconds > 6 * 3600) throw UsageError("--seconds must lie between 3 and 21600");
    if (spec.fpsNum < 1 || spec.fpsNum > 120) throw UsageError("--fps must lie between 1 and 120");
    if (!(spec.audioRate > 0.5 && spec.audioRate < 2)) throw UsageError("--rate must lie between 0.5 and 2");
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
        {
            std::ofstream f(file.path());
            f << "# movie time = unedited audio time, for " << out << "\n";
            std::size_t n = marks.size();
            for (std::size_t k : {std::size_t{0}, n / 3, 2 * n / 3, n - 1}) {
                char line[96];
                std::snprintf(line, sizeof line, "%.6f = %.6f\n", marks[k].movieTime, marks[k].audioTime);
                f << line;
            }
            f.close();
            if (!f) throw media::MediaError("Cannot write the points file \"" + pointsFile + "\".");
        }
        file.commit();
        std::printf("wrote %s: 4 sync points\n", pointsFile.c_str());
    }
    return kOk;
}

int measure(Args& args)
{
    std::string path = args.take("MOVIE");
    auto m = media::measureSync(path);
    std::printf("%zu flashes, %zu clicks\n", m.flashes.size(), m.clicks.size());
    for (std::size_t i = 0; i < m.flashes.size(); ++i) std::printf("  flash at %9.3f s: click %+9.3f ms\n", m.flashes[i], m.errors[i] * 1000);
    std::printf("worst: %.3f ms\n", m.worst() * 1000);
    return m.flashes.empty() ? kFailed : kOk;
}

} // namespace

int main(int argc, char** argv)
{
    installSignalHandlers();
    media::setupMediaLogging();
    Args args;
    for (int i = 1; i < argc; ++i) args.items.emplace_back(argv[i]);
    try {
        if (!args.more()) throw UsageError("no command given");
        std::string cmd = args.take("command");
        if (cmd == "--help" || cmd == "-h" || cmd == "help") {
            std::cout << kUsageText;
            return kOk;
        }
        if (cmd == "info") return info(args);
        if (cmd == "sync") return sync(args);
        if (cmd == "demo") return demo(args);
        if (cmd == "measure") return measure(args);
        throw UsageError("unknown command \"" + cmd + "\"");
    } catch (UsageError const& e) {
        std::cerr << "dubmatch-cli: " << e.what() << "\nTry 'dubmatch-cli --help'.\n";
        return kUsage;
    } catch (media::Cancelled const&) {
        std::cerr << "\ndubmatch-cli: stopped; nothing was written.\n";
        return kStopped;
    } catch (std::exception const& e) {
        std::cerr << "dubmatch-cli: " << e.what() << "\n";
        return kFailed;
    } catch (OffsetList::BadBackup const&) {
        std::cerr << "dubmatch-cli: the movie cannot hold a backup of its sound track.\n";
        return kFailed;
    } catch (myQTTime::BadScale const&) {
        std::cerr << "dubmatch-cli: the movie has a track with a bad time scale.\n";
        return kFailed;
    }
}
