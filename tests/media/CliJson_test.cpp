// dubmatch-cli as scripts use it: its JSON documents (checked against the
// published schema by a JSON Schema validator, and against what the command
// did), standard input for points, colour, versions and completions.
#include "CliRun.h"
#include "MediaTestSupport.h"
#include "Options.h"
#include "TestMovie.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <fstream>

using namespace testsupport;
using json = nlohmann::json;

namespace {

json parsed(CliRun const& run)
{
    json j = json::parse(run.output, nullptr, false);
    EXPECT_FALSE(j.is_discarded()) << "not one JSON document:\n" << run.output;
    return j;
}

media::TestMovieSpec smallMovie()
{
    media::TestMovieSpec s;
    s.seconds = 6;
    s.width = 96;
    s.height = 64;
    s.videoBitRate = 100'000;
    return s;
}

// Validates every document against docs/dubmatch-cli.schema.json with the
// jsonschema package of the system's Python; returns its complaints.
std::string schemaComplaints(std::vector<std::pair<std::string, json>> const& docs, std::string const& dir)
{
    std::string list = dir + "/docs.json";
    {
        json all = json::array();
        for (auto const& [name, doc] : docs) all.push_back({{"name", name}, {"doc", doc}});
        std::ofstream(list) << all.dump();
    }
    std::string script = dir + "/validate.py";
    std::ofstream(script) << "import json, sys, jsonschema\n"
                             "schema = json.load(open(sys.argv[1]))\n"
                             "jsonschema.Draft7Validator.check_schema(schema)\n"
                             "v = jsonschema.Draft7Validator(schema)\n"
                             "bad = 0\n"
                             "for d in json.load(open(sys.argv[2])):\n"
                             "    for e in v.iter_errors(d['doc']):\n"
                             "        bad += 1\n"
                             "        print(d['name'] + ': ' + '/'.join(map(str, e.path)) + ': ' + e.message)\n"
                             "sys.exit(1 if bad else 0)\n";
    std::string out = dir + "/complaints.txt";
    std::string cmd = "/usr/bin/python3 '" + script + "' '" + std::string(DUBMATCH_SOURCE_DIR) + "/docs/dubmatch-cli.schema.json' '" + list
                    + "' >'" + out + "' 2>&1";
    int rc = std::system(cmd.c_str());
    std::string complaints = readFile(out);
    return rc == 0 ? std::string() : (complaints.empty() ? "the validator did not run" : complaints);
}

TEST(CliJson, EveryOutcomeIsOneDocumentOfTheSchema)
{
    ScratchDir dir;
    std::string movie = dir.file("talk.mov"), silent = dir.file("silent.mov");
    media::TestMovieSpec spec = smallMovie();
    media::writeTestMovie(movie, spec);
    media::TestMovieSpec noSound = smallMovie();
    noSound.withSound = false;
    media::writeTestMovie(silent, noSound);
    auto marks = media::testMovieMarks(spec);
    char p1[64], p2[64];
    std::snprintf(p1, sizeof p1, "%.6f=%.6f", marks.front().movieTime, marks.front().audioTime);
    std::snprintf(p2, sizeof p2, "%.6f=%.6f", marks.back().movieTime, marks.back().audioTime);
    std::string points = std::string(" --point ") + p1 + " --point " + p2;
    std::vector<std::pair<std::string, json>> docs;

    // info: a movie, and one without sound (refused, exit 1, still a document).
    CliRun info = cliStdout("info '" + movie + "' --json");
    ASSERT_EQ(info.status, 0);
    json i = parsed(info);
    EXPECT_EQ(i["exit_status"], 0);
    EXPECT_EQ(i["sound_track"], 2);
    EXPECT_EQ(i["tracks"].size(), 2u);
    EXPECT_EQ(i["save"]["mode"], "in-place");
    EXPECT_EQ(i["save"]["container"], "mov");
    docs.push_back({"info", i});
    CliRun refusedInfo = cliStdout("info '" + silent + "' --json");
    EXPECT_EQ(refusedInfo.status, 1);
    json ri = parsed(refusedInfo);
    EXPECT_EQ(ri["exit_status"], 1);
    EXPECT_TRUE(ri.contains("error"));
    EXPECT_TRUE(ri["sound_track"].is_null());
    docs.push_back({"info refused", ri});

    // sync: a dry run, a written copy, a refused in-place save, an unreadable file.
    CliRun dry = cliStdout("sync '" + movie + "'" + points + " --dry-run --json");
    ASSERT_EQ(dry.status, 0);
    json d = parsed(dry);
    EXPECT_TRUE(d["written"].is_null());
    EXPECT_NEAR(d["fit"]["slope"].get<double>(), spec.audioRate, 2e-5);
    EXPECT_NEAR(d["fit"]["intercept"].get<double>(), spec.audioOffset, 1e-4);
    ASSERT_EQ(d["points"].size(), 2u);
    EXPECT_NEAR(d["points"][0]["movie_time"].get<double>(), marks.front().movieTime, 1e-4);
    docs.push_back({"sync dry run", d});

    std::string out = dir.file("talk-synced.mkv");
    CliRun written = cliStdout("sync '" + movie + "'" + points + " -o '" + out + "' --json");
    ASSERT_EQ(written.status, 0) << written.output;
    json w = parsed(written);
    EXPECT_EQ(w["written"]["path"], out);
    EXPECT_EQ(w["written"]["bytes"].get<long long>(), static_cast<long long>(readFile(out).size()));
    EXPECT_GT(w["timings"]["total_seconds"].get<double>(), 0);
    docs.push_back({"sync written", w});
    EXPECT_LE(media::measureSync(out).worst(), 0.00005);
    // The prediction made before writing: where the re-timed sound ends (the
    // last unedited sound at (end - intercept) / slope) and about the size written.
    json const& predicted = w["prediction"];
    EXPECT_TRUE(predicted["problem"].is_null());
    EXPECT_NEAR(predicted["sound_seconds"].get<double>(),
                (predicted["unedited_sound_seconds"].get<double>() - spec.audioOffset) / spec.audioRate, 0.01);
    double bytes = static_cast<double>(readFile(out).size());
    EXPECT_NEAR(predicted["output_bytes"].get<double>(), bytes, bytes * 0.5) << predicted.dump();

    // Points no movie needs: refused before writing, with the prediction that shows why.
    CliRun slow = cliStdout("sync '" + movie + "' --point 1=1.01 --point 5=1.05 -o '" + dir.file("slow.mov") + "' --json");
    EXPECT_EQ(slow.status, 1);
    json sl = parsed(slow);
    EXPECT_NE(sl["error"].get<std::string>().find("slope of 0.01"), std::string::npos) << sl.dump();
    EXPECT_EQ(sl["prediction"]["problem"], sl["error"]);
    EXPECT_GT(sl["prediction"]["sound_seconds"].get<double>(), sl["prediction"]["limit_seconds"].get<double>());
    EXPECT_FALSE(exists(dir.file("slow.mov")));
    docs.push_back({"sync refused points", sl});

    CliRun notAMovie = cliStdout("sync '" + dir.file("missing.mov") + "'" + points + " -o '" + dir.file("x.mov") + "' --json");
    EXPECT_EQ(notAMovie.status, 1);
    json n = parsed(notAMovie);
    EXPECT_EQ(n["exit_status"], 1);
    EXPECT_NE(n["error"].get<std::string>().find("missing.mov"), std::string::npos) << n.dump();
    docs.push_back({"sync failed", n});

    std::string complaints = schemaComplaints(docs, dir.path());
    EXPECT_TRUE(complaints.empty()) << complaints;

    // The schema is not a rubber stamp: a document with a wrong type fails it.
    json broken = w;
    broken["fit"]["slope"] = "fast";
    EXPECT_FALSE(schemaComplaints({{"broken", broken}}, dir.path()).empty());

    // A bad command line prints no document, only the usage error.
    CliRun usage = cliStdout("sync '" + movie + "' --json --no-such-option");
    EXPECT_EQ(usage.status, 2);
    EXPECT_TRUE(usage.output.empty()) << usage.output;
}

TEST(CliConventions, PointsFromStandardInputColourAndVersion)
{
    ScratchDir dir;
    std::string movie = dir.file("talk.mov");
    media::TestMovieSpec spec = smallMovie();
    media::writeTestMovie(movie, spec);
    auto marks = media::testMovieMarks(spec);
    char text[160];
    std::snprintf(text, sizeof text, "# from a script\n%.6f = %.6f\n%.6f %.6f\n", marks.front().movieTime, marks.front().audioTime,
                  marks.back().movieTime, marks.back().audioTime);
    std::ofstream(dir.file("points.txt")) << text;
    CliRun fromStdin = cliStdout("sync '" + movie + "' --points - --dry-run --json < '" + dir.file("points.txt") + "'");
    ASSERT_EQ(fromStdin.status, 0);
    json j = parsed(fromStdin);
    EXPECT_EQ(j["points"].size(), 2u);
    EXPECT_NEAR(j["fit"]["slope"].get<double>(), spec.audioRate, 2e-5);

    // Colour only on a terminal, never with NO_COLOR: script(1) gives the CLI a terminal.
    if (std::system("command -v script >/dev/null 2>&1") == 0) {
        auto onTerminal = [&](std::string const& env) {
            std::string log = dir.file("tty.txt");
            std::string cmd = "TERM=xterm " + env + " script -qec \"" + std::string(DUBMATCH_CLI) + " info '" + dir.file("none.mov")
                            + "'\" /dev/null > '" + log + "' 2>&1";
            int rc = std::system(cmd.c_str());
            (void)rc;
            return readFile(log);
        };
        EXPECT_NE(onTerminal("").find("\033[1;31m"), std::string::npos);
        EXPECT_EQ(onTerminal("NO_COLOR=1").find("\033["), std::string::npos);
    }
    CliRun piped = cli("info '" + dir.file("none.mov") + "'");
    EXPECT_EQ(piped.status, 1);
    EXPECT_EQ(piped.output.find("\033["), std::string::npos);

    // The version is the one the application's update check compares.
    CliRun version = cli("--version");
    EXPECT_EQ(version.status, 0);
    std::string plist = readFile(std::string(DUBMATCH_SOURCE_DIR) + "/resources/Info.plist");
    auto at = plist.find("<key>CFBundleVersion</key>");
    ASSERT_NE(at, std::string::npos);
    auto start = plist.find("<string>", at) + 8;
    std::string bundleVersion = plist.substr(start, plist.find("</string>", start) - start);
    EXPECT_EQ(version.output, "dubmatch-cli " + bundleVersion + "\n");
}

// suggest and sync --auto: the points found, the refusals with their
// reasons, all as documents of the schema.
TEST(CliJson, SuggestAndAutoSync)
{
    ScratchDir dir;
    media::TestMovieSpec spec = smallMovie();
    spec.seconds = 60;
    spec.audioOffset = -0.45;
    spec.audioRate = 1.002;
    for (double t : {1.3, 2.9, 5.2, 6.1, 8.8, 11.0, 12.4, 15.1, 16.0, 18.7, 21.2, 22.3, 24.9, 27.0, 28.4, 31.3, 32.1,
                     34.8, 37.2, 38.0, 40.6, 43.1, 44.2, 46.9, 49.0, 50.3, 53.2, 54.1, 56.7})
        spec.flashTimes.push_back(t);
    std::string movie = dir.file("irregular.mov"), regular = dir.file("regular.mov");
    media::writeTestMovie(movie, spec);
    media::TestMovieSpec beat = smallMovie();
    beat.seconds = 60;
    media::writeTestMovie(regular, beat);
    std::vector<std::pair<std::string, json>> docs;

    CliRun suggest = cliStdout("suggest '" + movie + "' --json");
    ASSERT_EQ(suggest.status, 0) << suggest.output;
    json sg = parsed(suggest);
    ASSERT_GE(sg["candidates"].size(), 3u);
    for (auto const& c : sg["candidates"]) {
        double m = c["movie_time"].get<double>();
        EXPECT_NEAR(c["audio_time"].get<double>(), spec.audioOffset + spec.audioRate * m, 0.01) << c.dump();
    }
    EXPECT_NEAR(sg["line"]["slope"].get<double>(), spec.audioRate, 5e-4);
    EXPECT_TRUE(sg["refusal"].is_null());
    docs.push_back({"suggest", sg});
    CliRun text = cli("suggest '" + movie + "'");
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.output.find("windows agree"), std::string::npos) << text.output;

