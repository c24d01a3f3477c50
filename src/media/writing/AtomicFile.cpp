#include "AtomicFile.h"

#include "FaultInjection.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <random>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace media {

std::string directoryOf(std::string const& path)
{
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string baseName(std::string const& path)
{
    auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

FileIdentity FileIdentity::of(struct stat const& st)
{
    return {st.st_dev, st.st_ino, st.st_size, st.st_mtim};
}

bool FileIdentity::operator==(FileIdentity const& o) const
{
    return device == o.device && inode == o.inode && size == o.size && modified.tv_sec == o.modified.tv_sec
        && modified.tv_nsec == o.modified.tv_nsec;
}

void requireRegularFile(struct stat const& st, std::string const& path)
{
    if (S_ISREG(st.st_mode)) return;
    char const* kind = S_ISDIR(st.st_mode)                          ? "a folder"
                     : S_ISFIFO(st.st_mode)                         ? "a named pipe (FIFO)"
                     : S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode) ? "a device"
                     : S_ISSOCK(st.st_mode)                         ? "a socket"
                                                                    : "not a file";
    throw NotARegularFile("\"" + path + "\" is " + kind + ", not a regular file.");
}

namespace {

constexpr char kTempMark[] = ".dubmatch-";
constexpr std::size_t kTempMarkLength = sizeof kTempMark - 1;
constexpr std::size_t kRandomLength = 6;

// Temporary names that a signal handler removes before the process ends.
// A slot's word holds its state in the low two bits (0 free, 1 in use, 2
// being filled, 3 being renamed over its target) and above them how many
// files went in place through the slot. One word, so that a handler sees a
// file being renamed or a file counted as in place, never both or neither.
constexpr int kSlots = 16;
constexpr unsigned kStateMask = 3;
constexpr unsigned kOnePlaced = 4;
struct Slot {
    std::atomic<unsigned> word{0};
    char name[4096];
};
Slot gSlots[kSlots];
std::atomic<int> gPlacedWithoutSlot{0};

int registerTemporary(std::string const& name)
{
    if (name.size() >= sizeof gSlots[0].name) return -1;
    for (int i = 0; i < kSlots; ++i) {
        unsigned word = gSlots[i].word.load();
        if ((word & kStateMask) != 0 || !gSlots[i].word.compare_exchange_strong(word, word | 2)) continue;
        std::memcpy(gSlots[i].name, name.c_str(), name.size() + 1);
        gSlots[i].word.store(word | 1, std::memory_order_release);
        return i;
    }
    return -1; // no room: the stale-file clean-up still catches it
}

void unregisterTemporary(int& slot)
{
    if (slot >= 0) gSlots[slot].word.fetch_and(~kStateMask, std::memory_order_release);
    slot = -1;
}

// The named file of `slot` is about to be renamed over its target.
void markRenaming(int slot)
{
    if (slot >= 0) gSlots[slot].word.fetch_or(3, std::memory_order_release);
}

// The rename is done: the slot is free and counts one more file in place.
void markPlaced(int& slot)
{
    if (slot < 0) {
        ++gPlacedWithoutSlot;
        return;
    }
    unsigned word = gSlots[slot].word.load();
    gSlots[slot].word.store((word & ~kStateMask) + kOnePlaced, std::memory_order_release);
    slot = -1;
}

bool isOurTemporaryName(std::string const& name)
{
    std::size_t n = name.size();
    if (n < 2 + kTempMarkLength + kRandomLength || name[0] != '.') return false;
    if (name.compare(n - kRandomLength - kTempMarkLength, kTempMarkLength, kTempMark) != 0) return false;
    for (std::size_t i = n - kRandomLength; i < n; ++i)
        if (!std::isalnum(static_cast<unsigned char>(name[i]))) return false;
    return true;
}

bool writeProtected(struct stat const& st, std::string const& path)
{
    // Root may write anything; a file without any write permission still
    // says its owner wants it kept.
    if (::geteuid() == 0) return (st.st_mode & 0222) == 0;
    return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0 && errno == EACCES;
}

std::string errorText(int err) { return std::strerror(err); }

std::string changedMessage(std::string const& path)
{
    return "\"" + path + "\" was changed by another program since it was opened, so it was not replaced. "
           "Save under another name to keep both versions.";
}

// Names of the extended attributes of a file (by path) or an open file.
std::vector<std::string> attributeNames(std::string const& path, int fd)
{
    for (;;) {
        ssize_t size = fd >= 0 ? ::flistxattr(fd, nullptr, 0) : ::listxattr(path.c_str(), nullptr, 0);
        if (size <= 0) return {};
        std::vector<char> buf(static_cast<std::size_t>(size));
        size = fd >= 0 ? ::flistxattr(fd, buf.data(), buf.size()) : ::listxattr(path.c_str(), buf.data(), buf.size());
        if (size < 0 && errno == ERANGE) continue; // grew meanwhile
        if (size < 0) return {};
        std::vector<std::string> names;
        for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
            std::string name(buf.data() + at);
            at += name.size() + 1;
            if (!name.empty()) names.push_back(name);
        }
        return names;
    }
}

} // namespace

