// Copying streams from source files into a new file, unchanged: packets,
// codec parameters, tags, dispositions, side data, chapters.
#pragma once

#include "FFmpeg.h"
#include "MovieFile.h"

#include <atomic>
#include <map>
#include <vector>
#include <string>

namespace media {

// The source files of a movie opened once for a save, with their streams
// as the demuxer sees them.
class SourceInputs {
public:
    // The demuxer of `file`, opened on first use (with stream probing for
    // containers without a header, such as MPEG-TS).
    AVFormatContext* of(SourceFile const& file);
    // The stream a medium reads, or null when the file no longer has it.
    AVStream const* stream(FileMedia const& media);
    // Hands the open demuxer of `file` over (for reading its packets).
    SourceFile::Input take(SourceFile const& file);

private:
    std::map<SourceFile const*, SourceFile::Input> inputs_;
};

// Gives copied packets the decoding times a muxer needs. Matroska and WebM
// store presentation times only: with reordered frames the demuxer derives
// decoding times from the frames it has seen, so the first few packets of
// such a stream (before the reorder delay is filled) come without one. They
// wait here until a packet with a decoding time arrives, and are then given
// times before it, a frame duration apart and never after their own
// presentation time. A stream that never gets one has its times made from
// its sorted presentation times.
class DecodingTimes {
public:
    // Takes the packet (its data is moved out of `pkt`); appends the packets
    // now ready to `ready`, in order.
    void push(AVPacket* pkt, std::vector<Packet>& ready);
    // The packets still waiting, with times made up (end of the stream).
    void flush(std::vector<Packet>& ready);
    bool passesThrough(AVPacket const* pkt) const { return waiting_.empty() && pkt->dts != AV_NOPTS_VALUE; }

private:
    std::vector<Packet> waiting_;
    std::int64_t lastDts_ = AV_NOPTS_VALUE;
};

// Whether the pictures of `stream`, read from `fmt`, come in decoding order
// with no presentation times of their own: AVI stores one time per packet,
// its place in the file, so reordered frames (B-frames) lose the order they
// are shown in, and working it out from the frames that follow (GENPTS)
// gives every packet the next one's time.
bool needsPresentationTimes(AVFormatContext const* fmt, AVStream const* stream);

// The presentation time of each packet of the stream, by its decoding time
// stamp: the stream is decoded once and the n-th picture the decoder puts
// out is shown at the n-th decoding time, so the first picture keeps its
// time. Decoding times then move earlier by `decodingDelay` (the decoder's
// reorder delay), so that no packet is decoded after it is shown.
struct PresentationTimes {
    std::map<std::int64_t, std::int64_t> shownAt; // by decoding time
    std::int64_t decodingDelay = 0;
};
// Stops with Cancelled when `stop` is set.
PresentationTimes presentationTimes(FileMedia const& media, std::atomic<bool> const* stop);

// The codec tag `in` keeps in `out`: its own where the container knows it
// for the codec, 'hvc1' for HEVC in QuickTime and MPEG-4 (the tag Apple's
// players require), else 0 (the muxer's default).
unsigned codecTagFor(AVOutputFormat const* out, AVCodecParameters const* in);

// Copies the stream's tags (without the statistics some muxers store, which
// would be stale) and its disposition; `enabled` decides the default flag.
void copyStreamTags(AVStream* out, AVStream const* in, bool enabled);

// A new output stream that is a copy of `in`: parameters, tag, tags,
// disposition, side data (display matrix, mastering display, light level).
AVStream* addCopiedStream(AVFormatContext* out, AVStream const* in, bool enabled);

// A new chapter of `out` (its tags still empty).
AVChapter* addChapter(AVFormatContext* out, std::int64_t id, AVRational timeBase, std::int64_t start, std::int64_t end);

// The file's tags and chapters; chapter times are moved so that `origin`
// (AV_TIME_BASE units) is 0.
void copyFileDetails(AVFormatContext* out, AVFormatContext const* in, std::int64_t origin);

} // namespace media
