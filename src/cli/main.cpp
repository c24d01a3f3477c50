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

using namespace cli;

namespace {

constexpr char const* kUsageText = R"(Usage:
  dubmatch-cli info MOVIE [--track N] [--json]
  dubmatch-cli sync MOVIE [--point MOVIE_TIME=AUDIO_TIME]... [--points FILE] [--from-movie]
                    (-o OUT | --in-place) [--type TYPE] [--sound-codec CODEC]
                    [--lossless-shift auto|always|never] [--drop-unsupported]
                    [--force] [--accept-truncated] [--dry-run] [--quiet] [--json]
  dubmatch-cli sync MOVIE --auto [--min-confidence X] (-o OUT | --in-place | --dry-run) ...
  dubmatch-cli sync MOVIE [--track N] --reference TRACK|FILE --auto (-o OUT | --in-place) ...
  dubmatch-cli suggest MOVIE [--track N] [--reference TRACK|FILE] [--quiet] [--json]
  dubmatch-cli demo OUT [--seconds S] [--size WxH] [--fps N] [--offset S] [--rate R]
                    [--points-file FILE]
  dubmatch-cli measure MOVIE
  dubmatch-cli measure ORIGINAL SYNCED [--track N] [--point M=A]... [--points FILE] [--json]
  dubmatch-cli measure MOVIE --reference TRACK|FILE [--track N] [--point M=A]... [--json]
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
  --track N        the sound track to sync (also info, suggest, measure), by
                   the number info lists: a dub beside the original language.
                   Without it the one enabled sound track, or the one a stored
                   sync names. Stored with the points; every other sound track
                   is copied untouched with its language, name and flags
  --reference TRACK|FILE
                   suggest (and sync --auto) by comparing the sound with a
                   reference sound instead of the picture: another track of
                   MOVIE by number, or another movie or sound file. Music and
                   effects shared under different speech line up; the speed is
                   searched among film transfers (24/25, 25/24, 1000/1001 and
                   back, 24000/25025 and back) and within +-5 %; stretches where
                   the sounds differ are reported and never proposed. With
                   measure: track --track of MOVIE against the reference
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
        return failed(kFailed, r.what(), r.suggestion());
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