int removeTemporariesNow() noexcept
{
    int placed = gPlacedWithoutSlot.load();
    for (auto& s : gSlots) {
        unsigned word = s.word.load(std::memory_order_acquire);
        placed += static_cast<int>(word / kOnePlaced);
        unsigned state = word & kStateMask;
        // A name that is gone while its rename runs has become the target.
        if (state == 1) ::unlink(s.name);
        else if (state == 3 && ::unlink(s.name) != 0 && errno == ENOENT) ++placed;
    }
    return placed;
}

int removeStaleTemporaries(std::string const& folder, double maxAgeSeconds)
{
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), ::closedir);
    if (!dir) return 0;
    int dfd = ::dirfd(dir.get());
    std::time_t now = std::time(nullptr);
    int removed = 0;
    while (dirent* e = ::readdir(dir.get())) {
        if (!isOurTemporaryName(e->d_name)) continue;
        struct stat st {};
        if (::fstatat(dfd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid()) continue;
        if (std::difftime(now, st.st_mtime) < maxAgeSeconds) continue;
        if (::unlinkat(dfd, e->d_name, 0) == 0) ++removed;
    }
    return removed;
}

AtomicFile::AtomicFile(std::string const& path, Kind kind, TargetPolicy policy, std::optional<FileIdentity> expected)
{
    struct stat link {};
    if (::lstat(path.c_str(), &link) != 0) {
        int err = errno;
        if (err != ENOENT || kind == Kind::Replace) throw MediaError("Cannot save over \"" + path + "\": " + errorText(err) + ".");
        target_ = path;
    } else {
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0) {
            int err = errno;
            if (S_ISLNK(link.st_mode)) throw NotARegularFile("\"" + path + "\" is a symbolic link to nothing (" + errorText(err) + ").");
            throw MediaError("Cannot save over \"" + path + "\": " + errorText(err) + ".");
        }
        requireRegularFile(st, path);
        std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), std::free);
        if (!real) throw MediaError("Cannot save over \"" + path + "\": " + errorText(errno) + ".");
        target_ = real.get();
        if (st.st_nlink > 1)
            throw TargetHasHardLinks("\"" + path + "\" has " + std::to_string(st.st_nlink)
                                     + " names (hard links). Replacing it would leave the other names on the old contents; "
                                       "save under another name instead.");
        if (!policy.replaceWriteProtected && writeProtected(st, target_))
            throw TargetWriteProtected("\"" + path + "\" is write-protected.");
        existed_ = true;
        old_ = st;
        expected_ = FileIdentity::of(st);
        if (expected && !(*expected == expected_)) throw FileChangedOnDisk(changedMessage(path));
    }

    std::string folder = directoryOf(target_);
    removeStaleTemporaries(folder);
    // A new file gets its mode from the umask (or the folder's default ACL)
    // through open(); a replacement is kept private until commit() gives it
    // the old file's mode.
    mode_t mode = existed_ ? 0600 : 0666;
    fd_ = fileio::anonymousFilesAllowed() ? ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, mode) : -1;
    if (fd_ >= 0) {
        path_ = "/proc/self/fd/" + std::to_string(fd_);
        if (::access(path_.c_str(), F_OK) == 0) {
            anonymous_ = true;
            return;
        }
        ::close(fd_); // no /proc: linkat() could not name the file
        fd_ = -1;
    }
    for (int attempt = 0; attempt < 64; ++attempt) {
        std::string name = freeTemporaryName();
        slot_ = registerTemporary(name);
        fd_ = ::open(name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, mode);
        if (fd_ >= 0) {
            named_ = path_ = name;
            return;
        }
        int err = errno;
        unregisterTemporary(slot_);
        if (err != EEXIST) throw MediaError("Cannot write in the folder \"" + folder + "\": " + errorText(err) + ".");
    }
    throw MediaError("Cannot find a free temporary name in the folder \"" + folder + "\".");
}

AtomicFile::~AtomicFile()
{
    if (!committed_ && !named_.empty()) ::unlink(named_.c_str());
    unregisterTemporary(slot_);
    if (fd_ >= 0) ::close(fd_);
}

