#include "Boxes.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace media {

bool BoxHeader::is(char const* fourcc) const { return std::memcmp(type, fourcc, 4) == 0; }

bool readBoxHeader(int fd, std::int64_t at, std::int64_t end, BoxHeader& box)
{
    std::uint8_t h[16] = {};
    if (end - at < 8) return false;
    ssize_t got;
    do {
        got = ::pread(fd, h, 16, at);
    } while (got < 0 && errno == EINTR);
    if (got < 8) return false;
    auto be = [&](int from, int bytes) {
        std::uint64_t v = 0;
        for (int i = 0; i < bytes; ++i) v = (v << 8) | h[from + i];
        return v;
    };
    box.at = at;
    std::memcpy(box.type, h + 4, 4);
    std::uint64_t size = be(0, 4);
    box.header = 8;
    if (size == 1) {
        if (end - at < 16 || got < 16) return false;
        size = be(8, 8);
        box.header = 16;
    } else if (size == 0) {
        size = static_cast<std::uint64_t>(end - at); // to the end of the file
    }
    if (size < static_cast<std::uint64_t>(box.header) || size > static_cast<std::uint64_t>(end - at)) return false;
    box.size = static_cast<std::int64_t>(size);
    return true;
}

} // namespace media
