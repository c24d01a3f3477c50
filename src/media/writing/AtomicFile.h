// Files that appear whole or not at all, put in place of the real file.
#pragma once

#include "FileErrors.h"

#include <ctime>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace media {

std::string directoryOf(std::string const& path);
std::string baseName(std::string const& path);

// What tells one version of a file from another: a file replaced by another
// program has a new inode; one changed in place a new size or time.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    static FileIdentity of(struct stat const& st);
    bool operator==(FileIdentity const& o) const;
};

// What the caller allows when the target exists.
struct TargetPolicy {
    // Replace a write-protected file (the new file keeps its protection).
    // Without it such a target throws TargetWriteProtected.
    bool replaceWriteProtected = false;
};

// A file written under no name (or a hidden temporary name) in the folder of
// its target and put in place of the target only by commit(); otherwise
// nothing of it remains when this goes away.
//
// The target is the real file: a symbolic link is followed and the file it
// points to is replaced in its own folder. Anything but a regular file is
// refused (NotARegularFile), and so is a file with other hard links
// (TargetHasHardLinks): replacing it would split the links, and writing
// through them cannot be made safe against a kill. The new file gets the
// old one's mode, owner and group (as far as permitted), extended
// attributes and ACLs. commit() refuses (FileChangedOnDisk) when the target
// is no longer the version recorded when the save began, or `expected`.
//
// Where the file system supports it the file is created with O_TMPFILE, so
// a kill leaves nothing; otherwise it is named .NAME.dubmatch-XXXXXX and such
// names older than a day are removed at the next save in the folder.
class AtomicFile {
public:
    enum class Kind {
        NewOrReplace, // a new file, or one that replaces what is there
        Replace,      // the target must exist (saving in place)
    };
    AtomicFile(std::string const& path, Kind kind, TargetPolicy policy = {},
               std::optional<FileIdentity> expected = std::nullopt);
    ~AtomicFile();
    AtomicFile(AtomicFile const&) = delete;
    AtomicFile& operator=(AtomicFile const&) = delete;

    // The open file, for reading and writing.
    int fd() const { return fd_; }
    // A name through which the new contents can be opened until commit().
    std::string const& path() const { return path_; }
    // The real file that commit() replaces.
    std::string const& target() const { return target_; }
    // Whether the file has no name until commit().
    bool anonymous() const { return anonymous_; }
    std::int64_t size() const;

    // Gives the file its final mode and attributes, flushes it to disk,
    // checks the target is still what it was, and puts the file in place in
    // one step. Returns the identity of the file now at the target.
    FileIdentity commit();

private:
    void copyAttributes();
    std::string freeTemporaryName() const;

    std::string target_;
    std::string path_;
    std::string named_;       // a temporary name of ours in the folder, if any
    int fd_ = -1;
    int slot_ = -1;           // where named_ is registered for signal clean-up
    bool anonymous_ = false;
    bool existed_ = false;
    struct stat old_ {};
    FileIdentity expected_;
    bool committed_ = false;
};

// Throws NotARegularFile unless `st` is a regular file; `path` names it in
// the message.
void requireRegularFile(struct stat const& st, std::string const& path);

// Removes the temporary files that saves in progress have given a name.
// Async-signal-safe: for signal handlers that end the process. Returns how
// many files this process has put in place of their targets, counting one
// whose rename had already happened (a complete file, kept).
int removeTemporariesNow() noexcept;

// Removes stale temporaries of ours (.NAME.dubmatch-XXXXXX, regular, owned by
// us, older than `maxAgeSeconds`) from `folder`. Returns how many.
int removeStaleTemporaries(std::string const& folder, double maxAgeSeconds = 24 * 3600);

} // namespace media
