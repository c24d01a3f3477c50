// Writing movies: flattened copies, saving in place, exports.
#pragma once

#include "AtomicFile.h"
#include "Containers.h"
#include "FFmpeg.h"
#include "movie/Movie.h"
#include "myQTTime.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace media {

enum class Phase { Begin, Update, End };

// Called during long operations with the operation's name, the phase and the
// fraction done (0 to 1). Returning false stops the operation: it then
// throws Cancelled and leaves no output behind.
using Progress = std::function<bool(std::string const& operation, Phase phase, double fraction)>;

// The export file types, as their four-character codes.
enum class ExportType : std::uint32_t {
    AIFF = 0x41494646,         // 'AIFF': the sound track as AIFF audio
    BMP = 0x424D5066,          // 'BMPf': the frame at the current time as a BMP image
    DV = 0x64766321,           // 'dvc!': a DV stream (PAL or NTSC)
    FLC = 0x464C4320,          // 'FLC ': an FLC animation
    MPEG4 = 0x6D706734,        // 'mpg4': an MPEG-4 file, H.264 and AAC
    QuickTime = 0x4D6F6F56,    // 'MooV': a self-contained QuickTime movie
    QuickTimeWeb = 0x656D6264, // 'embd': a self-contained QuickTime movie laid out for streaming
};

// The seven types in menu order, with a title and a file extension.
struct ExportFormat {
    ExportType type;
    char const* title;
    char const* extension;
};
std::vector<ExportFormat> const& exportFormats();
// Finds an export type by its four-character code or extension ("mp4",
// "MooV", "aiff"...); throws MediaError for an unknown name.
ExportType exportTypeNamed(std::string const& name);

struct WriteResult {
    std::int64_t bytes = 0;
    std::vector<std::string> notes; // streams left out (when allowed), codecs replaced: for the user
};

// How a movie is saved.
struct SaveOptions {
    // The container: one that takes saves. None: the one of the output
    // path's extension.
    Container container;
    // The codec of the re-timed sound track.
    SoundCodec soundCodec = SoundCodec::Same;
    // How the re-timed sound's encoding uses the cores (tests compare chunked and sequential).
    EncoderThreads soundThreads;
    // QuickTime and MPEG-4: hand sound to the muxer in bundles of frames
    // and list the frames afterwards (a far smaller index in memory while
    // writing; the file is the same frame for frame). Off only for tests
    // and measurements that compare.
    bool bundleSound = true;
    // Write even when a stream of the movie cannot go into the container
    // (it is then left out, with a note). Without it such a save throws
    // StreamsLeftOut before anything is written.
    bool dropUnsupported = false;
    // Set from another thread or a signal handler to stop the save; also
    // ends a read or write that FFmpeg is blocked in.
    std::atomic<bool> const* stop = nullptr;
    // What may be replaced: a write-protected file only when the user agreed.
    TargetPolicy target;
    // A sound that the sync only moves (its line's slope is 1 within one
    // sample over the movie) can be written without re-encoding: its
    // packets copied, the move a start delay or cut. Auto does so where the
    // container takes the codec; Always refuses a sound that is stretched.
    enum class LosslessShift { Auto, Always, Never } losslessShift = LosslessShift::Auto;
    // The sync points to store in the file's metadata (kSyncPointsTag) in
    // QuickTime, MPEG-4 and Matroska files; empty removes a stored value.
    // Unset: the source's value is copied like any other tag.
    std::optional<std::string> syncPoints;
    // The sound track a sync re-times, when the movie has several: a file
    // that keeps only the sound that plays (an MPEG-4, AIFF or DV export)
    // keeps this one, whatever the others' flags say.
    dm::Track const* sound = nullptr;
};

// What a save does with one track.
struct TrackPlan {
    int trackId = 0;
    std::string description; // "sound track 3 \"Backup Sound Track\" (flac, fra)"
    enum class How { Copied, Encoded, Recreated, LeftOut } how = How::Copied;
    std::string detail;      // "copied", "re-timed, encoded as FLAC 24-bit", "left out: QuickTime takes no subrip (Matroska does)"
};

struct SavePlan {
    Container container;
    std::vector<TrackPlan> tracks;
    std::vector<std::string> losses; // one sentence per stream the container cannot hold
    std::vector<std::string> notes;  // codecs replaced, streams recreated
};

// Thrown by a save that would leave streams out without dropUnsupported.
class StreamsLeftOut : public MediaError {
public:
    explicit StreamsLeftOut(std::vector<std::string> streams);
    std::vector<std::string> const& streams() const { return streams_; }

private:
    std::vector<std::string> streams_;
};

// Decides, without writing, what saving `movie` in `options.container`
// (which must be set) does with each track. Throws MediaError when the
// container cannot hold the movie at all (no sound encoder fits).
SavePlan planSave(dm::Movie const& movie, SaveOptions const& options);

// About how many bytes a second of `sound`, re-timed and encoded as
// `codec`, takes in a saved file (for predicting a save's size).
double soundBytesPerSecond(dm::Track const& sound, SoundCodec codec);

// The container a movie opened from a file in `formatName` is saved in when
// the user asks for a new file without naming one: the file's own when it
// is written (`ownContainer`), else Matroska (QuickTime for DV).
Container containerForSaveAs(Container ownContainer, std::string const& formatName);

// Writes a self-contained movie of every track: every stream the container
// takes copied packet for packet with its metadata, dispositions, side data
// and the chapters and tags of the file; the enabled sound track rendered
// through its edit list and encoded as `options.soundCodec` asks; a disabled
// sound track (the backup) copied, or stored losslessly where the container
// does not take its codec. Time stamps are rebased so that the movie's
// start is 0 in the file. The file appears at `path` only when complete and
// read back as written; an existing file there is replaced in one step (see
// AtomicFile for what is refused: NotARegularFile, TargetWriteProtected
// unless `options.target` allows it, TargetHasHardLinks; SaveCheckFailed
// when the file does not read back).
WriteResult writeMovie(dm::Movie const& movie, std::string const& path, Progress const& progress, SaveOptions const& options);
WriteResult writeMovie(dm::Movie const& movie, std::string const& path, Progress const& progress = {},
                       Container container = {});

// Saves the movie over the file it came from (container: the file's own,
// which the caller passes in `options.container`, or the one of the path's
// extension; the real file when `path` is a symbolic link): written beside
// it, read back, flushed to disk and renamed over it. On any failure or a
// stop the original is untouched. Throws FileChangedOnDisk when another
// program changed the file since the movie was opened (or last saved). The
// movie stays usable (it keeps reading the original data).
WriteResult saveInPlace(dm::Movie const& movie, std::string const& path, Progress const& progress, SaveOptions const& options);
WriteResult saveInPlace(dm::Movie const& movie, std::string const& path, Progress const& progress = {},
                        Container container = {});

// Exports the movie. `currentTime` picks the frame of a BMP export. The
// QuickTime and MPEG-4 exports take `options.dropUnsupported` as a save does.
WriteResult exportMovie(dm::Movie const& movie, std::string const& path, ExportType type,
                        myQTTime const& currentTime = myQTTime(), Progress const& progress = {},
                        SaveOptions const& options = {});

} // namespace media
