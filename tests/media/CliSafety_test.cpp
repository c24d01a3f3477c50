// The command-line tool under signals, kill -9, failing system calls and
// inputs or outputs that are not what they seem: the original is always
// byte for byte as it was, or the new file is complete.
#include "MediaTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace media;
using namespace testsupport;

namespace {

// Starts the tool with its output into `log`.
pid_t spawn(std::vector<std::string> const& args, std::string const& log, std::vector<std::string> const& prefix = {})
{
    std::vector<std::string> all = prefix;
    all.push_back(DUBMATCH_CLI);
    all.insert(all.end(), args.begin(), args.end());
    pid_t pid = ::fork();
    if (pid == 0) {
        int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            ::dup2(fd, 1);
            ::dup2(fd, 2);
        }
        std::vector<char*> argv;
        for (auto& a : all) argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    return pid;
}

// The exit status, 128 + N for death by signal N, or -1 after `timeout`
// seconds (the child is then killed).
int wait(pid_t pid, double timeout = 120)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout);
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > until) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int run(std::vector<std::string> const& args, std::string const& log, double timeout = 120)
{
    return wait(spawn(args, log), timeout);
}

bool tmpfileWorksIn(std::string const& dir)
{
    int fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR, 0600);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}


TestMovieSpec killSpec()
{
    TestMovieSpec s = smallSpec(6, 0.3, 1.0);
    return s;
}

TEST(CliSafety, KillNineNeverDamagesTheOriginalNorLeavesAnything)
{
    ScratchDir dir;
    std::string source = cachedMovie("kill.mov", killSpec());
    std::string original = readFile(source);
    std::string movie = dir.file("m.mov"), out = dir.file("out.mov"), log = dir.path() + "/../" + baseName(dir.path()) + ".log";
    std::vector<std::string> inPlace{"sync", movie, "--point", "1=1.3", "--point", "5=5.25", "--in-place", "--quiet"};
    std::vector<std::string> toOut{"sync", movie, "--point", "1=1.3", "--point", "5=5.25", "-o", out, "--quiet"};
    bool tmpfile = tmpfileWorksIn(dir.path());

    // Clean runs: how long they take and how long their output is.
    auto timed = [&](std::vector<std::string> const& args) {
        writeFile(movie, original);
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(run(args, log), 0) << readFile(log);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    };
    double outSeconds = timed(toOut);
    double seconds = timed(inPlace);
    double length = openMovie(movie).movie->duration().seconds();

    unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    struct Count {
        int kills = 0, untouched = 0, complete = 0, leftovers = 0;
    } inPlaceCount, outCount;
    for (int round = 0; round < 45; ++round) {
        bool here = round < 30;
        Count& count = here ? inPlaceCount : outCount;
        writeFile(movie, original);
        ::unlink(out.c_str());
        double at = std::uniform_real_distribution<double>(0, (here ? seconds : outSeconds) * 1.1)(random);
        SCOPED_TRACE("round " + std::to_string(round) + ", kill after " + std::to_string(at) + " s, seed " + std::to_string(seed));
        pid_t pid = spawn(here ? inPlace : toOut, log);
        std::this_thread::sleep_for(std::chrono::duration<double>(at));
        ::kill(pid, SIGKILL);
        int status = wait(pid);
        ++count.kills;
        std::string result = here ? movie : out;
        if (readFile(movie) == original && (here || !exists(out))) {
            ++count.untouched;
        } else {
            EXPECT_TRUE(status == 0 || status == 128 + SIGKILL) << status;
            expectSyncedMovie(result, length, 0.001);
            if (!here) {
                EXPECT_EQ(readFile(movie), original);
            }
            ++count.complete;
        }
        auto names = sortedListing(dir.path());
        std::vector<std::string> expected{"m.mov"};
        if (!here && exists(out)) expected.push_back("out.mov");
        if (names != expected) ++count.leftovers;
        if (tmpfile) {
            EXPECT_EQ(names, expected);
        }
        // Without O_TMPFILE a temporary may stay, to go at a later save.
        for (auto const& n : names) EXPECT_TRUE(n == "m.mov" || n == "out.mov" || n.find(".dubmatch-") != std::string::npos) << n;
    }
    // The demo writer, killed: its movie appears whole or not at all.
    int demoKills = 0, demoAbsent = 0, demoComplete = 0;
    std::string demo = dir.file("demo.mov");
    std::vector<std::string> demoArgs{"demo", demo, "--seconds", "4", "--size", "320x240"};
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(run(demoArgs, log), 0) << readFile(log);
    double demoSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    for (int round = 0; round < 10; ++round) {
        ::unlink(demo.c_str());
        double at = std::uniform_real_distribution<double>(0, demoSeconds * 1.1)(random);
        SCOPED_TRACE("demo round " + std::to_string(round) + ", kill after " + std::to_string(at) + " s");
        pid_t pid = spawn(demoArgs, log);
        std::this_thread::sleep_for(std::chrono::duration<double>(at));
        ::kill(pid, SIGKILL);
        wait(pid);
        ++demoKills;
        if (!exists(demo)) {
            ++demoAbsent;
        } else {
            OpenedMovie om = openMovie(demo);
            EXPECT_FALSE(om.truncated);
            EXPECT_NEAR(om.movie->duration().seconds(), 4, 0.1);
            ++demoComplete;
        }
        for (auto const& n : sortedListing(dir.path())) EXPECT_TRUE(n == "m.mov" || n == "out.mov" || n == "demo.mov") << n;
    }
    std::printf("kill -9: %d kills of demo (%d left no movie, %d the complete movie)\n", demoKills, demoAbsent, demoComplete);
    std::printf("kill -9: %d kills in place (%d left the original, %d left the complete new file), "
                "%d kills with -o (%d left no output, %d the complete output); %d left a temporary file; "
                "O_TMPFILE %s; clean runs %.2f s in place, %.2f s with -o\n",
                inPlaceCount.kills, inPlaceCount.untouched, inPlaceCount.complete, outCount.kills, outCount.untouched,
                outCount.complete, inPlaceCount.leftovers + outCount.leftovers, tmpfile ? "used" : "unavailable", seconds, outSeconds);
    ::unlink(log.c_str());
}