std::string AtomicFile::freeTemporaryName() const
{
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    thread_local std::mt19937 random{std::random_device{}()};
    std::uniform_int_distribution<std::size_t> pick(0, sizeof kAlphabet - 2);
    std::string name = baseName(target_).substr(0, 200); // room for the mark within NAME_MAX
    std::string suffix;
    for (std::size_t i = 0; i < kRandomLength; ++i) suffix += kAlphabet[pick(random)];
    return directoryOf(target_) + "/." + name + kTempMark + suffix;
}

std::int64_t AtomicFile::size() const
{
    struct stat st {};
    return ::fstat(fd_, &st) == 0 ? st.st_size : 0;
}

void AtomicFile::copyAttributes()
{
    // Owner and group first: a change of owner clears the set-id bits, which
    // the mode below puts back. Without the right to give the file away, the
    // group alone may still be allowed; otherwise the file stays ours.
    if (::fchown(fd_, old_.st_uid, old_.st_gid) != 0) (void)::fchown(fd_, static_cast<uid_t>(-1), old_.st_gid);
    if (::fchmod(fd_, old_.st_mode & 07777) != 0)
        throw MediaError("Cannot give the new file the permissions of \"" + target_ + "\": " + errorText(errno) + ".");

    // Extended attributes, ACLs among them (system.posix_acl_access). What
    // the new file got from its folder but the old one lacked goes.
    auto oldNames = attributeNames(target_, -1);
    for (auto const& name : attributeNames({}, fd_))
        if (std::find(oldNames.begin(), oldNames.end(), name) == oldNames.end()) (void)::fremovexattr(fd_, name.c_str());
    for (auto const& name : oldNames) {
        std::vector<char> value(256);
        ssize_t n;
        for (;;) {
            n = ::getxattr(target_.c_str(), name.c_str(), value.data(), value.size());
            if (n >= 0 || errno != ERANGE) break;
            ssize_t need = ::getxattr(target_.c_str(), name.c_str(), nullptr, 0);
            if (need < 0) break;
            value.resize(static_cast<std::size_t>(need) + 1);
        }
        if (n < 0) continue; // gone, or not ours to read
        if (::fsetxattr(fd_, name.c_str(), value.data(), static_cast<std::size_t>(n), 0) == 0) continue;
        int err = errno;
        // Attributes of namespaces only the system may set (trusted., security.)
        // cannot be copied by us; losing an ACL would widen or narrow access.
        if (name.rfind("system.posix_acl", 0) == 0 || (err != EPERM && err != ENOTSUP))
            throw MediaError("Cannot give the new file the attribute " + name + " of \"" + target_ + "\": " + errorText(err) + ".");
    }
}

FileIdentity AtomicFile::commit()
{
    if (committed_) throw MediaError("The file is already in place.");
    if (existed_) copyAttributes();
    if (fileio::sync(fd_) != 0) throw MediaError("Cannot write the new file to disk: " + errorText(errno) + ".");

    // The target must still be the version this save started from.
    struct stat now {};
    if (::stat(target_.c_str(), &now) == 0) {
        requireRegularFile(now, target_);
        if (!existed_ || !(FileIdentity::of(now) == expected_)) throw FileChangedOnDisk(changedMessage(target_));
    } else if (errno != ENOENT || existed_) {
        throw FileChangedOnDisk(changedMessage(target_));
    }

    if (anonymous_) {
        // linkat() cannot replace a file: name the new file beside the
        // target first, then rename it over the target.
        for (int attempt = 0;; ++attempt) {
            std::string name = freeTemporaryName();
            slot_ = registerTemporary(name);
            if (fileio::linkat(AT_FDCWD, path_.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
                named_ = name;
                break;
            }
            int err = errno;
            unregisterTemporary(slot_);
            if (err != EEXIST || attempt == 63)
                throw MediaError("Cannot put the new file in the folder \"" + directoryOf(target_) + "\": " + errorText(err) + ".");
        }
    }
    markRenaming(slot_);
    if (fileio::rename(named_.c_str(), target_.c_str()) != 0)
        throw MediaError("Cannot replace \"" + target_ + "\": " + errorText(errno) + ".");
    committed_ = true;
    markPlaced(slot_);
    named_.clear();

    // The rename is done; making it durable is best effort and cannot undo it.
    int dir = ::open(directoryOf(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        (void)::fsync(dir);
        ::close(dir);
    }
    struct stat st {};
    ::fstat(fd_, &st);
    return FileIdentity::of(st);
}

} // namespace media
