// Writing movies: flattened copies, saving in place, exports.
#pragma once

#include "movie/Movie.h"
#include "myQTTime.h"

#include <cstdint>
#include <functional>
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
    std::vector<std::string> notes; // streams left out, codecs replaced
};

// Writes a self-contained QuickTime movie of every track: video and disabled
// tracks copied packet for packet (flags and names kept), each enabled sound
// track rendered through its edit list and encoded with its own codec (AAC
// when there is no encoder for it). The file appears at `path` only when
// complete; an existing file there is replaced in one step.
// `container` is FFmpeg's muxer: "mov" (the default) or "mp4".
WriteResult writeMovie(dm::Movie const& movie, std::string const& path, Progress const& progress = {},
                       std::string const& container = "mov");

// Saves the movie over the file it came from: written beside it, flushed to
// disk and renamed over it. On any failure or a stop the original is
// untouched. The movie stays usable (it keeps reading the original data).
WriteResult saveInPlace(dm::Movie const& movie, std::string const& path, Progress const& progress = {},
                        std::string const& container = "mov");

// Exports the movie. `currentTime` picks the frame of a BMP export.
WriteResult exportMovie(dm::Movie const& movie, std::string const& path, ExportType type,
                        myQTTime const& currentTime = myQTTime(), Progress const& progress = {});

} // namespace media
