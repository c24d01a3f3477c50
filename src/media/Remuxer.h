// Copying streams from source files into a new file, unchanged: packets,
// codec parameters, tags, dispositions, side data, chapters.
#pragma once

#include "FFmpeg.h"
#include "MovieFile.h"

#include <map>
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
