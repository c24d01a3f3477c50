// A file read through its open descriptor, and the readers FFmpeg gets
// over it.
#include "Boxes.h"
#include "MovieFile.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace media {

std::shared_ptr<SourceFile> SourceFile::open(std::string const& path)
{
    // Without O_NONBLOCK, opening a FIFO waits for a writer forever.
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        struct stat st {};
        if (::stat(path.c_str(), &st) == 0) requireRegularFile(st, path); // a socket cannot be opened at all
        throw MediaError("Cannot open \"" + path + "\": " + std::strerror(err) + ".");
    }
    struct stat st {};
    try {
        if (::fstat(fd, &st) != 0) throw MediaError("Cannot open \"" + path + "\": " + std::strerror(errno) + ".");
        requireRegularFile(st, path);
        int flags = ::fcntl(fd, F_GETFL);
        if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0)
            throw MediaError("Cannot open \"" + path + "\": " + std::strerror(errno) + ".");
    } catch (...) {
        ::close(fd);
        throw;
    }
    return std::shared_ptr<SourceFile>(new SourceFile(path, fd, st.st_size, FileIdentity::of(st)));
}

SourceFile::~SourceFile() { ::close(fd_); }

FileIdentity SourceFile::knownVersion() const
{
    std::lock_guard lock(mutex_);
    return version_;
}

void SourceFile::savedOver(FileIdentity const& version)
{
    std::lock_guard lock(mutex_);
    version_ = version;
}

namespace {

std::atomic<double> gReadLimit{0}; // bytes per second; 0: no limit

// Sleeps so that reads through this reader keep under the limit: a
// movie on a slow network share, for benchmarks.
void throttle(std::size_t bytes)
{
    double limit = gReadLimit.load(std::memory_order_relaxed);
    if (limit <= 0) return;
    std::this_thread::sleep_for(std::chrono::duration<double>(static_cast<double>(bytes) / limit));
}

struct Reader {
    int fd;
    std::int64_t size;
    std::int64_t pos = 0;
    // File offsets of box types that read as "free" (sorted).
    std::vector<std::int64_t> freed = {};
};

// Presents the four bytes at each offset in `freed` as the box type "free".
void maskBoxTypes(Reader const& r, std::uint8_t* buf, std::int64_t at, std::int64_t n)
{
    static constexpr char kFree[4] = {'f', 'r', 'e', 'e'};
    auto it = std::upper_bound(r.freed.begin(), r.freed.end(), at - 4);
    for (; it != r.freed.end() && *it < at + n; ++it)
        for (std::int64_t k = 0; k < 4; ++k) {
            std::int64_t p = *it + k;
            if (p >= at && p < at + n) buf[p - at] = static_cast<std::uint8_t>(kFree[k]);
        }
}

int readPacket(void* opaque, std::uint8_t* buf, int size)
{
    auto* r = static_cast<Reader*>(opaque);
    if (r->pos >= r->size) return AVERROR_EOF;
    ssize_t n;
    do {
        n = ::pread(r->fd, buf, static_cast<size_t>(size), r->pos);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return AVERROR(errno);
    if (n == 0) return AVERROR_EOF;
    throttle(static_cast<std::size_t>(n));
    if (!r->freed.empty()) maskBoxTypes(*r, buf, r->pos, n);
    r->pos += n;
    return static_cast<int>(n);
}

std::int64_t seekPacket(void* opaque, std::int64_t offset, int whence)
{
    auto* r = static_cast<Reader*>(opaque);
    switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE: return r->size;
    case SEEK_SET: r->pos = offset; break;
    case SEEK_CUR: r->pos += offset; break;
    case SEEK_END: r->pos = r->size + offset; break;
    default: return AVERROR(EINVAL);
    }
    return r->pos;
}

// The offsets of the type fields of every track box in the movie header
// but the `keep`th, when the file is a QuickTime/MPEG-4 file whose whole
// box structure reads cleanly and whose movie header is a plain one (not
// compressed, not fragmented); empty otherwise.
std::vector<std::int64_t> otherTrackBoxes(int fd, std::int64_t fileSize, int keep)
{
    static constexpr std::array<char const*, 9> kTopLevel = {"ftyp", "moov", "mdat", "free", "skip", "wide", "pnot", "uuid", "udta"};
    constexpr int kMaxBoxes = 4096;
    BoxHeader moov;
    bool haveMoov = false;
    int count = 0;
    for (std::int64_t at = 0; at < fileSize; ++count) {
        BoxHeader b;
        if (count >= kMaxBoxes || !readBoxHeader(fd, at, fileSize, b)) return {};
        if (count == 0 && std::none_of(kTopLevel.begin(), kTopLevel.end(), [&](char const* t) { return std::memcmp(t, b.type, 4) == 0; }))
            return {};
        if (std::memcmp(b.type, "moof", 4) == 0) return {};
        if (std::memcmp(b.type, "moov", 4) == 0) {
            if (haveMoov) return {};
            moov = b;
            haveMoov = true;
        }
        at += b.size;
    }
    if (!haveMoov) return {};
    std::vector<std::int64_t> freed;
    int track = 0;
    count = 0;
    for (std::int64_t at = moov.at + moov.header, end = moov.at + moov.size; at < end; ++count) {
        BoxHeader b;
        if (count >= kMaxBoxes || !readBoxHeader(fd, at, end, b)) return {};
        if (std::memcmp(b.type, "mvex", 4) == 0 || std::memcmp(b.type, "cmov", 4) == 0) return {};
        if (std::memcmp(b.type, "trak", 4) == 0 && track++ != keep) freed.push_back(b.at + 4);
        at += b.size;
    }
    if (keep >= track) return {};
    return freed;
}

} // namespace

