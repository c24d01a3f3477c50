// The decisions of a save or export, shared by the planner
// (SavePlanner.cpp), which makes them, and the writer (MovieWriter.cpp),
// which carries them out. Private to the writing pipeline.
#pragma once

#include "MovieFile.h"
#include "MovieWriter.h"
#include "Remuxer.h"
#include "SoundEncoder.h"

#include <cstdint>
#include <string>
#include <vector>

namespace media::writeplan {

// A picture format a video track is re-encoded to (DV).
struct VideoTarget {
    char const* codec;
    int width, height;
    AVPixelFormat pixfmt;
    AVRational fps;
    std::int64_t bitRate;
};

struct Plan {
    Container container = Container::Kind::QuickTime;
    bool fastStart = false;
    bool enabledOnly = false;   // leave disabled tracks out (an export's choice, not a loss)
    bool forceAac = false;      // encode sound as AAC
    bool videoMustBeH264OrMpeg4 = false;
    bool dv = false;            // re-encode video and sound for DV
    bool soundOnly = false;
    std::string operation = "Saving";
    SaveOptions options;
};

// What the write does with one track.
struct Decision {
    dm::Track const* track = nullptr;
    FileMedia const* media = nullptr;
    AVStream const* in = nullptr;
    TrackPlan::How how = TrackPlan::How::Copied;
    SoundFormat sound;                       // Encoded sound
    bool video = false;                      // Encoded video
    VideoTarget target{};
    std::string detail;
    // A sound copied moved: media tick k plays at timeline tick k + shift;
    // media before `cut` is not played.
    bool shifted = false;
    std::int64_t shift = 0, cut = 0;
};

// A write decided: the source files opened once, what happens to each
// track, what the container cannot hold, the notes for the user.
struct Prepared {
    SourceInputs inputs;
    std::vector<Decision> decisions;
    std::vector<std::string> losses;
    std::vector<std::string> notes;
};

FileMedia const& fileMedia(dm::Track const& t);
// Whether the track plays its whole media once at its own rate.
bool isNatural(dm::Track const& t);
void setName(AVStream* st, std::string const& name);
// The name a track was given by the user or the program (the backup),
// when it is not the one read from the file.
std::string newName(dm::Track const& track, FileMedia const& m);
// Whether a copied sound moved by `shift` and cut at `cut` lands exactly
// where the timeline has it in `container`.
bool placesExactly(Container container, FileMedia const& m, std::int64_t shift, std::int64_t cut);
Prepared prepare(dm::Movie const& movie, Plan const& plan);
std::int64_t fileSize(std::string const& path);
// Writes a flat movie through a MovieOutput over `file` and checks that the
// file reads back as written; the caller then puts it in place.
WriteResult writeChecked(dm::Movie const& movie, AtomicFile& file, Plan const& plan, Prepared& prepared, Progress const& progress);
// Throws StreamsLeftOut, before any file is made, when the write would lose
// streams the user has not agreed to lose.
void refuseLosses(Prepared const& prepared, Plan const& plan);

} // namespace media::writeplan
