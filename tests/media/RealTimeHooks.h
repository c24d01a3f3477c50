// Allocation and lock counters for code run on a marked thread.
#pragma once

namespace realtime {

struct Counts {
    long allocations = 0, frees = 0, locks = 0;
};

// Marks (or unmarks) the calling thread: what it allocates, frees or locks
// from now on is counted.
void mark(bool on);
Counts counts();

// Marks the calling thread for the life of the scope.
struct Marked {
    Marked() { mark(true); }
    ~Marked() { mark(false); }
    Marked(Marked const&) = delete;
    Marked& operator=(Marked const&) = delete;
};

} // namespace realtime
