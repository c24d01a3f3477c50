// What the front ends need of the media layer without its libraries: the
// failures it throws and the set-up of a process that uses it.
#pragma once

#include <stdexcept>

namespace media {

// A failure of the media layer, with a message fit for the user.
class MediaError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The operation was stopped by its progress callback.
class Cancelled : public MediaError {
public:
    Cancelled() : MediaError("The operation was cancelled.") {}
};

// FFmpeg's own log: off (our errors say what failed), unless DUBMATCH_FFMPEG_LOG names another
// level (error, warning, info, verbose, debug).
void setupMediaLogging();

// Serves every allocation of 1 MiB and more from its own mapping, for the
// whole process. The indexes that demuxers and muxers grow one packet at a
// time (tens of megabytes for a movie of hours) then grow in place and go
// back to the system when freed, instead of leaving holes in the heap that
// glibc's self-raising threshold would otherwise let them cause (about a
// fifth of the peak for a three-hour save). Left alone when the user set
// MALLOC_MMAP_THRESHOLD_.
void keepLargeAllocationsMapped();

} // namespace media