    // Without the landmark model the mouth is watched by its region's
    // motion, and the JSON says so.
    setenv("DUBMATCH_LANDMARK_MODEL", dir.file("no-such-model.dat").c_str(), 1);
    CliRun regionRun = cliStdout("suggest '" + movie + "' --json");
    unsetenv("DUBMATCH_LANDMARK_MODEL");
    ASSERT_EQ(regionRun.status, 0) << regionRun.output;
    json region = parsed(regionRun);
    EXPECT_EQ(region["faces"]["mouth"], "region motion");
    EXPECT_NE(region["faces"]["note"].get<std::string>().find("landmark model"), std::string::npos) << region.dump();
    EXPECT_NE(sg["faces"]["mouth"], "none");
    docs.push_back({"suggest by region motion", region});

    CliRun ambiguous = cliStdout("suggest '" + regular + "' --json");
    EXPECT_EQ(ambiguous.status, 1);
    json am = parsed(ambiguous);
    EXPECT_TRUE(am["candidates"].empty());
    EXPECT_TRUE(am["refusal"].is_string());
    EXPECT_NE(am["error"].get<std::string>().find("No sync points can be suggested"), std::string::npos);
    docs.push_back({"suggest refused", am});

    CliRun autoSync = cliStdout("sync '" + movie + "' --auto --min-confidence 0.3 --dry-run --json");
    ASSERT_EQ(autoSync.status, 0) << autoSync.output;
    json as = parsed(autoSync);
    EXPECT_NEAR(as["fit"]["slope"].get<double>(), spec.audioRate, 5e-4);
    EXPECT_NEAR(as["fit"]["intercept"].get<double>(), spec.audioOffset, 0.02);
    EXPECT_EQ(as["points"].size(), as["suggested"]["used"].get<std::size_t>());
    docs.push_back({"sync auto", as});