void setReadLimit(double bytesPerSecond) { gReadLimit = bytesPerSecond; }

SourceFile::Input SourceFile::openInput(bool findStreamInfo, AVDictionary** options) const
{
    return openThrough({}, findStreamInfo, options);
}

SourceFile::Input SourceFile::openThrough(std::vector<std::int64_t> freed, bool findStreamInfo, AVDictionary** options) const
{
    Input in;
    auto reader = std::make_shared<Reader>(Reader{fd_, size_, 0, std::move(freed)});
    in.reader = reader;
    constexpr int kBuffer = 64 * 1024;
    auto* buffer = static_cast<std::uint8_t*>(av_malloc(kBuffer));
    if (!buffer) throw MediaError("Out of memory.");
    in.io.reset(avio_alloc_context(buffer, kBuffer, 0, reader.get(), readPacket, nullptr, seekPacket));
    if (!in.io) {
        av_free(buffer);
        throw MediaError("Out of memory.");
    }
    AVFormatContext* fmt = avformat_alloc_context();
    if (!fmt) throw MediaError("Out of memory.");
    fmt->pb = in.io.get();
    fmt->flags |= AVFMT_FLAG_CUSTOM_IO;
    // On failure avformat_open_input frees the context itself.
    int rc = avformat_open_input(&fmt, path_.c_str(), nullptr, options);
    if (rc < 0) throw MediaError("\"" + path_ + "\" is not a movie file FFmpeg can read (" + avError(rc) + ").");
    in.format.reset(fmt);
    if (findStreamInfo) {
        rc = avformat_find_stream_info(fmt, nullptr);
        if (rc < 0) throw MediaError("Cannot read the streams of \"" + path_ + "\" (" + avError(rc) + ").");
    }
    return in;
}

SourceFile::Input SourceFile::openStream(int streamIndex, int& indexInInput,
                                         std::function<bool(AVStream const&)> const& isTheStream) const
{
    std::vector<std::int64_t> freed = otherTrackBoxes(fd_, size_, streamIndex);
    if (!freed.empty()) {
        try {
            Input in = openThrough(freed, false, nullptr);
            // The one track left is the stream asked for, or the view is not used.
            if (in.format->nb_streams == 1 && (!isTheStream || isTheStream(*in.format->streams[0]))) {
                indexInInput = 0;
                return in;
            }
        } catch (MediaError const&) {
        }
    }
    indexInInput = streamIndex;
    return openInput(false);
}

} // namespace media