struct SignalRow {
    char const* name;
    int signal;
    int status;
    bool demo; // the demo writer; otherwise a sync in place
};

TEST(CliSafety, SignalsStopWithTheirStatusAndLeaveNothing)
{
    std::string source = cachedMovie("signals.mov", smallSpec(40, 0.3, 1.0));
    std::string original = readFile(source);
    for (SignalRow row : {SignalRow{"demo, Ctrl-C", SIGINT, 130, true}, SignalRow{"demo, SIGTERM", SIGTERM, 143, true},
                          SignalRow{"sync, Ctrl-C", SIGINT, 130, false}, SignalRow{"sync, SIGTERM", SIGTERM, 143, false}}) {
        SCOPED_TRACE(row.name);
        ScratchDir dir;
        std::string movie = dir.file("m.mov"), log = dir.path() + ".log";
        std::vector<std::string> args;
        if (row.demo) {
            args = {"demo", movie, "--seconds", "120", "--size", "640x360"};
        } else {
            writeFile(movie, original);
            args = {"sync", movie, "--point", "1=1.3", "--point", "30=30.2", "--in-place", "--quiet"};
        }
        auto before = sortedListing(dir.path());
        pid_t pid = spawn(args, log);
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        ::kill(pid, row.signal);
        int status = wait(pid, 30);
        EXPECT_EQ(status, row.status) << readFile(log);
        EXPECT_NE(readFile(log).find("stopped"), std::string::npos) << readFile(log);
        EXPECT_EQ(sortedListing(dir.path()), before);
        if (!row.demo) {
            EXPECT_EQ(readFile(movie), original);
        }
        ::unlink(log.c_str());
    }
}

TEST(CliSafety, InputsAndOutputsThatAreNotFilesAreRefusedAtOnce)
{
    ScratchDir dir;
    std::string movie = dir.file("m.mov"), fifo = dir.file("x.mov"), log = dir.path() + ".log";
    writeFile(movie, readFile(cachedMovie("kill.mov", killSpec())));
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    struct Row {
        std::vector<std::string> args;
        char const* says;
    };
    for (auto const& row : {Row{{"info", fifo}, "named pipe"}, Row{{"sync", fifo, "--dry-run"}, "named pipe"},
                            Row{{"sync", movie, "--point", "1=1.3", "-o", fifo}, "named pipe"},
                            Row{{"sync", movie, "--point", "1=1.3", "-o", dir.path()}, "folder"},
                            Row{{"demo", fifo, "--seconds", "3"}, "named pipe"}}) {
        SCOPED_TRACE(row.args[0] + " " + row.args.back());
        EXPECT_EQ(run(row.args, log, 20), 1); // not -1: it did not wait for a writer
        EXPECT_NE(readFile(log).find(row.says), std::string::npos) << readFile(log);
        struct stat st {};
        ASSERT_EQ(::lstat(fifo.c_str(), &st), 0);
        EXPECT_TRUE(S_ISFIFO(st.st_mode));
    }
    ::unlink(log.c_str());
}

