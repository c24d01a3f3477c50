// The output of a save: the muxer's I/O over an AtomicFile, a tally of what
// the writer handed to the muxer, and the check that the file reads back as
// exactly that before it may replace anything.
#pragma once

#include "AtomicFile.h"
#include "Containers.h"
#include "FFmpeg.h"
#include "SampleBundles.h"

#include <cstdint>
#include <string>
#include <vector>

namespace media {

// Per output stream: the packets a writer handed to the muxer.
class PacketTally {
public:
    struct Stream {
        AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
        AVCodecID codec = AV_CODEC_ID_NONE;
        std::int64_t packets = 0;
        double start = 0;         // seconds: the earliest decoding time
        double end = 0;           // seconds: the latest decoding time plus duration
        double longestPacket = 0; // seconds
    };
    // Records `pkt` (not yet written; time stamps in the time base of output
    // stream pkt->stream_index of `out`). Empty packets carry no media.
    void add(AVFormatContext const* out, AVPacket const* pkt);
    // Records the kind of every stream of `out`, also of those that carry
    // no packets (attachments).
    void describe(AVFormatContext const* out);
    std::vector<Stream> const& streams() const { return streams_; }

private:
    std::vector<Stream> streams_;
};

// The muxer's file: an AVIOContext over an AtomicFile whose every write and
// seek goes through the fault-injectable file calls. The first failure of
// any of them fails the save, whatever the muxer made of it (the muxer does
// not check its seeks while finishing the file).
class MovieOutput {
public:
    explicit MovieOutput(AtomicFile& file);
    MovieOutput(MovieOutput const&) = delete;
    MovieOutput& operator=(MovieOutput const&) = delete;

    // The name to give avformat_alloc_output_context2 (the muxer reopens it
    // to move the movie header to the front).
    std::string const& url() const { return file_.path(); }
    // Makes `out` write here and count its packets (through writePacket).
    // `out` keeps a pointer to this in its `opaque` field.
    void attach(AVFormatContext* out);
    // Hands the sound of QuickTime and MPEG-4 files to the muxer in bundles
    // of frames (see SampleBundler): every stream of `out` that suits. Only
    // for files whose movie header the muxer writes at the end (no fast start).
    void bundleSound(AVFormatContext* out);
    // Hands the last bundles to the muxer and writes the trailer; returns
    // what av_write_trailer returned.
    int writeTrailer(AVFormatContext* out);
    // Call right after writeTrailer with its result: flushes, lists every
    // bundled frame in the movie header, then throws MediaError if the
    // trailer or any write, seek or flush failed.
    void finish(AVFormatContext* out, int trailerResult);
    // Reopens the file and checks that it probes as the container of
    // `container`, with the tallied streams, each with the tallied packet count
    // (where the container keeps packets apart) and duration. Throws
    // SaveCheckFailed saying what is wrong.
    void verify(Container container) const;

    PacketTally const& tally() const { return tally_; }
    std::int64_t bytes() const { return file_.size(); }
    SampleBundler const& bundler() const { return bundler_; }
    // The first failed call (0: none), as an errno value, and its name.
    int error() const { return error_; }

private:
    friend int writePacket(AVFormatContext* out, AVPacket* pkt);
#if LIBAVFORMAT_VERSION_MAJOR >= 61
    static int writeCallback(void* opaque, std::uint8_t const* buf, int size);
#else
    static int writeCallback(void* opaque, std::uint8_t* buf, int size);
#endif
    static std::int64_t seekCallback(void* opaque, std::int64_t offset, int whence);
    // Writes all of `bytes` at the file's position; 0, or the errno of the
    // failed call (also recorded by fail()).
    int writeAll(std::uint8_t const* bytes, std::size_t size);
    void fail(char const* call, int err);

    AtomicFile& file_;
    IOContext io_;
    PacketTally tally_;
    SampleBundler bundler_;
    int error_ = 0;
    char const* failedCall_ = "";
};

// Hands `pkt` to the muxer (av_interleaved_write_frame) after recording it
// in the tally of the MovieOutput attached to `out`, if any. Returns the
// muxer's result, or the error of a write or seek that failed meanwhile, so
// that a failing disk stops the save at once.
int writePacket(AVFormatContext* out, AVPacket* pkt);

// For files written without a tally (images, animations, the demo movie):
// checks that the file at `path` probes as `demuxer` (FFmpeg's short name)
// with `streams` streams. Throws SaveCheckFailed.
void verifyFileReadsAs(std::string const& path, char const* demuxer, unsigned streams);

} // namespace media
