// Sound packets of a QuickTime or MPEG-4 file handed to FFmpeg's muxer in
// bundles of consecutive frames, and the file's sample tables rewritten
// afterwards to list every frame again.
//
// FFmpeg's QuickTime muxer keeps an index entry of 64 bytes for every packet
// until the file is finished; a three-hour movie with two sound tracks has
// over a million sound frames, some 65 MB of index. Given bundles of 16
// frames it keeps one entry per bundle, and this keeps 4 bytes per frame
// (its size) plus short runs of durations and bundle lengths. Once the
// muxer has written the movie header at the end of the file, the tables of
// the bundled tracks (time-to-sample, sample-to-chunk, sample sizes and the
// roll group of AAC) are rebuilt frame by frame and the header written again
// in place. The frames' bytes, their order in the file and the chunk
// offsets stay as the muxer wrote them.
#pragma once

#include "FFmpeg.h"

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace media {

class SampleBundler {
public:
    static constexpr int kFrames = 16;              // frames a bundle
    static constexpr int kMaxBytes = 256 * 1024;     // bytes a bundle at most

    // Whether the packets of `st` can go in bundles: sound whose every
    // packet is one frame the muxer only stores (AAC).
    static bool suits(AVStream const* st);
    // Bundles the packets of output stream `index` from now on.
    void enable(int index);
    bool bundles(int index) const { return streams_.count(index) != 0; }
    bool any() const { return !streams_.empty(); }

    // Takes `pkt` (of a bundled stream; its reference is taken, as the
    // muxer's own call does). Packets go to `write` (the muxer) bundled.
    using Write = std::function<int(AVPacket*)>;
    int add(AVPacket* pkt, Write const& write);
    // Hands every bundle still open to `write`; before the trailer.
    int flush(Write const& write);

    // Rewrites the movie header at the end of the file `fd` (as FFmpeg's
    // muxer leaves it without fast start) with the bundled tracks' tables
    // listing every frame. `writeAt(offset, bytes, size)` writes; it throws
    // on failure. Throws MediaError when the file is not as the muxer
    // leaves it or the tables do not match what was bundled.
    using WriteAt = std::function<void(std::int64_t offset, std::uint8_t const* bytes, std::size_t size)>;
    void rewriteTables(int fd, WriteAt const& writeAt) const;

    // Per-frame entries the muxer was spared (for tests and measurements).
    std::int64_t framesBundled() const;
    std::int64_t bundlesWritten() const;

    // `count` times `value` (durations, frames a bundle).
    struct Run {
        std::uint32_t count;
        std::int64_t value;
    };

private:
    struct Stream {
        // The bundle being filled.
        std::vector<std::uint8_t> data;
        std::int64_t dts = 0, pts = 0, duration = 0;
        int frames = 0, flags = 0;
        // What the muxer was given: every frame's size and duration, and
        // how many frames each of its samples holds.
        std::vector<std::uint32_t> sizes;
        std::vector<Run> durations;
        std::vector<Run> bundles;
    };
    static void append(std::vector<Run>& runs, std::int64_t value);
    int emit(int index, Stream& s, Write const& write);
    int single(int index, Stream& s, AVPacket* pkt, Write const& write);
    // The sample table `stbl` (its payload) of a bundled track, rebuilt.
    static std::vector<std::uint8_t> tablesFor(Stream const& s, std::span<std::uint8_t const> stbl);

    std::map<int, Stream> streams_;
};

} // namespace media
