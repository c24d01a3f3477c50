// The in-memory movie edit model: a movie of tracks, each track an edit list
// over a shared piece of media. The media layer fills it from real files; the
// sync model edits it; the playback engine and the writer read it.
//
// Threads: a movie and its tracks are changed and read on one thread (the
// model's). The one exception is a track's edit list: it is an immutable
// value swapped whole on every change, so any thread may take a snapshot with
// Track::editList() and read it while the model goes on editing.
#pragma once

#include "EditList.h"
#include "myQTTime.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace dm {

enum class MediaType { Video, Sound, MPEG, Other };

char const* mediaTypeName(MediaType type);

// The material a track plays: shared by every track that copies it. The
// media layer derives from it to add what it needs to decode the material.
struct Media {
    MediaType type = MediaType::Other;
    std::int32_t timeScale = 600; // media ticks per second (a sound's sample rate)
    std::int64_t length = 0;      // in media ticks

    Media() = default;
    Media(MediaType t, std::int32_t scale, std::int64_t len) : type(t), timeScale(scale), length(len) {}
    virtual ~Media() = default;
};

class Movie;

class Track {
public:
    Track(int id, MediaType type, std::shared_ptr<const Media> media, std::int32_t timeScale);

    int id() const { return id_; }
    MediaType mediaType() const { return type_; }
    std::shared_ptr<const Media> const& media() const { return media_; }
    // Ticks per second of the track's timeline positions. A sound track's
    // scale is its sample rate, so its edits are exact to one sample.
    std::int32_t timeScale() const { return timeScale_; }

    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }
    std::string const& displayName() const { return displayName_; }
    void setDisplayName(std::string name) { displayName_ = std::move(name); }

    // Snapshot of the edit list; safe from any thread.
    std::shared_ptr<const EditList> editList() const
    {
        std::lock_guard<std::mutex> g(editsLock_);
        return edits_;
    }
    // Increases with every change of the edit list; safe from any thread.
    std::uint64_t changeCount() const { return changes_.load(); }
    // Replaces the whole edit list (the loader and edit states use it).
    void setEditList(std::shared_ptr<const EditList> list);

    // Where the material starts and how long it lasts, at the track's scale.
    QTTimeRange range() const;

    // Inserts a copy of `source`'s material within `range` at `atTime`;
    // later material moves later. Time past `source`'s end copies as empty
    // time; inserting past this track's end pads with empty time. The source
    // must play the same media.
    void insertSegmentOfTrack(Track const& source, QTTimeRange range, QTTime atTime);
    // Removes the material within `range`; later material moves earlier.
    void deleteSegment(QTTimeRange range);
    // The material within `range` now lasts `newDuration`, played
    // correspondingly slower or faster.
    void scaleSegment(QTTimeRange range, QTTime newDuration);
    // Inserts empty time of the range's duration at the range's start.
    void insertEmptySegmentAt(QTTimeRange range);

    // What plays at a movie time: the segment and the media position.
    std::optional<EditList::Position> lookup(myQTTime const& movieTime) const;

    // A time at this track's scale, rounded to the nearest tick (ties even).
    std::int64_t ticks(QTTime const& t) const;

private:
    friend void ReplaceMovieTrack(Movie& movie, std::shared_ptr<Track> const& old, std::shared_ptr<Track> const& replacement);
    int id_;
    MediaType type_;
    std::shared_ptr<const Media> media_;
    std::int32_t timeScale_;
    bool enabled_ = true;
    std::string displayName_;
    // The lock guards only the pointer swap and copy; a list never changes.
    mutable std::mutex editsLock_;
    std::shared_ptr<const EditList> edits_;
    std::atomic<std::uint64_t> changes_{0};

    void replace(EditList list);
};

using TrackPtr = std::shared_ptr<Track>;

// A snapshot of every track's edit list.
struct MovieEditStateRecord {
    std::vector<std::pair<int, std::shared_ptr<const EditList>>> lists;
};
using MovieEditState = std::shared_ptr<const MovieEditStateRecord>;

class Movie {
public:
    explicit Movie(std::int32_t timeScale = 600);

    std::int32_t timeScale() const { return timeScale_; }
    std::vector<TrackPtr> const& tracks() const { return tracks_; }
    std::vector<TrackPtr> tracksOfMediaType(MediaType type) const;
    TrackPtr trackWithID(int id) const;

    // Adds a track that plays `media` from time 0 through its whole length
    // (or with `editList` when given).
    TrackPtr addTrack(MediaType type, std::shared_ptr<const Media> media, std::int32_t timeScale,
                      std::optional<EditList> editList = std::nullopt);

    // The end of the longest track, exact at that track's scale.
    myQTTime duration() const;

    bool isEditable() const { return editable_; }
    void setEditable(bool on) { editable_ = on; }

    // The most tracks the movie may hold; AddEmptyTrackToMovie fails beyond.
    void setTrackLimit(std::size_t limit) { trackLimit_ = limit; }

    // Bumped by every track added or removed.
    std::uint64_t trackChangeCount() const { return trackChanges_; }

private:
    friend TrackPtr AddEmptyTrackToMovie(Track const& source, Movie& movie);
    friend void DisposeMovieTrack(Movie& movie, TrackPtr const& track);
    friend void ReplaceMovieTrack(Movie& movie, TrackPtr const& old, TrackPtr const& replacement);

    std::int32_t timeScale_;
    std::vector<TrackPtr> tracks_;
    int nextTrackID_ = 1;
    std::size_t trackLimit_ = 1024;
    std::uint64_t trackChanges_ = 0;
    bool editable_ = true;
};

// A new, empty track with the source's media type, media and time scale, or
// null when the movie cannot take another track.
TrackPtr AddEmptyTrackToMovie(Track const& source, Movie& movie);
// Removes the track from the movie.
void DisposeMovieTrack(Movie& movie, TrackPtr const& track);
// Puts `replacement`, a track of the movie, where `old` stands in the
// movie's order of tracks, with `old`'s id, and removes `old`: the tracks
// keep the numbers the file gave them. Nothing happens unless both are
// tracks of the movie.
void ReplaceMovieTrack(Movie& movie, TrackPtr const& old, TrackPtr const& replacement);

MovieEditState NewMovieEditState(Movie const& movie);
// Restores the saved edit list of every track that still exists; tracks
// added since keep theirs.
void UseMovieEditState(Movie& movie, MovieEditState const& state);
void DisposeMovieEditState(MovieEditState& state);

} // namespace dm
