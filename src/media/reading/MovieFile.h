// Opening movie files into the movie edit model.
#pragma once

#include "AtomicFile.h"
#include "Containers.h"
#include "FFmpeg.h"
#include "movie/Movie.h"

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <string>
#include <vector>

namespace media {

// Limits how fast movie files are read, in bytes per second (0: no limit),
// for every file opened from now on and those open: benchmarks use it to
// play a movie as from a slow network share.
void setReadLimit(double bytesPerSecond);

// An open source file. Readers go through the open descriptor, so the
// material stays readable when the path is later replaced (a save in place
// renames a new file over it).
class SourceFile {
public:
    // Opens a regular file; anything else (a folder, a FIFO, a device, a
    // socket) throws NotARegularFile without a byte read and without waiting
    // for a writer at the other end of a FIFO.
    static std::shared_ptr<SourceFile> open(std::string const& path);
    ~SourceFile();
    SourceFile(SourceFile const&) = delete;
    SourceFile& operator=(SourceFile const&) = delete;

    std::string const& path() const { return path_; }
    std::int64_t size() const { return size_; }

    // A demuxer over this file, reading through the descriptor.
    struct Input {
        IOContext io;
        InputContext format;
        std::shared_ptr<void> reader; // the read position of `io`
    };
    // Opens a demuxer; with `findStreamInfo` it also probes the streams.
    // `options` go to avformat_open_input.
    Input openInput(bool findStreamInfo = true, AVDictionary** options = nullptr) const;
    // A demuxer for reading stream `streamIndex` alone. In a QuickTime or
    // MPEG-4 file with a plain movie header, the other tracks read as free
    // space, so the demuxer builds the packet index of this one track only
    // (a demuxer indexes every packet of every track: tens of megabytes for
    // a movie of hours, paid again by every decoder). `indexInInput` is
    // where the stream is in the returned demuxer; other files open whole,
    // and so does this one when `isTheStream` refuses the one stream shown.
    Input openStream(int streamIndex, int& indexInInput, std::function<bool(AVStream const&)> const& isTheStream = {}) const;

    // The version of the file at path() that this movie knows: the one it
    // opened, or the one its last save in place put there. A save in place
    // refuses to replace any other (another program changed the file).
    FileIdentity knownVersion() const;
    void savedOver(FileIdentity const& version);

private:
    // A demuxer through a reader that shows the box types at `freed` as "free".
    Input openThrough(std::vector<std::int64_t> freed, bool findStreamInfo, AVDictionary** options) const;
    SourceFile(std::string path, int fd, std::int64_t size, FileIdentity version)
        : path_(std::move(path)), fd_(fd), size_(size), version_(version) {}
    std::string path_;
    int fd_;
    std::int64_t size_;
    mutable std::mutex mutex_;
    FileIdentity version_; // guarded by mutex_
};

// The media of one stream of a source file.
struct FileMedia : dm::Media {
    std::shared_ptr<SourceFile> file;
    int streamIndex = -1;
    int containerId = 0;           // the container's own number of the stream (a QuickTime track ID)
    AVRational timeBase{1, 1};
    std::int64_t startPts = 0;     // stream start in `timeBase`; media tick 0
    // Movie time 0 of the file this stream belongs to (the container's start
    // time, which may be negative), in AV_TIME_BASE units. Writers subtract
    // it from every copied time stamp so that copied and rendered streams
    // share one timeline.
    std::int64_t origin = 0;
    AVCodecParameters* codecpar = nullptr; // owned copy
    std::string title;             // the stream's own name, if any
    std::string language;          // the stream's language code ("ger"), empty when none or undetermined
    // Sound
    int sampleRate = 0;
    int channels = 0;
    // Video
    int width = 0, height = 0;
    AVRational frameRate{0, 1};
    // How the picture is shown: the shape of its pixels (1:1 when the file
    // does not say; a DVD's 720x576 is shown 1024x576 or 768x576), and a
    // turn clockwise by 0, 90, 180 or 270 degrees from its display matrix
    // (phones store upright pictures sideways and say so there).
    AVRational pixelAspect{1, 1};
    int rotation = 0;
    bool turnedSideways() const { return rotation == 90 || rotation == 270; }
    // The picture's size as shown: stretched by the pixels' shape, then turned.
    std::pair<int, int> displaySize() const;

    FileMedia() = default;
    FileMedia(FileMedia const&) = delete;
    FileMedia& operator=(FileMedia const&) = delete;
    ~FileMedia() override { avcodec_parameters_free(&codecpar); }

    // FFmpeg's short name of the codec ("aac", "h264").
    char const* codecName() const;
    // The length of one picture, from the frame rate; 0 when not known.
    double frameSeconds() const;
    // Media ticks <-> stream time stamps.
    std::int64_t ticksFromPts(std::int64_t pts) const;
    std::int64_t ptsFromTicks(std::int64_t ticks) const;
};

// A movie read from a file.
struct OpenedMovie {
    std::shared_ptr<dm::Movie> movie;
    std::shared_ptr<SourceFile> file;
    std::string formatName;
    // The container that writes this kind of file back, or none when the
    // file's container is one that is read but not written (MPEG-TS, AVI,
    // DV...): such a movie is saved as a new file.
    Container container;
    // The file ends before the length its header declares (a copy or a
    // download cut short): its streams can be read only up to
    // `readableSeconds` of the `declaredSeconds` that the tracks claim.
    bool truncated = false;
    // What was changed while reading, for the user (a track cut at the end
    // of the others because its time stamps jump hours ahead).
    std::vector<std::string> notes;
    double readableSeconds = 0;
    double declaredSeconds = 0;
    // The sync points a save stored in the file (kSyncPointsTag), or empty.
    std::string syncPointsTag;
    // Tracks in stream order; the media of each is a FileMedia.
    static FileMedia const& mediaOf(dm::Track const& track);
};

// The container that writes a file like the one demuxed by `fmt` (opened from
// `path`), or empty when that container is not written.
Container containerOfInput(AVFormatContext const* fmt, std::string const& path);

// Quick answer for an open panel: does libavformat recognise the file as a
// container with at least one audio or video stream? Reads only the head of
// the file (no stream probing).
bool canOpenMovie(std::string const& path);

// Reads the file's streams into a movie: one track per stream, enabled from
// the container's own flag where it has one (QuickTime, MP4, Matroska),
// named from the stream's title. Throws MediaError with a message for the
// user when the file cannot be read as a movie (NotARegularFile for what is
// not a file). A truncated file opens, with `truncated` set.
OpenedMovie openMovie(std::string const& path);

} // namespace media
