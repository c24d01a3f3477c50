// The file calls of a save. They go through here so that tests can make the
// Nth call of one kind fail, as full disks, network and FUSE file systems do.
#pragma once

#include <cstddef>
#include <sys/types.h>

namespace media::fileio {

enum class Op { Write, Seek, Flush, Sync, Rename };
constexpr int kOpCount = 5;
char const* opName(Op op);

// Like write(2), lseek(2), fsync(2), rename(2) and linkat(2) (counted as a
// rename: it is the step that gives the new file a name). flush() is the
// point where buffered output is declared complete; it makes no call of its
// own and fails only when a fault is injected there.
ssize_t write(int fd, void const* buf, std::size_t n);
off_t seek(int fd, off_t offset, int whence);
int flush();
int sync(int fd);
int rename(char const* from, char const* to);
int linkat(int fromDir, char const* from, int toDir, char const* to, int flags);

// Makes the `nth` call (1-based) of `op` from now on fail with `error`, once.
// Counting starts afresh. Process-wide: only for tests.
void injectFault(Op op, int nth, int error);
// Stops injecting and restarts the counts.
void clearFaults();
// Calls of `op` since the last injectFault() or clearFaults().
int callCount(Op op);
// Whether the injected fault has happened.
bool faultFired();

// Whether new files may be created without a name (O_TMPFILE). Tests turn it
// off to take the path of file systems without it: a hidden temporary name.
bool anonymousFilesAllowed();
void allowAnonymousFiles(bool allowed);

} // namespace media::fileio
