#include "Movie.h"

#include <algorithm>
#include <stdexcept>

namespace dm {

char const* mediaTypeName(MediaType type)
{
    switch (type) {
    case MediaType::Video: return "video";
    case MediaType::Sound: return "sound";
    case MediaType::MPEG: return "MPEG";
    case MediaType::Other: return "other";
    }
    return "other";
}

Track::Track(int id, MediaType type, std::shared_ptr<const Media> media, std::int32_t timeScale)
    : id_(id), type_(type), media_(std::move(media)), timeScale_(timeScale),
      edits_(std::make_shared<const EditList>())
{
    if (timeScale <= 0) throw std::invalid_argument("track time scale must be positive");
    if (!media_) throw std::invalid_argument("track without media");
}

void Track::setEditList(std::shared_ptr<const EditList> list)
{
    if (!list) list = std::make_shared<const EditList>();
    {
        std::lock_guard<std::mutex> g(editsLock_);
        edits_.swap(list);
    }
    changes_.fetch_add(1);
    // The old list, if this held its last reference, is freed here, outside the lock.
}

void Track::replace(EditList list)
{
    setEditList(std::make_shared<const EditList>(std::move(list)));
}

std::int64_t Track::ticks(QTTime const& t) const
{
    if (t.timeScale <= 0) throw myQTTime::BadScale();
    if (t.timeScale == timeScale_) return t.timeValue;
    return roundDiv((__int128)t.timeValue * timeScale_, t.timeScale);
}

QTTimeRange Track::range() const
{
    auto list = editList();
    std::int64_t start = list->materialStart();
    return QTTimeRange{QTTime{start, timeScale_, 0}, QTTime{list->duration() - start, timeScale_, 0}};
}

namespace {
struct Span {
    std::int64_t a, b;
};
// Start and end of a range in a track's ticks; each end rounded once.
Span span(Track const& track, QTTimeRange const& r)
{
    std::int64_t a = track.ticks(r.time);
    myQTTime end = myQTTime(r.time) + myQTTime(r.duration);
    std::int64_t b = track.ticks(end);
    if (r.duration.timeValue == 0) b = a;
    if (a < 0 || b < a) throw std::invalid_argument("edit range outside the timeline");
    return {a, b};
}
} // namespace

void Track::insertSegmentOfTrack(Track const& source, QTTimeRange range, QTTime atTime)
{
    if (source.media_ != media_) throw std::invalid_argument("inserting material of other media");
    Span s = span(source, range);
    std::vector<Segment> piece = source.editList()->slice(s.a, s.b);
    piece = rescaleDurations(piece, source.timeScale_, timeScale_);
    replace(editList()->inserted(ticks(atTime), piece));
}

void Track::deleteSegment(QTTimeRange range)
{
    Span s = span(*this, range);
    replace(editList()->erased(s.a, s.b));
}

void Track::scaleSegment(QTTimeRange range, QTTime newDuration)
{
    Span s = span(*this, range);
    std::int64_t d = ticks(newDuration);
    if (d < 0) throw std::invalid_argument("negative duration");
    replace(editList()->scaled(s.a, s.b, d));
}

void Track::insertEmptySegmentAt(QTTimeRange range)
{
    Span s = span(*this, range);
    if (s.b == s.a) return;
    replace(editList()->inserted(s.a, {Segment::empty(s.b - s.a)}));
}

std::optional<EditList::Position> Track::lookup(myQTTime const& movieTime) const
{
    return editList()->lookup(ticks(movieTime));
}

Movie::Movie(std::int32_t timeScale) : timeScale_(timeScale)
{
    if (timeScale <= 0) throw std::invalid_argument("movie time scale must be positive");
}

std::vector<TrackPtr> Movie::tracksOfMediaType(MediaType type) const
{
    std::vector<TrackPtr> out;
    for (auto const& t : tracks_)
        if (t->mediaType() == type) out.push_back(t);
    return out;
}

TrackPtr Movie::trackWithID(int id) const
{
    for (auto const& t : tracks_)
        if (t->id() == id) return t;
    return nullptr;
}

TrackPtr Movie::addTrack(MediaType type, std::shared_ptr<const Media> media, std::int32_t timeScale,
                         std::optional<EditList> editList)
{
    auto track = std::make_shared<Track>(nextTrackID_++, type, media, timeScale);
    if (editList) {
        track->setEditList(std::make_shared<const EditList>(std::move(*editList)));
    } else if (media->length > 0) {
        std::int64_t dur = roundDiv((__int128)media->length * timeScale, media->timeScale);
        track->setEditList(std::make_shared<const EditList>(std::vector<Segment>{Segment::media(dur, 0, media->length)}));
    }
    tracks_.push_back(track);
    ++trackChanges_;
    return track;
}

myQTTime Movie::duration() const
{
    myQTTime longest(0LL, timeScale_);
    for (auto const& t : tracks_) {
        myQTTime end(t->editList()->duration(), t->timeScale());
        if (longest < end) longest = end;
    }
    return longest;
}

TrackPtr AddEmptyTrackToMovie(Track const& source, Movie& movie)
{
    if (movie.tracks_.size() >= movie.trackLimit_) return nullptr;
    auto track = std::make_shared<Track>(movie.nextTrackID_++, source.mediaType(), source.media(), source.timeScale());
    movie.tracks_.push_back(track);
    ++movie.trackChanges_;
    return track;
}

void DisposeMovieTrack(Movie& movie, TrackPtr const& track)
{
    auto it = std::find(movie.tracks_.begin(), movie.tracks_.end(), track);
    if (it != movie.tracks_.end()) {
        movie.tracks_.erase(it);
        ++movie.trackChanges_;
    }
}

void ReplaceMovieTrack(Movie& movie, TrackPtr const& old, TrackPtr const& replacement)
{
    auto o = std::find(movie.tracks_.begin(), movie.tracks_.end(), old);
    auto r = std::find(movie.tracks_.begin(), movie.tracks_.end(), replacement);
    if (o == movie.tracks_.end() || r == movie.tracks_.end() || o == r) return;
    *o = replacement;
    replacement->id_ = old->id_;
    movie.tracks_.erase(r);
    ++movie.trackChanges_;
}

MovieEditState NewMovieEditState(Movie const& movie)
{
    auto state = std::make_shared<MovieEditStateRecord>();
    for (auto const& t : movie.tracks()) state->lists.emplace_back(t->id(), t->editList());
    return state;
}

void UseMovieEditState(Movie& movie, MovieEditState const& state)
{
    if (!state) return;
    for (auto const& [id, list] : state->lists) {
        TrackPtr t = movie.trackWithID(id);
        if (t && t->editList() != list) t->setEditList(list);
    }
}

void DisposeMovieEditState(MovieEditState& state) { state.reset(); }

} // namespace dm
