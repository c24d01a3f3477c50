// The command-line tool given bad input: points that no movie needs, points
// input that never ends or is no file, and a stop that comes once the new
// file is in place. Each case ends quickly, in little memory (the tool runs
// under prlimit), with its exit status and a message of a few lines, and
// writes nothing; a stop after the rename reports the complete file.
#include "MediaTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace media;
using namespace testsupport;

namespace {

// The tool under a cap on address space and CPU time: a case that grows
// without bound fails here instead of taking the machine.
constexpr char const* kAddressSpace = "536870912"; // 512 MiB: a sync of these movies needs some 100 MiB of it
constexpr char const* kCpuSeconds = "30";
constexpr long kMaxResidentKb = 300 * 1024;
constexpr std::size_t kMaxMessageBytes = 1500; // a message of a few lines, never the input echoed

std::string shellQuoted(std::string const& s) { return "'" + s + "'"; }

std::string limitedTool()
{
    return std::string("prlimit --as=") + kAddressSpace + " --cpu=" + kCpuSeconds + " -- " + shellQuoted(DUBMATCH_CLI);
}

struct Outcome {
    int status = -1; // exit status, 128 + N for death by signal N, -1 when killed for taking too long
    double seconds = 0;
    long maxResidentKb = 0;
    std::string output;
};

// A command line run by /bin/sh in its own process group, its standard
// input /dev/null unless it redirects it, its output into `log`.
struct Started {
    pid_t pid = -1;
    std::string log;
    std::chrono::steady_clock::time_point t0;
};

Started start(std::string const& shell, std::string const& log)
{
    Started s{-1, log, std::chrono::steady_clock::now()};
    s.pid = ::fork();
    if (s.pid == 0) {
        ::setpgid(0, 0);
        int in = ::open("/dev/null", O_RDONLY);
        int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0) ::_exit(126);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(out, 2);
        ::execl("/bin/sh", "sh", "-c", shell.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::setpgid(s.pid, s.pid);
    return s;
}

bool ended(pid_t pid)
{
    siginfo_t info {};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != 0;
}

// Waits at most `timeout` seconds; then the whole group is killed.
Outcome finish(Started const& s, double timeout)
{
    auto until = s.t0 + std::chrono::duration<double>(timeout);
    int status = 0;
    rusage usage {};
    bool killed = false;
    while (::wait4(s.pid, &status, WNOHANG, &usage) == 0) {
        if (std::chrono::steady_clock::now() > until) {
            ::kill(-s.pid, SIGKILL);
            ::wait4(s.pid, &status, 0, &usage);
            killed = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    Outcome o;
    o.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - s.t0).count();
    o.status = killed ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    o.maxResidentKb = usage.ru_maxrss;
    o.output = readFile(s.log);
    ::unlink(s.log.c_str());
    return o;
}


struct Row {
    std::string name;
    std::string command; // a shell command line; TOOL stands for the tool under its limits
    int status;
    std::string says;    // part of what the tool must say
    double seconds = 5;  // the longest the case may take
    bool waits = false;  // waits on a pipe for its limit: run alongside the others
    bool writes = false; // a good sync, for contrast: it writes its output
};

std::string withTool(std::string command)
{
    std::string tool = limitedTool();
    for (std::size_t at; (at = command.find("TOOL")) != std::string::npos;) command.replace(at, 4, tool);
    return command;
}

TEST(BadInput, RefusedQuicklyInLittleMemoryWithNothingWritten)
{
    ASSERT_EQ(std::system("prlimit --version >/dev/null 2>&1"), 0) << "prlimit (util-linux) is needed to cap the tool";
    ScratchDir dir;
    TestMovieSpec spec = smallSpec(6.6, 0.35, 0.996);
    std::string movie = dir.file("m.mov"), out = dir.file("out.mov"), fifo = dir.file("points.fifo"), held = dir.file("held.fifo");
    writeFile(movie, readFile(cachedMovie("badinput.mov", spec)));
    std::string original = readFile(movie);
    auto marks = testMovieMarks(spec);
    ASSERT_GE(marks.size(), 3u);
    char good[160];
    std::snprintf(good, sizeof good, "%.6f = %.6f\n%.6f = %.6f\n", marks.front().movieTime, marks.front().audioTime, marks.back().movieTime,
                  marks.back().audioTime);
    writeFile(dir.file("good.txt"), good);
    writeFile(dir.file("empty.txt"), "# only a comment\n\n");
    writeFile(dir.file("huge.txt"), std::string(5 * 1024 * 1024, '7'));  // one line beyond the limit
    writeFile(dir.file("long.txt"), std::string(3 * 1000 * 1000, '7'));   // one line within it
    writeFile(dir.file("slow.txt"), "1 = 1.01\n5 = 1.05\n");              // slope 0.01
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    ASSERT_EQ(::mkfifo(held.c_str(), 0644), 0); // opened for writing too: a writer that never writes
    ::mkdir(dir.file("folder").c_str(), 0755);

    std::string m = shellQuoted(movie), o = " -o " + shellQuoted(out);
    std::string sync = "TOOL sync " + m + " ";
    std::string longArgument(60000, '9');
    std::vector<Row> rows{
        // Points input: bounded, and only from files, pipes and terminals.
        {"a device as points file", sync + "--points /dev/zero" + o, 2, "is a device"},
        {"a folder as points file", sync + "--points " + shellQuoted(dir.file("folder")) + o, 2, "is a folder"},
        {"a device on standard input", sync + "--points -" + o + " < /dev/zero", 2, "standard input is a device"},
        {"an endless pipe", "cat /dev/zero | " + sync + "--points -" + o, 2, "standard input sent more than 4 MiB"},
        {"endless lines", "yes '1 = 1' | " + sync + "--points -" + o, 2, "sent more than 4 MiB"},
        {"a file beyond the limit", sync + "--points " + shellQuoted(dir.file("huge.txt")) + o, 2, "holds more than 4 MiB"},
        {"a 3 MB line, cut in the message", sync + "--points " + shellQuoted(dir.file("long.txt")) + o, 2,
         "\"7777777777777777777777777777777777777777\"... (3000000 bytes in all)"},
        {"a 60 kB point, cut in the message", sync + "--point " + longArgument + o, 2, "(60000 bytes in all)"},
        {"a file without points", sync + "--points " + shellQuoted(dir.file("empty.txt")) + o, 2, "holds no sync points"},
        {"a named pipe nobody writes to", sync + "--points " + shellQuoted(fifo) + o, 2, "sent nothing for 10 s", 14, true},
        {"a pipe held open, never written", "exec 3<>" + shellQuoted(held) + "; " + sync + "--points -" + o + " <&3", 2,
         "standard input sent nothing for 10 s", 14, true},
        // Lines no movie needs: refused before any work, with the reason.
        {"slope 0.01", sync + "--point 1=1.01 --point 5=1.05" + o, 1, "slope of 0.01: the sound would play 100 times slower"},
        {"slope 0.01 from a file, dry run", sync + "--points " + shellQuoted(dir.file("slow.txt")) + " --dry-run", 1, "slope of 0.01"},
        {"slope 0.001", sync + "--point 1=1.001 --point 5=1.005" + o, 1, "slope of 0.001: the sound would play 1000 times slower"},
        {"slope of a few millionths", sync + "--point 0=1 --point 6.5=1.000021" + o, 1, "times slower"},
        {"slope of tens of thousands", sync + "--point 1=0.5 --point 1.0001=6" + o, 1, "times faster"},
        {"a backward slope", sync + "--point 1=3 --point 5=1" + o, 1, "run backwards"},
        {"points at one movie time", sync + "--point 2=1 --point 2=3" + o, 1, "all lie at one movie time"},
        {"slope 2.5", sync + "--point 1=1 --point 3=6" + o, 1, "2.5 times faster than it was recorded. A sync takes slopes from 0.5 to 2"},
        {"a point long before the movie", sync + "--point -100000=0 --point 4=4" + o, 1, "100000.000 s before the start of the movie"},
        {"a point after the movie", sync + "--point 1=1 --point 40=40" + o, 1, "after the end of the movie"},
        {"a point beyond the sound", sync + "--point 1=1 --point 3=30 --dry-run", 1, "after the end of the unedited sound"},
        {"a re-timed sound far too long", sync + "--point 7.9=-2 --point 8.5=-1.69" + o, 1, "makes the re-timed sound end at"},
        // For contrast: good points pass every check and are written.
        {"good points", sync + "--points " + shellQuoted(dir.file("good.txt")) + o, 0, "wrote", 20, false, true},
    };

    auto before = sortedListing(dir.path());
    // The cases that wait out a pipe run alongside the others.
    std::vector<std::pair<Row const*, Started>> waiting;
    for (auto const& row : rows)
        if (row.waits) waiting.emplace_back(&row, start(withTool(row.command), dir.path() + "-" + std::to_string(waiting.size()) + ".log"));
    auto check = [&](Row const& row, Outcome const& got) {
        SCOPED_TRACE(row.name);
        std::printf("%-40s exit %3d  %5.2f s  %6ld kB  %s\n", row.name.c_str(), got.status, got.seconds, got.maxResidentKb,
                    got.output.substr(0, got.output.find('\n')).substr(0, 110).c_str());
        EXPECT_EQ(got.status, row.status) << got.output;
        EXPECT_NE(got.output.find(row.says), std::string::npos) << got.output.substr(0, kMaxMessageBytes);
        EXPECT_LT(got.output.size(), kMaxMessageBytes) << got.output.substr(0, kMaxMessageBytes);
        EXPECT_LT(got.seconds, row.seconds);
        EXPECT_LT(got.maxResidentKb, kMaxResidentKb);
        EXPECT_EQ(readFile(movie), original);
        if (row.writes) {
            expectSyncedMovie(out, spec.seconds, 0.05);
            ::unlink(out.c_str());
        }
        EXPECT_EQ(sortedListing(dir.path()), before) << "something was left behind";
    };
    for (auto const& row : rows)
        if (!row.waits) check(row, finish(start(withTool(row.command), dir.path() + ".log"), row.seconds + 10));
    for (auto const& [row, started] : waiting) check(*row, finish(started, row->seconds + 10));
}

// A sound whose time stamps jump an hour ahead part-way (a broken stamp, a
// recorder's clock), in each container that can store the jump: the movie
// reads as long as its picture with a note, a sync writes a file of that
// length, and suggest answers quickly. A sound that is merely much longer
// than its picture, with no jump, is kept whole.
TEST(BadInput, ATimeStampJumpInTheSoundIsCutWithANote)
{
    if (std::system("ffmpeg -hide_banner -bsfs 2>/dev/null | grep -qx setts") != 0) GTEST_SKIP() << "the ffmpeg program with its setts filter is needed";
    ScratchDir dir;
    struct Jump {
        char const* name;
        char const* codecs;
        char const* bsf; // moves the sound's packets from the 60th on by an hour
    };
    for (Jump const& j : {Jump{"jump.mpg", "-c:v mpeg1video -c:a mp2", "setts=ts=TS+gte(N\\,60)*324000000"},
                          Jump{"jump.ts", "-c:v mpeg2video -c:a mp2", "setts=ts=TS+gte(N\\,60)*324000000"},
                          Jump{"jump.mkv", "-c:v mpeg4 -c:a mp2", "setts=ts=TS+gte(N\\,60)*3600000"},
                          Jump{"jump.flv", "-c:v flv1 -c:a mp3 -ar 44100", "setts=ts=TS+gte(N\\,60)*3600000"}}) {
        SCOPED_TRACE(j.name);
        std::string made = dir.file(std::string("src-") + j.name), movie = dir.file(j.name), out = dir.file("out.mkv");
        std::string cmd = "ffmpeg -nostdin -y -v error -f lavfi -i testsrc2=s=160x120:r=25:d=3 -f lavfi -i sine=f=440:d=3 ";
        ASSERT_EQ(std::system((cmd + j.codecs + " " + shellQuoted(made) + " && ffmpeg -nostdin -y -v error -i " + shellQuoted(made)
                               + " -c copy -bsf:a \"" + j.bsf + "\" " + shellQuoted(movie))
                                  .c_str()),
                  0);
        Outcome info = finish(start(withTool("TOOL info " + shellQuoted(movie)), dir.path() + ".log"), 20);
        EXPECT_EQ(info.status, 0) << info.output;
        EXPECT_NE(info.output.find("its time stamps jump from"), std::string::npos) << info.output;
        EXPECT_LT(info.seconds, 5);

        Outcome sync = finish(start(withTool("TOOL sync " + shellQuoted(movie) + " --point 0.8=0.85 --point 2.5=2.55 -o " + shellQuoted(out)),
                                    dir.path() + ".log"),
                              30);
        EXPECT_EQ(sync.status, 0) << sync.output;
        EXPECT_LT(sync.seconds, 10);
        struct stat st {};
        ASSERT_EQ(::stat(out.c_str(), &st), 0);
        EXPECT_LT(st.st_size, 2 * 1024 * 1024) << "the jump was written out";
        EXPECT_LT(openMovie(out).movie->duration().seconds(), 4.0);
        ::unlink(out.c_str());

        Outcome suggest = finish(start(withTool("TOOL suggest " + shellQuoted(movie) + " --quiet"), dir.path() + ".log"), 30);
        std::printf("%-9s info exit %d %.2f s; sync exit %d %.2f s, %lld kB written; suggest exit %d %.2f s\n", j.name, info.status, info.seconds,
                    sync.status, sync.seconds, static_cast<long long>(st.st_size / 1024), suggest.status, suggest.seconds);
        EXPECT_LT(suggest.seconds, 10) << suggest.output;
        EXPECT_TRUE(suggest.status == 0 || suggest.status == 1) << suggest.output;
    }

    // Music that goes on after a short picture: long, but no jump.
    std::string tail = dir.file("tail.mkv");
    ASSERT_EQ(std::system(("ffmpeg -nostdin -y -v error -f lavfi -i testsrc2=s=160x120:r=25:d=3 -f lavfi -i sine=f=440:d=70 -c:v mpeg4 -c:a mp2 "
                           + shellQuoted(tail))
                              .c_str()),
              0);
    OpenedMovie opened = openMovie(tail);
    EXPECT_TRUE(opened.notes.empty());
    EXPECT_NEAR(opened.movie->duration().seconds(), 70.0, 0.1);
}

// A stop (Ctrl-C or SIGTERM) that arrives just after the new file took the
// movie's name finds the sync done: exit status 0, the file complete, and no
// word of "nothing was written". The stop is sent the moment the target's
// inode changes.
TEST(BadInput, AStopAfterTheRenameReportsTheCompleteFile)
{
    ASSERT_EQ(std::system("prlimit --version >/dev/null 2>&1"), 0) << "prlimit (util-linux) is needed to cap the tool";
    TestMovieSpec spec = smallSpec(8, 0.3, 1.0);
    std::string source = cachedMovie("stopafter.mov", spec);
    std::string original = readFile(source);
    struct StopRow {
        char const* name;
        bool inPlace;
        int signal;
    };
    int rounds = 0, caught = 0;
    for (StopRow row : {StopRow{"in place, Ctrl-C", true, SIGINT}, StopRow{"in place, SIGTERM", true, SIGTERM},
                        StopRow{"-o, Ctrl-C", false, SIGINT}, StopRow{"-o, SIGTERM", false, SIGTERM}}) {
        for (int round = 0; round < 2; ++round) {
            SCOPED_TRACE(std::string(row.name) + ", round " + std::to_string(round));
            ScratchDir dir;
            std::string movie = dir.file("m.mov"), out = dir.file("out.mov"), target = row.inPlace ? movie : out;
            writeFile(movie, original);
            struct stat st {};
            ino_t before = ::stat(target.c_str(), &st) == 0 ? st.st_ino : 0;
            std::string command = "exec " + limitedTool() + " sync " + shellQuoted(movie) + " --point 1=1.3 --point 7=7.25 --quiet "
                                + (row.inPlace ? std::string("--in-place") : "-o " + shellQuoted(out));
            Started s = start(command, dir.path() + ".log");
            // The moment the new file has the name (or the tool has ended).
            auto renamed = [&] { return ::stat(target.c_str(), &st) == 0 && st.st_ino != before; };
            auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            while (!renamed() && !ended(s.pid) && std::chrono::steady_clock::now() < until) {
            }
            ::kill(s.pid, row.signal);
            Outcome got = finish(s, 60);
            ++rounds;
            ASSERT_TRUE(renamed()) << got.output;
            EXPECT_EQ(got.status, 0) << got.output;
            EXPECT_EQ(got.output.find("nothing was written"), std::string::npos) << got.output;
            EXPECT_NE(got.output.find("wrote " + target), std::string::npos) << got.output;
            if (got.output.find("the stop came after \"" + target + "\" was complete") != std::string::npos) ++caught;
            expectSyncedMovie(target, spec.seconds, 0.05);
            if (!row.inPlace) {
                EXPECT_EQ(readFile(movie), original);
            }
        }
    }
    std::printf("a stop after the rename: %d of %d stops arrived while the tool still ran\n", caught,
                rounds);
    // The stops must land in the window this test is about, not after the tool has ended.
    EXPECT_GT(caught, 0);

    // Two files: the demo movie, then its points. A stop between them says
    // that the movie is complete and the points file is not there.
    int demoRounds = 0, between = 0;
    for (int round = 0; round < 2; ++round) {
        ScratchDir dir;
        std::string movie = dir.file("d.mov"), points = dir.file("d.txt");
        Started s = start("exec " + limitedTool() + " demo " + shellQuoted(movie) + " --seconds 4 --size 160x120 --points-file " + shellQuoted(points),
                          dir.path() + ".log");
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!exists(movie) && !ended(s.pid) && std::chrono::steady_clock::now() < until) {
        }
        ::kill(s.pid, SIGINT);
        Outcome got = finish(s, 60);
        SCOPED_TRACE("demo round " + std::to_string(round) + ": " + got.output);
        ++demoRounds;
        ASSERT_TRUE(exists(movie));
        EXPECT_EQ(got.output.find("nothing was written"), std::string::npos);
        if (got.status == 130) {
            ++between;
            EXPECT_NE(got.output.find("is complete, but the points file"), std::string::npos);
            EXPECT_FALSE(exists(points));
        } else {
            EXPECT_EQ(got.status, 0);
            EXPECT_TRUE(exists(points));
        }
        OpenedMovie om = openMovie(movie);
        EXPECT_FALSE(om.truncated);
        EXPECT_NEAR(om.movie->duration().seconds(), 4, 0.1);
    }
    std::printf("demo: %d of %d stops came between the movie and its points file\n", between, demoRounds);
}

} // namespace
