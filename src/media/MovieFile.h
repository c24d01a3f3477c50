// Opening movie files into the movie edit model.
#pragma once

#include "FFmpeg.h"
#include "movie/Movie.h"

#include <memory>
#include <string>

namespace media {

// An open source file. Readers go through the open descriptor, so the
// material stays readable when the path is later replaced (a save in place
// renames a new file over it).
class SourceFile {
public:
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
    Input openInput(bool findStreamInfo = true) const;

private:
    SourceFile(std::string path, int fd, std::int64_t size) : path_(std::move(path)), fd_(fd), size_(size) {}
    std::string path_;
    int fd_;
    std::int64_t size_;
};

// The media of one stream of a source file.
struct FileMedia : dm::Media {
    std::shared_ptr<SourceFile> file;
    int streamIndex = -1;
    AVRational timeBase{1, 1};
    std::int64_t startPts = 0;     // stream start in `timeBase`; media tick 0
    AVCodecParameters* codecpar = nullptr; // owned copy
    std::string title;             // the stream's own name, if any
    // Sound
    int sampleRate = 0;
    int channels = 0;
    // Video
    int width = 0, height = 0;
    AVRational frameRate{0, 1};

    FileMedia() = default;
    FileMedia(FileMedia const&) = delete;
    FileMedia& operator=(FileMedia const&) = delete;
    ~FileMedia() override { avcodec_parameters_free(&codecpar); }

    // Media ticks <-> stream time stamps.
    std::int64_t ticksFromPts(std::int64_t pts) const;
    std::int64_t ptsFromTicks(std::int64_t ticks) const;
};

// A movie read from a file.
struct OpenedMovie {
    std::shared_ptr<dm::Movie> movie;
    std::shared_ptr<SourceFile> file;
    std::string formatName;
    // Tracks in stream order; the media of each is a FileMedia.
    static FileMedia const& mediaOf(dm::Track const& track);
};

// Quick answer for an open panel: does libavformat recognise the file as a
// container with at least one audio or video stream? Reads only the head of
// the file (no stream probing).
bool canOpenMovie(std::string const& path);

// Reads the file's streams into a movie: one track per stream, enabled from
// the container's own flag where it has one (QuickTime, MP4, Matroska),
// named from the stream's title. Throws MediaError with a message for the
// user when the file cannot be read as a movie.
OpenedMovie openMovie(std::string const& path);

} // namespace media
