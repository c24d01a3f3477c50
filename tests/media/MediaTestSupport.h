// Shared helpers of the media tests: a scratch folder, generated movies
// (made once per process and reused), file contents.
#pragma once

#include "MovieFile.h"
#include "OffsetList.h"
#include "TestMovie.h"

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace testsupport {

// A fresh folder under the system's temporary folder, removed afterwards.
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    std::string const& path() const { return path_; }
    std::string file(std::string const& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// A small, quick test movie: 320x240, a flash every 2 s.
media::TestMovieSpec smallSpec(double seconds, double offset, double rate);
// The sync points that fix a movie of `spec`: every flash against its click.
std::vector<Offset> markPoints(media::TestMovieSpec const& spec, long scale = 48000);
// Writes a movie of `spec` once per process; returns its path.
std::string cachedMovie(std::string const& name, media::TestMovieSpec const& spec);

// The number of disabled sound tracks of a movie file (a synced movie has its backup).
int disabledSoundTracks(std::string const& path);

std::string readFile(std::string const& path);
void writeFile(std::string const& path, std::string const& bytes);
bool exists(std::string const& path);
// Names of the entries of a folder.
std::vector<std::string> listDir(std::string const& path);
// The same, sorted.
std::vector<std::string> sortedListing(std::string const& dir);

// Checks a movie synced by dubmatch-cli from a test movie: complete, the
// picture, the re-timed sound and the disabled backup, `seconds` long
// within `tolerance`.
void expectSyncedMovie(std::string const& path, double seconds, double tolerance);

// What a decoder gets from a demuxer for one stream: every packet's times,
// flags, bytes and side data, and the stream's set-up.
struct StreamRead {
    std::vector<std::tuple<std::int64_t, std::int64_t, std::int64_t, int, std::uint32_t, std::string>> packets;
    std::string extradata;
    AVRational timeBase{0, 1};
    int codec = 0;
    int id = 0; // the container's number of the stream
    bool operator==(StreamRead const& o) const
    {
        return packets == o.packets && extradata == o.extradata && av_cmp_q(timeBase, o.timeBase) == 0 && codec == o.codec && id == o.id;
    }
};

// Reads `in` to its end and returns what it gives for `stream`.
StreamRead readStream(media::SourceFile::Input& in, int stream);

// An environment variable set for a scope, then restored.
class ScopedEnv {
public:
    ScopedEnv(char const* name, char const* value) : name_(name)
    {
        if (char const* old = std::getenv(name)) old_ = old;
        setenv(name, value, 1);
    }
    ~ScopedEnv()
    {
        if (old_) setenv(name_, old_->c_str(), 1);
        else unsetenv(name_);
    }
    ScopedEnv(ScopedEnv const&) = delete;
    ScopedEnv& operator=(ScopedEnv const&) = delete;

private:
    char const* name_;
    std::optional<std::string> old_;
};

} // namespace testsupport
