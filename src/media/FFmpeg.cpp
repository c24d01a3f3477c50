// The media layer's own use of FFmpeg: errors, logging, frames and packets.
#include "FFmpeg.h"

#include <cstdlib>
#include <cstring>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace media {

std::string avError(int code)
{
    char buf[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(code, buf, sizeof buf);
    return buf;
}

int check(int code, std::string const& what)
{
    if (code < 0) throw MediaError(what + ": " + avError(code));
    return code;
}

void setupMediaLogging()
{
    int level = AV_LOG_QUIET;
    if (char const* env = std::getenv("DUBMATCH_FFMPEG_LOG")) {
        std::string v = env;
        if (v == "error") level = AV_LOG_ERROR;
        else if (v == "warning") level = AV_LOG_WARNING;
        else if (v == "info") level = AV_LOG_INFO;
        else if (v == "verbose") level = AV_LOG_VERBOSE;
        else if (v == "debug") level = AV_LOG_DEBUG;
    }
    av_log_set_level(level);
}

void keepLargeAllocationsMapped()
{
#if defined(__GLIBC__)
    if (!std::getenv("MALLOC_MMAP_THRESHOLD_")) mallopt(M_MMAP_THRESHOLD, 1 << 20);
#endif
}

Frame makeFrame()
{
    Frame f(av_frame_alloc());
    if (!f) throw MediaError("Out of memory.");
    return f;
}

Packet makePacket()
{
    Packet p(av_packet_alloc());
    if (!p) throw MediaError("Out of memory.");
    return p;
}

} // namespace media
