#include "FaultInjection.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace media::fileio {

namespace {

std::atomic<int> gCounts[kOpCount];
std::atomic<int> gFaultOp{-1};
std::atomic<int> gFaultNth{0};
std::atomic<int> gFaultError{0};
std::atomic<bool> gFired{false};
std::atomic<bool> gAnonymous{true};

// Counts the call; true (with errno set) when this is the one to fail.
bool failsNow(Op op)
{
    int n = ++gCounts[static_cast<int>(op)];
    if (gFaultOp.load() != static_cast<int>(op) || n != gFaultNth.load()) return false;
    gFired = true;
    errno = gFaultError.load();
    return true;
}

} // namespace

char const* opName(Op op)
{
    switch (op) {
    case Op::Write: return "write";
    case Op::Seek: return "seek";
    case Op::Flush: return "flush";
    case Op::Sync: return "fsync";
    case Op::Rename: return "rename";
    }
    return "?";
}

ssize_t write(int fd, void const* buf, std::size_t n)
{
    if (failsNow(Op::Write)) return -1;
    return ::write(fd, buf, n);
}

off_t seek(int fd, off_t offset, int whence)
{
    if (failsNow(Op::Seek)) return -1;
    return ::lseek(fd, offset, whence);
}

int flush() { return failsNow(Op::Flush) ? -1 : 0; }

int sync(int fd)
{
    if (failsNow(Op::Sync)) return -1;
    return ::fsync(fd);
}

int rename(char const* from, char const* to)
{
    if (failsNow(Op::Rename)) return -1;
    return std::rename(from, to);
}

int linkat(int fromDir, char const* from, int toDir, char const* to, int flags)
{
    if (failsNow(Op::Rename)) return -1;
    return ::linkat(fromDir, from, toDir, to, flags);
}

void injectFault(Op op, int nth, int error)
{
    clearFaults();
    gFaultNth = nth;
    gFaultError = error;
    gFaultOp = static_cast<int>(op);
}

void clearFaults()
{
    gFaultOp = -1;
    gFired = false;
    for (auto& c : gCounts) c = 0;
}

int callCount(Op op) { return gCounts[static_cast<int>(op)].load(); }

bool faultFired() { return gFired.load(); }

bool anonymousFilesAllowed() { return gAnonymous.load(); }

void allowAnonymousFiles(bool allowed) { gAnonymous = allowed; }

} // namespace media::fileio
