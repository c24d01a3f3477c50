// Every file call of a save made to fail in turn: the original stays byte for
// byte, or the new file is complete and reads back; never anything else.
#include "FaultInjection.h"
#include "MediaTestSupport.h"
#include "MovieWriter.h"
#include "OffsetList.h"
#include "SaveCheck.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

using namespace media;
using namespace testsupport;

namespace {

TestMovieSpec tinySpec()
{
    TestMovieSpec s = smallSpec(3, 0.3, 1.0);
    s.width = 160;
    s.height = 120;
    return s;
}

std::vector<std::string> sortedListing(std::string const& dir)
{
    auto names = listDir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

struct SaveCase {
    char const* name;
    char const* extension;
    bool anonymous;      // the new file has no name until it is put in place
    bool inPlace;        // the output is the movie's own file
    bool outputExists;   // -o onto a file that is there already
    int tracks;          // tracks the new file must have
    std::vector<int> errors;
    std::function<void(dm::Movie const&, std::string const& movie, std::string const& out)> save;
};

void PrintTo(SaveCase const& c, std::ostream* os) { *os << c.name; }

struct Tally {
    int injected = 0;     // faults that happened
    int failedClean = 0;  // ... and failed the save, leaving everything as it was
    int notReached = 0;   // the Nth call never came: the save must have succeeded
};

class FaultSweep : public ::testing::TestWithParam<SaveCase> {
protected:
    static Tally total;
    static void TearDownTestSuite()
    {
        std::printf("fault injection: %d faults injected, %d failed the save cleanly, %d damaged anything; "
                    "%d calls past the last one saved normally\n",
                    total.injected, total.failedClean, total.injected - total.failedClean, total.notReached);
    }
};
Tally FaultSweep::total;

TEST_P(FaultSweep, OriginalUntouchedOrNewFileComplete)
{
    SaveCase const& c = GetParam();
    auto spec = tinySpec();
    std::string source = cachedMovie("tiny-fault.mov", spec);
    std::string original = readFile(source);
    std::string otherContents = "an older file that a failed save must leave as it is\n";
    ScratchDir dir;
    std::string movie = dir.file("m.mov");
    std::string out = c.inPlace ? movie : dir.file(std::string("out.") + c.extension);

    auto prepare = [&] {
        writeFile(movie, original);
        if (!c.inPlace) {
            ::unlink(out.c_str());
            if (c.outputExists) writeFile(out, otherContents);
        }
    };
    // One run: returns whether the save threw.
    auto run = [&](fileio::Op op, int nth, int error) {
        prepare();
        OpenedMovie om = openMovie(movie);
        OffsetList list(om.movie.get(), nullptr);
        list.replacePoints(markPoints(spec));
        fileio::allowAnonymousFiles(c.anonymous);
        if (nth > 0) fileio::injectFault(op, nth, error);
        else fileio::clearFaults();
        bool threw = false;
        try {
            c.save(*om.movie, movie, out);
        } catch (MediaError const& e) {
            threw = true;
            EXPECT_GT(std::string(e.what()).size(), 10u);
        }
        fileio::allowAnonymousFiles(true);
        return threw;
    };

    // A clean run counts the calls of each kind and gives the length a
    // complete new file has.
    ASSERT_FALSE(run(fileio::Op::Write, 0, 0));
    double length = openMovie(out).movie->duration().seconds();
    int counts[fileio::kOpCount];
    for (int k = 0; k < fileio::kOpCount; ++k) counts[k] = fileio::callCount(static_cast<fileio::Op>(k));
    EXPECT_GT(counts[static_cast<int>(fileio::Op::Write)], 0);
    EXPECT_GT(counts[static_cast<int>(fileio::Op::Sync)], 0);
    EXPECT_GT(counts[static_cast<int>(fileio::Op::Rename)], 0);
    prepare();
    auto before = sortedListing(dir.path());

    for (int k = 0; k < fileio::kOpCount; ++k) {
        auto op = static_cast<fileio::Op>(k);
        for (int nth = 1; nth <= counts[k] + 1; ++nth) {
            for (int error : c.errors) {
                SCOPED_TRACE(std::string(fileio::opName(op)) + " #" + std::to_string(nth) + " fails with " + std::strerror(error));
                bool threw = run(op, nth, error);
                bool fired = fileio::faultFired();
                fileio::clearFaults();
                if (fired) {
                    ++total.injected;
                    EXPECT_TRUE(threw) << "a failed call went unnoticed";
                } else {
                    ++total.notReached;
                    EXPECT_FALSE(threw);
                }
                if (threw) {
                    // Everything as it was: the original, the old output, no leftovers.
                    bool clean = readFile(movie) == original && sortedListing(dir.path()) == before;
                    if (!c.inPlace && c.outputExists) clean = clean && readFile(out) == otherContents;
                    EXPECT_TRUE(clean);
                    if (fired && clean) ++total.failedClean;
                } else {
                    OpenedMovie back = openMovie(out);
                    EXPECT_EQ(back.movie->tracks().size(), static_cast<std::size_t>(c.tracks));
                    EXPECT_NEAR(back.movie->duration().seconds(), length, 0.001);
                    EXPECT_FALSE(back.truncated);
                }
            }
        }
    }
}

std::vector<SaveCase> saveCases()
{
    return {
        {"in-place", "mov", true, true, false, 3, {EIO, ENOSPC},
         [](dm::Movie const& m, std::string const& path, std::string const&) { saveInPlace(m, path); }},
        {"in-place-named", "mov", false, true, false, 3, {EIO, ENOSPC},
         [](dm::Movie const& m, std::string const& path, std::string const&) { saveInPlace(m, path); }},
        {"new-mov", "mov", true, false, false, 3, {EIO, ENOSPC},
         [](dm::Movie const& m, std::string const&, std::string const& out) { writeMovie(m, out); }},
        {"over-mov", "mov", true, false, true, 3, {EIO},
         [](dm::Movie const& m, std::string const&, std::string const& out) { writeMovie(m, out); }},
        {"web-mov", "mov", true, false, false, 3, {EIO},
         [](dm::Movie const& m, std::string const&, std::string const& out) {
             exportMovie(m, out, ExportType::QuickTimeWeb);
         }},
        {"mpeg4-mp4", "mp4", true, false, false, 2, {EIO},
         [](dm::Movie const& m, std::string const&, std::string const& out) { exportMovie(m, out, ExportType::MPEG4); }},
        {"aiff", "aiff", true, false, false, 1, {ENOSPC},
         [](dm::Movie const& m, std::string const&, std::string const& out) { exportMovie(m, out, ExportType::AIFF); }},
    };
}

INSTANTIATE_TEST_SUITE_P(Saves, FaultSweep, ::testing::ValuesIn(saveCases()),
                         [](auto const& info) {
                             std::string n = info.param.name;
                             std::replace(n.begin(), n.end(), '-', '_');
                             return n;
                         });

} // namespace
