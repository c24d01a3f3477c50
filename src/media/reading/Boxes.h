// The boxes (atoms) of QuickTime and MPEG-4 files, read straight from the
// file: a box is a 32-bit size (1: a 64-bit size follows; 0: to the end),
// a four-character type, then its contents.
#pragma once

#include <cstdint>

namespace media {

struct BoxHeader {
    std::int64_t at = 0, size = 0, header = 0; // where, how long in all, how long its header
    char type[5] = {0};
    bool is(char const* fourcc) const;
};

// The box at `at` in the open file `fd`, which must end by `end`; false when
// the bytes there are no box (cut short, or larger than room).
bool readBoxHeader(int fd, std::int64_t at, std::int64_t end, BoxHeader& box);

} // namespace media
