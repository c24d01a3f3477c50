// Shared helpers of the media tests: a scratch folder, generated movies
// (made once per process and reused), file contents.
#pragma once

#include "MovieFile.h"
#include "OffsetList.h"
#include "TestMovie.h"

#include <string>

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

} // namespace testsupport
