// What a player reads from a movie file, stream by stream: codecs, tags,
// dispositions, side data and a checksum of every packet's payload, for tests
// that compare a saved movie with its source.
#pragma once

#include "FFmpeg.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace testsupport {

// One stream of a file as a player reads it.
struct StreamInfo {
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    AVCodecID codec = AV_CODEC_ID_NONE;
    unsigned tag = 0;
    int disposition = 0;
    std::map<std::string, std::string> tags;
    std::map<int, std::string> sideData;
    std::string extradata; // attachments
    bool lengthPrefixed = false; // H.264/HEVC packets framed by lengths, not start codes
    int channels = 0;
    std::string layout;
    int bits = 0;
    std::vector<std::uint64_t> packets; // a checksum of each packet's payload
};

struct FileInfo {
    std::string format;
    double start = 0;
    std::map<std::string, std::string> tags;
    std::vector<std::pair<std::string, double>> chapters; // title, start in seconds from the file's start
    std::vector<StreamInfo> streams;
};

// Reads the whole file. Throws media::MediaError when it does not open.
FileInfo inspect(std::string const& path);

// A checksum of a packet's payload; H.264 and HEVC by their slice data only,
// whatever their framing (start codes, or length prefixes when
// `lengthPrefixed`).
std::uint64_t payloadChecksum(AVCodecID codec, std::uint8_t const* p, int size, bool lengthPrefixed);

} // namespace testsupport
