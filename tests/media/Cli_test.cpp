// The command-line tool as users run it: exit statuses, messages, outputs.
#include "CliRun.h"
#include "MediaTestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <sys/wait.h>

using namespace testsupport;

namespace {


TEST(Cli, UsageAndRefusals)
{
    CliRun help = cli("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("dubmatch-cli sync MOVIE"), std::string::npos);
    EXPECT_EQ(cli("").status, 2);
    EXPECT_EQ(cli("frobnicate").status, 2);
    std::string movie = cachedMovie("cli.mov", smallSpec(8, 0.3, 1.0));
    CliRun bad = cli("sync '" + movie + "' --point 1:60=2 --dry-run");
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.output.find("bad time"), std::string::npos);
    EXPECT_EQ(cli("sync '" + movie + "' --point 2=2.3").status, 2); // no output chosen
    EXPECT_EQ(cli("sync '" + movie + "' --dry-run --type gif").status, 2);

    auto silentSpec = smallSpec(4, 0, 1);
    silentSpec.withSound = false;
    CliRun refused = cli("info '" + cachedMovie("cli-silent.mov", silentSpec) + "'");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("There are no sound tracks in the movie."), std::string::npos);
    EXPECT_NE(refused.output.find("Please contact"), std::string::npos);

    CliRun missing = cli("info /nonexistent/movie.mov");
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.output.find("No such file"), std::string::npos);
}

TEST(Cli, SyncWritesAMovieInSync)
{
    ScratchDir dir;
    std::string movie = dir.file("in.mov");
    CliRun made = cli("demo '" + movie + "' --seconds 12 --size 320x240 --offset 0.3 --rate 0.998 --points-file '" + dir.file("p.txt") + "'");
    ASSERT_EQ(made.status, 0) << made.output;
    CliRun info = cli("info '" + movie + "'");
    EXPECT_EQ(info.status, 0);
    EXPECT_NE(info.output.find("sound track to sync"), std::string::npos);

    CliRun synced = cli("sync '" + movie + "' --points '" + dir.file("p.txt") + "' -o '" + dir.file("out.mov") + "'");
    ASSERT_EQ(synced.status, 0) << synced.output;
    EXPECT_NE(synced.output.find("slope 0.998"), std::string::npos) << synced.output;
    CliRun measured = cli("measure '" + dir.file("out.mov") + "'");
    EXPECT_EQ(measured.status, 0);
    double worst = -1;
    auto at = measured.output.find("worst: ");
    ASSERT_NE(at, std::string::npos);
    worst = std::stod(measured.output.substr(at + 7));
    EXPECT_LT(worst, 1.0) << measured.output; // milliseconds

    CliRun inPlace = cli("sync '" + movie + "' --point 2=2.3 --point 10=10.28 --in-place --quiet");
    EXPECT_EQ(inPlace.status, 0) << inPlace.output;
    CliRun exported = cli("sync '" + movie + "' --point 2=2.3 -o '" + dir.file("x.aiff") + "' --type aiff");
    EXPECT_EQ(exported.status, 0) << exported.output;
    EXPECT_TRUE(exists(dir.file("x.aiff")));
}

} // namespace
