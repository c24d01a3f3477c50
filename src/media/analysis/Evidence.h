// The evidence for suggested sync points, read from a movie's streams at
// reduced size: sound onsets and speech energy from the unedited sound,
// picture changes and mouth motion from the enabled video. Runs on any one
// thread (it opens its own decoders); progress and stop as for saves.
#pragma once

#include "MovieFile.h"
#include "MovieWriter.h"
#include "Suggest.h"
#include "WriteProgress.h"

#include <atomic>
#include <functional>
#include <string>

namespace media {

struct EvidenceOptions {
    int pictureWidth = 160;    // frame changes are measured at this width
    int faceWidth = 320;       // faces are searched for and mouths watched at this width
    int landmarkWidth = 640;   // lips are placed by landmarks at this width (at least faceWidth)
    double faceInterval = 0.5; // seconds between face searches
    bool findFaces = true;
    int maxFaces = 3;          // faces followed at once by their landmarks
};

struct MovieEvidence {
    suggest::Evidence evidence;
    double frameSeconds = 0.04; // one frame of the video
    long frames = 0;            // pictures read
    long framesWithFace = 0;    // pictures where a mouth was watched
    std::string faceNote;       // why no faces were searched for, if so
    // How the mouth was watched: "landmarks" (its opening, by facial
    // landmarks), "region motion" (the motion of the lower face, when the
    // landmark model is missing) or "none" (no faces searched for).
    std::string mouthMethod = "none";
    // The voice was heard in the centre channel alone (a film's 5.1), not
    // in the mix of all channels.
    bool dialogueChannel = false;
    // The pictures are interlaced with their fields taken half a frame
    // apart: the picture's evidence lies a quarter frame after its time stamps.
    bool fieldsApart = false;
};

// The evidence of `video` (movie time) and `unedited` (the sound as it was
// before any sync, audio time), over `duration` seconds of movie. Throws
// MediaError, Cancelled.
MovieEvidence gatherEvidence(dm::Track const& video, dm::Track const& unedited, double duration, Progress const& progress = {},
                             std::atomic<bool> const* stop = nullptr, EvidenceOptions const& options = {});

// The timeline of a sound track (its edits applied, empty time silent) as
// mono samples from time 0, at `rate` (0: the decoder's own; the rate used
// goes to `usedRate`), reporting progress from `from` to `to`. Throws
// MediaError, Cancelled.
std::vector<float> monoTimeline(dm::Track const& sound, ProgressReporter& progress, double from, double to, int rate = 0,
                                int* usedRate = nullptr);

// The same timeline given piece by piece to `sink`, in order, so that a long
// movie's sound need not be held whole (`dialogue` false). With
// `withDialogue`, a sound with a front centre channel among others (a film's
// 5.1, where the voices are) also gives that channel alone, at the same rate
// and as long (`dialogue` true).
using TimelineSink = std::function<void(bool dialogue, float const* samples, std::size_t count)>;
void streamTimeline(dm::Track const& sound, ProgressReporter& progress, double from, double to, int rate, TimelineSink const& sink,
                    bool withDialogue = false, int* usedRate = nullptr);

// The movie's enabled video track, or null.
dm::TrackPtr enabledVideoTrack(dm::Movie const& movie);

// The evidence of a movie and the sync points it suggests. `unedited` is
// the sound as it was before any sync (the backup of a synced movie).
// Throws MediaError (no video), Cancelled.
struct SuggestedPoints {
    MovieEvidence evidence;
    suggest::Suggestion suggestion;
};
SuggestedPoints suggestSyncPoints(dm::Movie const& movie, dm::Track const& unedited, Progress const& progress = {},
                                  std::atomic<bool> const* stop = nullptr, suggest::Settings settings = {},
                                  EvidenceOptions const& options = {});

} // namespace media
