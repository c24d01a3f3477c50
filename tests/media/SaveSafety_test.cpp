// Saves put the real file in place of the real file, refuse what is not a
// file, keep its permissions and attributes, and never replace a version
// they did not start from. Inputs that are not movies, or are cut short, are
// told apart before anything is written.
#include "AtomicFile.h"
#include "FaultInjection.h"
#include "MediaTestSupport.h"
#include "MovieWriter.h"
#include "OffsetList.h"
#include "SaveCheck.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace media;
using namespace testsupport;

namespace {

TestMovieSpec tinySpec(double seconds = 3)
{
    TestMovieSpec s = smallSpec(seconds, 0.3, 1.0);
    s.width = 160;
    s.height = 120;
    return s;
}

std::string tinyMovie() { return cachedMovie("tiny-safety.mov", tinySpec()); }

std::vector<std::string> sortedListing(std::string const& dir)
{
    auto names = listDir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

// A movie in `path`, opened, with sync points that change its sound.
struct Edited {
    OpenedMovie om;
    std::unique_ptr<OffsetList> list;
    explicit Edited(std::string const& path) : om(openMovie(path)), list(std::make_unique<OffsetList>(om.movie.get(), nullptr))
    {
        list->replacePoints(markPoints(tinySpec()));
    }
};


bool makeSocket(std::string const& path)
{
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (fd < 0 || path.size() >= sizeof addr.sun_path) return false;
    std::strcpy(addr.sun_path, path.c_str());
    bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    return ok;
}

// Things at a path that are not a regular file. `make` returns false when
// this machine cannot make one (devices need root).
struct NotAFile {
    char const* name;
    std::function<bool(std::string const&)> make;
};

std::vector<NotAFile> notFiles()
{
    return {
        {"FIFO", [](std::string const& p) { return ::mkfifo(p.c_str(), 0644) == 0; }},
        {"folder", [](std::string const& p) { return ::mkdir(p.c_str(), 0755) == 0; }},
        {"socket", makeSocket},
        {"device", [](std::string const& p) { return ::geteuid() == 0 && ::mknod(p.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0; }},
        {"link to a FIFO",
         [](std::string const& p) { return ::mkfifo((p + ".fifo").c_str(), 0644) == 0 && ::symlink((p + ".fifo").c_str(), p.c_str()) == 0; }},
        {"broken link", [](std::string const& p) { return ::symlink("nowhere.mov", p.c_str()) == 0; }},
    };
}

TEST(SaveTargets, AnythingButARegularFileIsRefusedAndLeftAlone)
{
    Edited e(tinyMovie());
    for (auto const& row : notFiles()) {
        SCOPED_TRACE(row.name);
        ScratchDir dir;
        std::string target = dir.file("out.mov");
        if (!row.make(target)) continue;
        struct stat before {};
        ::lstat(target.c_str(), &before);
        auto listing = sortedListing(dir.path());
        EXPECT_THROW(writeMovie(*e.om.movie, target), NotARegularFile);
        EXPECT_THROW(exportMovie(*e.om.movie, target, ExportType::AIFF), NotARegularFile);
        struct stat after {};
        ::lstat(target.c_str(), &after);
        EXPECT_EQ(after.st_mode, before.st_mode);
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(sortedListing(dir.path()), listing);
    }
}

TEST(SaveTargets, WriteProtectedAndHardLinkedFilesAreRefused)
{
    Edited e(tinyMovie());
    ScratchDir dir;
    std::string old = "the old contents\n";

    std::string locked = dir.file("locked.mov");
    writeFile(locked, old);
    ::chmod(locked.c_str(), 0444);
    EXPECT_THROW(writeMovie(*e.om.movie, locked), TargetWriteProtected);
    EXPECT_EQ(readFile(locked), old);
    // Allowed, it is replaced and stays write-protected.
    SaveOptions force;
    force.target.replaceWriteProtected = true;
    writeMovie(*e.om.movie, locked, {}, force);
    struct stat st {};
    ::stat(locked.c_str(), &st);
    EXPECT_EQ(st.st_mode & 07777, 0444u);
    EXPECT_EQ(disabledSoundTracks(locked), 1);

    std::string linked = dir.file("linked.mov");
    writeFile(linked, old);
    ASSERT_EQ(::link(linked.c_str(), dir.file("other-name.mov").c_str()), 0);
    try {
        writeMovie(*e.om.movie, linked);
        ADD_FAILURE() << "a hard-linked file was replaced";
    } catch (TargetHasHardLinks const& x) {
        EXPECT_NE(std::string(x.what()).find("2 names"), std::string::npos) << x.what();
    }
    EXPECT_EQ(readFile(linked), old);
    EXPECT_EQ(readFile(dir.file("other-name.mov")), old);
    std::vector<std::string> expected{"linked.mov", "locked.mov", "other-name.mov"};
    EXPECT_EQ(sortedListing(dir.path()), expected);
}

TEST(SaveInPlace, ReplacesTheFileALinkPointsToInItsOwnFolder)
{
    ScratchDir dir;
    ASSERT_EQ(::mkdir(dir.file("real").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(dir.file("links").c_str(), 0755), 0);
    std::string real = dir.file("real/m.mov"), link = dir.file("links/m.mov");
    writeFile(real, readFile(tinyMovie()));
    ASSERT_EQ(::symlink("../real/m.mov", link.c_str()), 0);

    Edited e(link);
    saveInPlace(*e.om.movie, link);
    struct stat st {};
    ASSERT_EQ(::lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(disabledSoundTracks(real), 1);
    EXPECT_EQ(sortedListing(dir.file("real")), std::vector<std::string>{"m.mov"});
    EXPECT_EQ(sortedListing(dir.file("links")), std::vector<std::string>{"m.mov"});
    // The link is followed for a new file too: -o onto it writes the real file.
    writeMovie(*e.om.movie, link);
    ASSERT_EQ(::lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
}

// The bytes of a POSIX access ACL granting user `uid` read and write, as the
// kernel stores it in system.posix_acl_access.
std::string aclGranting(std::uint32_t uid)
{
    std::string acl;
    auto put32 = [&](std::uint32_t v) {
        for (int i = 0; i < 4; ++i) acl += static_cast<char>((v >> (8 * i)) & 0xff);
    };
    auto entry = [&](std::uint16_t tag, std::uint16_t perm, std::uint32_t id) {
        acl += static_cast<char>(tag & 0xff);
        acl += static_cast<char>(tag >> 8);
        acl += static_cast<char>(perm & 0xff);
        acl += static_cast<char>(perm >> 8);
        put32(id);
    };
    put32(2); // version
    entry(0x01, 6, 0xffffffff); // owner rw
    entry(0x02, 6, uid);        // named user rw
    entry(0x04, 4, 0xffffffff); // group r
    entry(0x10, 6, 0xffffffff); // mask rw
    entry(0x20, 4, 0xffffffff); // other r
    return acl;
}

std::string attribute(std::string const& path, char const* name)
{
    char buf[1024];
    ssize_t n = ::getxattr(path.c_str(), name, buf, sizeof buf);
    return n < 0 ? std::string() : std::string(buf, static_cast<std::size_t>(n));
}

TEST(SaveInPlace, KeepsModeOwnerGroupAttributesAndAcl)
{
    ScratchDir dir;
    std::string path = dir.file("m.mov");
    writeFile(path, readFile(tinyMovie()));
    ::chmod(path.c_str(), 0604);
    bool xattrs = ::setxattr(path.c_str(), "user.dubmatch.note", "kept", 4, 0) == 0;
    std::string acl = aclGranting(4242);
    bool acls = ::setxattr(path.c_str(), "system.posix_acl_access", acl.data(), acl.size(), 0) == 0;
    bool root = ::geteuid() == 0;
    if (root) {
        ASSERT_EQ(::chown(path.c_str(), 4242, 4343), 0);
    }
    struct stat before {};
    ::stat(path.c_str(), &before);

    Edited e(path);
    saveInPlace(*e.om.movie, path);
    struct stat after {};
    ::stat(path.c_str(), &after);
    EXPECT_NE(after.st_ino, before.st_ino); // a new file
    EXPECT_EQ(after.st_mode & 07777, before.st_mode & 07777);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
    if (xattrs) {
        EXPECT_EQ(attribute(path, "user.dubmatch.note"), "kept");
    }
    if (acls) {
        EXPECT_EQ(attribute(path, "system.posix_acl_access"), acl);
    }
    EXPECT_EQ(disabledSoundTracks(path), 1);
    if (!xattrs || !acls || !root)
        std::printf("note: checked without%s%s%s\n", xattrs ? "" : " extended attributes", acls ? "" : " ACLs",
                    root ? "" : " a foreign owner (not root)");
}

TEST(NewFiles, TakeTheirModeFromTheUmask)
{
    Edited e(tinyMovie());
    ScratchDir dir;
    for (mode_t mask : {022, 027, 077}) {
        mode_t old = ::umask(mask);
        std::string path = dir.file("new-" + std::to_string(mask) + ".mov");
        writeMovie(*e.om.movie, path);
        ::umask(old);
        struct stat st {};
        ASSERT_EQ(::stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0666u & ~mask) << "umask " << mask;
    }
}

// Another program's change to the movie file, made after the movie was
// opened (`during` false) or while the save runs.
struct Change {
    char const* name;
    bool during;
    bool movieKeepsItsData; // false: the movie's own data was overwritten
    std::function<void(std::string const& path)> apply;
};

TEST(SaveInPlace, StopsWhenAnotherProgramChangedTheFile)
{
    std::vector<Change> changes = {
        {"appended to", false, true, [](std::string const& p) { writeFile(p, readFile(p) + "more"); }},
        {"replaced", false, true,
         [](std::string const& p) {
             writeFile(p + ".new", "another program's file\n");
             std::rename((p + ".new").c_str(), p.c_str());
         }},
        {"rewritten while saving", true, false, [](std::string const& p) { writeFile(p, "another program's file\n"); }},
        {"replaced while saving", true, true,
         [](std::string const& p) {
             writeFile(p + ".new", "another program's file\n");
             std::rename((p + ".new").c_str(), p.c_str());
         }},
    };
    for (auto const& c : changes) {
        SCOPED_TRACE(c.name);
        ScratchDir dir;
        std::string path = dir.file("m.mov");
        writeFile(path, readFile(tinyMovie()));
        Edited e(path);
        bool changed = false;
        Progress progress = [&](std::string const&, Phase, double f) {
            if (c.during && !changed && f > 0.2) {
                c.apply(path);
                changed = true;
            }
            return true;
        };
        if (!c.during) c.apply(path);
        std::string theirs = readFile(path);
        EXPECT_THROW(saveInPlace(*e.om.movie, path, progress), FileChangedOnDisk);
        if (c.during) {
            EXPECT_TRUE(changed);
            theirs = "another program's file\n";
        }
        EXPECT_EQ(readFile(path), theirs);
        EXPECT_EQ(sortedListing(dir.path()), std::vector<std::string>{"m.mov"});
        if (c.movieKeepsItsData) {
            // Save As still works.
            writeMovie(*e.om.movie, dir.file("copy.mov"));
            EXPECT_EQ(disabledSoundTracks(dir.file("copy.mov")), 1);
        }
    }
}

TEST(StaleTemporaries, OnlyOldOnesOfOursGoAtTheNextSave)
{
    ScratchDir dir;
    std::string path = dir.file("m.mov");
    writeFile(path, readFile(tinyMovie()));
    struct Row {
        char const* name;
        bool old;
        bool folder;
        bool removed;
    };
    std::vector<Row> rows = {
        {".m.mov.dubmatch-Ab12Cd", true, false, true},   // ours, two days old
        {".other.mov.dubmatch-ZZ99zz", true, false, true}, // ours, for another movie of the folder
        {".m.mov.dubmatch-Fresh1", false, false, false},  // ours but recent: a save in progress
        {".m.mov.dubmatch-old", true, false, false},      // not our pattern
        {"m.mov.dubmatch-Ab12Cd", true, false, false},    // not hidden: not ours
        {".m.mov.dubmatch-Dir123", true, true, false},    // a folder
    };
    timespec twoDaysAgo[2] = {{std::time(nullptr) - 2 * 86400, 0}, {std::time(nullptr) - 2 * 86400, 0}};
    for (auto const& r : rows) {
        std::string p = dir.file(r.name);
        if (r.folder) {
            ASSERT_EQ(::mkdir(p.c_str(), 0755), 0);
        } else {
            writeFile(p, "left by a killed save");
        }
        if (r.old) {
            ASSERT_EQ(::utimensat(AT_FDCWD, p.c_str(), twoDaysAgo, 0), 0);
        }
    }
    Edited e(path);
    saveInPlace(*e.om.movie, path);
    for (auto const& r : rows) EXPECT_EQ(exists(dir.file(r.name)), !r.removed) << r.name;
}

TEST(StaleTemporaries, NamedOnesGoOnFailureAndInTheSignalCleanUp)
{
    ScratchDir dir;
    std::string target = dir.file("a.txt");
    fileio::allowAnonymousFiles(false);
    {
        AtomicFile file(target, AtomicFile::Kind::NewOrReplace);
        EXPECT_FALSE(file.anonymous());
        EXPECT_EQ(baseName(file.path()).rfind(".a.txt.dubmatch-", 0), 0u) << file.path();
        EXPECT_TRUE(exists(file.path()));
        removeTemporariesNow(); // what a signal handler does before the process ends
        EXPECT_FALSE(exists(file.path()));
    }
    {
        AtomicFile file(target, AtomicFile::Kind::NewOrReplace);
        writeFile(file.path(), "never committed");
    }
    EXPECT_TRUE(listDir(dir.path()).empty());
    {
        AtomicFile file(target, AtomicFile::Kind::NewOrReplace);
        writeFile(file.path(), "committed");
        file.commit();
    }
    fileio::allowAnonymousFiles(true);
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{"a.txt"});
    EXPECT_EQ(readFile(target), "committed");
}

TEST(Inputs, WhatIsNotAFileIsRefusedBeforeAnyRead)
{
    for (auto const& row : notFiles()) {
        SCOPED_TRACE(row.name);
        ScratchDir dir;
        std::string path = dir.file("x.mov");
        if (!row.make(path)) continue;
        // A FIFO without a writer would block a plain open() forever.
        if (std::string(row.name) == "broken link") {
            EXPECT_THROW(openMovie(path), MediaError);
        } else {
            EXPECT_THROW(openMovie(path), NotARegularFile);
        }
        EXPECT_FALSE(canOpenMovie(path));
    }
}

TEST(Inputs, ACutShortMovieIsReportedWithItsReadableLength)
{
    ScratchDir dir;
    auto spec = tinySpec(8);
    std::string whole = dir.file("whole.mov");
    {
        // The header first, as downloads have it: a cut file still opens.
        OpenedMovie om = openMovie(cachedMovie("eight-seconds.mov", spec));
        exportMovie(*om.movie, whole, ExportType::QuickTimeWeb);
    }
    OpenedMovie full = openMovie(whole);
    EXPECT_FALSE(full.truncated);
    EXPECT_NEAR(full.declaredSeconds, 8, 0.1);

    std::string bytes = readFile(whole);
    struct Row {
        double keep; // fraction of the file kept
        double low, high;
    };
    for (Row r : {Row{0.5, 2.5, 5.5}, Row{0.8, 5, 7.6}, Row{0.2, 0, 2.5}}) {
        SCOPED_TRACE(r.keep);
        std::string cut = dir.file("cut.mov");
        writeFile(cut, bytes.substr(0, static_cast<std::size_t>(static_cast<double>(bytes.size()) * r.keep)));
        OpenedMovie om = openMovie(cut);
        EXPECT_TRUE(om.truncated);
        EXPECT_NEAR(om.declaredSeconds, 8, 0.1);
        EXPECT_GE(om.readableSeconds, r.low);
        EXPECT_LE(om.readableSeconds, r.high);
    }
}

TEST(Inputs, ACutShortMatroskaFileIsFoundByReadingItsEnd)
{
    ScratchDir dir;
    auto spec = tinySpec(8);
    spec.format = "matroska";
    std::string whole = cachedMovie("eight-seconds.mkv", spec);
    EXPECT_FALSE(openMovie(whole).truncated);
    std::string bytes = readFile(whole);
    std::string cut = dir.file("cut.mkv");
    writeFile(cut, bytes.substr(0, bytes.size() / 2));
    OpenedMovie om = openMovie(cut);
    EXPECT_TRUE(om.truncated);
    EXPECT_NEAR(om.declaredSeconds, 8, 0.1);
    EXPECT_GT(om.readableSeconds, 2.5);
    EXPECT_LT(om.readableSeconds, 5.5);
}

// A movie copied packet for packet into a MovieOutput, as a writer does.
void copyInto(std::string const& source, MovieOutput& output)
{
    auto file = SourceFile::open(source);
    auto in = file->openInput(true);
    AVFormatContext* raw = nullptr;
    check(avformat_alloc_output_context2(&raw, nullptr, "mov", output.url().c_str()), "container");
    OutputContext out(raw);
    for (unsigned i = 0; i < in.format->nb_streams; ++i) {
        AVStream* st = avformat_new_stream(out.get(), nullptr);
        check(avcodec_parameters_copy(st->codecpar, in.format->streams[i]->codecpar), "copy");
        st->codecpar->codec_tag = 0;
        st->time_base = in.format->streams[i]->time_base;
    }
    output.attach(out.get());
    check(avformat_write_header(out.get(), nullptr), "header");
    Packet pkt = makePacket();
    while (av_read_frame(in.format.get(), pkt.get()) >= 0) {
        av_packet_rescale_ts(pkt.get(), in.format->streams[pkt->stream_index]->time_base, out->streams[pkt->stream_index]->time_base);
        pkt->pos = -1;
        check(writePacket(out.get(), pkt.get()), "packet");
    }
    output.finish(out.get(), av_write_trailer(out.get()));
}

TEST(SaveCheck, ANewFileMustReadBackAsWritten)
{
    ScratchDir dir;
    struct Row {
        char const* name;
        std::function<void(AtomicFile&)> spoil;
        char const* container;
        bool passes;
    };
    std::vector<Row> rows = {
        {"as written", [](AtomicFile&) {}, "mov", true},
        {"junk after the end", [](AtomicFile& f) { ASSERT_EQ(::pwrite(f.fd(), "junk", 4, f.size()), 4); }, "mov", true},
        {"cut in half", [](AtomicFile& f) { ASSERT_EQ(::ftruncate(f.fd(), f.size() / 2), 0); }, "mov", false},
        {"last byte missing", [](AtomicFile& f) { ASSERT_EQ(::ftruncate(f.fd(), f.size() - 1), 0); }, "mov", false},
        {"empty", [](AtomicFile& f) { ASSERT_EQ(::ftruncate(f.fd(), 0), 0); }, "mov", false},
        {"another container expected", [](AtomicFile&) {}, "aiff", false},
    };
    for (auto const& r : rows) {
        SCOPED_TRACE(r.name);
        AtomicFile file(dir.file("checked.mov"), AtomicFile::Kind::NewOrReplace);
        MovieOutput output(file);
        copyInto(tinyMovie(), output);
        ASSERT_EQ(output.tally().streams().size(), 2u);
        EXPECT_GT(output.tally().streams()[0].packets, 50);
        r.spoil(file);
        if (r.passes) {
            EXPECT_NO_THROW(output.verify(media::Container::named(r.container)));
        } else {
            EXPECT_THROW(output.verify(media::Container::named(r.container)), SaveCheckFailed);
        }
    }
    EXPECT_TRUE(listDir(dir.path()).empty()); // never committed: nothing left
}

} // namespace