    // Too demanding a threshold, and a movie that suggests nothing: exit 1,
    // saying why, and nothing written.
    std::string out = dir.file("never.mov");
    CliRun strict = cli("sync '" + movie + "' --auto --min-confidence 1 -o '" + out + "'");
    EXPECT_EQ(strict.status, 1);
    EXPECT_NE(strict.output.find("reach the confidence"), std::string::npos) << strict.output;
    CliRun refused = cliStdout("sync '" + regular + "' --auto -o '" + out + "' --json");
    EXPECT_EQ(refused.status, 1);
    json rf = parsed(refused);
    EXPECT_TRUE(rf["suggested"]["refusal"].is_string());
    docs.push_back({"sync auto refused", rf});
    EXPECT_FALSE(exists(out));

    // --auto takes no other points; the threshold is a number from 0 to 1.
    EXPECT_EQ(cli("sync '" + movie + "' --auto --point 1=1 --dry-run").status, 2);
    EXPECT_EQ(cli("sync '" + movie + "' --auto --min-confidence 1.5 --dry-run").status, 2);
    EXPECT_EQ(cli("sync '" + movie + "' --auto --min-confidence high --dry-run").status, 2);
    EXPECT_EQ(cli("sync '" + movie + "' --min-confidence 0.5 --dry-run").status, 2);