TEST(CliSafety, WriteProtectedNeedsForceAndCutInputsNeedAcceptTruncated)
{
    ScratchDir dir;
    std::string movie = dir.file("m.mov"), locked = dir.file("locked.mov"), log = dir.path() + ".log";
    std::string original = readFile(cachedMovie("kill.mov", killSpec()));
    writeFile(movie, original);
    writeFile(locked, "keep me\n");
    ::chmod(locked.c_str(), 0444);
    EXPECT_EQ(run({"sync", movie, "--point", "1=1.3", "-o", locked}, log), 1);
    EXPECT_NE(readFile(log).find("write-protected"), std::string::npos) << readFile(log);
    EXPECT_EQ(readFile(locked), "keep me\n");
    EXPECT_EQ(run({"sync", movie, "--point", "1=1.3", "-o", locked, "--force"}, log), 0) << readFile(log);
    expectSyncedMovie(locked, openMovie(movie).movie->duration().seconds(), 0.001);

    // A movie with its header first, cut in the middle.
    std::string web = dir.file("web.mov"), cut = dir.file("cut.mov"), out = dir.file("out.mov");
    ASSERT_EQ(run({"sync", movie, "-o", web, "--type", "web"}, log), 0) << readFile(log);
    std::string bytes = readFile(web);
    writeFile(cut, bytes.substr(0, bytes.size() / 2));
    EXPECT_EQ(run({"sync", cut, "--point", "1=1.3", "-o", out}, log), 1);
    EXPECT_NE(readFile(log).find("cut short"), std::string::npos) << readFile(log);
    EXPECT_FALSE(exists(out));
    EXPECT_EQ(run({"sync", cut, "--point", "1=1.3", "-o", out, "--accept-truncated"}, log), 0) << readFile(log);
    EXPECT_TRUE(exists(out));
    EXPECT_EQ(run({"info", cut}, log), 0);
    EXPECT_NE(readFile(log).find("cut short"), std::string::npos) << readFile(log);
    ::unlink(log.c_str());
}

// The real system calls failing, one at a time, through strace's fault
// injection: independent of the tool's own fault seam.
TEST(CliSafety, FailingSystemCallsNeverReportSuccessWrongly)
{
    if (::system("strace -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "strace is not installed";
    ScratchDir dir;
    std::string movie = dir.file("m.mov"), log = dir.path() + ".log", trace = dir.path() + ".trace";
    std::string original = readFile(cachedMovie("strace.mov", smallSpec(3, 0.3, 1.0)));
    std::vector<std::string> args{"sync", movie, "--point", "1=1.3", "--in-place", "--quiet"};
    writeFile(movie, original);
    ASSERT_EQ(run(args, log), 0) << readFile(log);
    double length = openMovie(movie).movie->duration().seconds();

    int injected = 0, failed = 0, succeeded = 0;
    for (std::string call : {"write", "lseek", "fsync", "linkat", "rename", "fchmod"}) {
        // How many such calls a clean run makes.
        writeFile(movie, original);
        ASSERT_EQ(wait(spawn(args, log, {"strace", "-f", "-qq", "-o", trace, "-e", "trace=" + call})), 0) << call << ": " << readFile(log);
        std::string traced = readFile(trace);
        int calls = 0;
        for (std::size_t at = traced.find(call + "("); at != std::string::npos; at = traced.find(call + "(", at + 1)) ++calls;
        for (int n = 1; n <= calls; ++n) {
            for (char const* error : {"EIO", "ENOSPC"}) {
                SCOPED_TRACE(call + " #" + std::to_string(n) + " fails with " + error);
                writeFile(movie, original);
                int status = wait(spawn(args, log, {"strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=" + call, "-e",
                                                    "inject=" + call + ":error=" + error + ":when=" + std::to_string(n)}));
                ++injected;
                if (status == 0) {
                    ++succeeded; // a call that did not matter (a message, the folder's fsync)
                    expectSyncedMovie(movie, length, 0.001);
                } else {
                    ++failed;
                    EXPECT_EQ(status, 1) << readFile(log);
                    EXPECT_EQ(readFile(movie), original);
                }
                EXPECT_EQ(sortedListing(dir.path()), std::vector<std::string>{"m.mov"});
            }
        }
    }
    std::printf("strace: %d system call faults injected: %d failed the save with the original untouched, "
                "%d saved a complete file\n",
                injected, failed, succeeded);
    ::unlink(log.c_str());
    ::unlink(trace.c_str());
}

} // namespace