    std::string complaints = schemaComplaints(docs, dir.path());
    EXPECT_TRUE(complaints.empty()) << complaints;
}

// The completions and the manual follow the one table of commands and options.
TEST(CliConventions, CompletionsAndManualCoverEveryOption)
{
    std::string bash = commandline::completionScript("bash"), zsh = commandline::completionScript("zsh");
    std::string manual = readFile(std::string(DUBMATCH_SOURCE_DIR) + "/man/dubmatch-cli.1");
    CliRun help = cli("--help");
    auto roff = [](std::string s) {
        std::string out;
        for (char c : s) out += c == '-' ? std::string("\\-") : std::string(1, c);
        return out;
    };
    for (auto const& c : commandline::commands()) {
        EXPECT_NE(bash.find(" " + c.name + ")"), std::string::npos) << c.name;
        EXPECT_NE(zsh.find(" " + c.name + ")"), std::string::npos) << c.name;
        EXPECT_NE(manual.find(".B dubmatch-cli " + c.name), std::string::npos) << c.name;
        for (auto const& o : c.options) {
            EXPECT_NE(bash.find(o.name), std::string::npos) << o.name;
            EXPECT_NE(zsh.find(o.name), std::string::npos) << o.name;
            EXPECT_NE(manual.find(roff(o.name)), std::string::npos) << o.name << " is missing from the manual";
            EXPECT_NE(help.output.find(o.name), std::string::npos) << o.name << " is missing from --help";
            for (auto const& w : o.words) EXPECT_NE(bash.find(w), std::string::npos) << w;
        }
    }
    EXPECT_THROW(commandline::completionScript("fish"), commandline::UsageError);
    EXPECT_EQ(cli("--completion fish").status, 2);

    // The parser takes what the table says and refuses the rest.
    commandline::Command const& sync = *commandline::findCommand("sync");
    commandline::Parsed p = commandline::parse(sync, {"m.mov", "--point", "1=2", "--point=3=4", "-o", "x.mkv", "--quiet"});
    EXPECT_EQ(p.positionals, std::vector<std::string>{"m.mov"});
    EXPECT_EQ(p.all("--point"), (std::vector<std::string>{"1=2", "3=4"}));
    EXPECT_EQ(p.value("--output"), "x.mkv");
    EXPECT_TRUE(p.has("--quiet"));
    EXPECT_THROW(commandline::parse(sync, {"m.mov", "--output", "a.mov", "-o", "b.mov"}), commandline::UsageError);
    EXPECT_THROW(commandline::parse(sync, {"m.mov", "--quiet=yes"}), commandline::UsageError);
    EXPECT_THROW(commandline::parse(sync, {"m.mov", "--points"}), commandline::UsageError);
    EXPECT_THROW(commandline::parse(sync, {}), commandline::UsageError);
    EXPECT_THROW(commandline::parse(sync, {"a.mov", "b.mov"}), commandline::UsageError);
    EXPECT_EQ(commandline::parse(sync, {"m.mov", "--points", "-"}).value("--points"), "-");
}

} // namespace
