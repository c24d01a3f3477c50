// Sync points and the re-timing of a movie's single sound track.
#pragma once

#include "SyncDocument.h"
#include "movie/Movie.h"
#include "myQTTime.h"

#include <stdexcept>
#include <vector>

// One sync point: the instant of the picture and the instant of the unedited
// sound that belongs there.
struct Offset {
    myQTTime movieTime;
    myQTTime audioTime;
    bool flag = false; // the last fit found the point straying from its line

    Offset() = default;
    Offset(myQTTime m, myQTTime a, bool f = false) : movieTime(m), audioTime(a), flag(f) {}

    // movieTime - audioTime: positive when the sound that belongs to a
    // picture lies earlier in the unedited track.
    myQTTime offset() const { return myQTTime(movieTime) -= audioTime; }
    bool operator<(Offset const& o) const { return movieTime < o.movieTime; }
};

// The least-squares line audio seconds = slope x movie seconds + intercept
// through `points`. A single point is paired with an anchor where sound and
// picture agree: the movie's end (`duration`) for a point in its first half,
// its start for one in the second half. `fitted` is false when the points
// admit no line or give a slope that is zero, negative or not finite.
struct SyncLine {
    double slope = 1.0;
    double intercept = 0.0;
    bool fitted = false;
};
SyncLine fitSyncLine(std::vector<Offset> const& points, myQTTime const& duration);

// The sync points of one movie, in movie-time order, and the line fitted to
// them: audio seconds = slope x movie seconds + intercept. After every change
// the movie's one enabled sound track is re-timed to follow the line, and the
// unedited sound waits in a disabled "Backup Sound Track".
//
// Every changing operation runs in one frame: restoreSoundTrack (the unedited
// sound comes back, the line stays, so conversions use the line the user has
// been listening to), the change, scaleSoundTrack (fit, flags, backup, edits).
//
// Degenerate fits: when the points admit no line (all points, with the anchor
// of a single point, share one movie time) or the fitted slope is zero,
// negative or not finite, the previous line is kept and the sound track is
// re-timed to it as usual, backup included, so what plays and what the two
// mappings say stay the same. The flags follow the kept line, and
// keptPreviousLine() says so until the next fit that succeeds.
//
// Sample accuracy: the re-timing places the start and the end of the material
// on the timeline straight from the line, each rounded once to the nearest
// sample (the cut, the scaled length and the silence follow from them), so
// every sample plays within half a sample of the line. Truncating the cut and
// the silence independently would leave up to 1.5 samples of error at the end
// of a long movie.
//
// A sound track that starts late (empty time before its material) keeps its
// start: the backup and the restore copy the timeline from time 0, so audio
// time is a position on the unedited sound track's own timeline.
class OffsetList {
public:
    // What the list cannot be made for; each carries a short reason for
    // logs (the user's message is the front end's, see Refusal.h).
    class NoSoundTracks : public std::runtime_error {
    public:
        NoSoundTracks() : std::runtime_error("the movie has no enabled sound track") {}
    };
    class MPEGMovie : public std::runtime_error {
    public:
        MPEGMovie() : std::runtime_error("the movie's sound is multiplexed with its picture (MPEG)") {}
    };
    class TooManySoundTracks : public std::runtime_error {
    public:
        TooManySoundTracks() : std::runtime_error("the movie has more than one enabled sound track") {}
    };
    class BadBackup : public std::runtime_error {
    public:
        BadBackup() : std::runtime_error("the backup sound track does not match the sound track") {}
    };

    using iterator = std::vector<Offset>::iterator;
    using const_iterator = std::vector<Offset>::const_iterator;

    // Chooses the movie's one enabled sound track. Raises MPEGMovie or
    // NoSoundTracks when there is none, TooManySoundTracks for two or more.
    // `document` may be null (nothing is told then).
    OffsetList(dm::Movie* movie, SyncDocument* document);
    // Re-times `sound`, a sound track of `movie` chosen by the user, enabled
    // or not (a dub beside the original language); the other sound tracks
    // are left as they are. Raises NoSoundTracks when `sound` is not one of
    // the movie's sound tracks.
    OffsetList(dm::Movie* movie, SyncDocument* document, dm::TrackPtr sound);
    OffsetList(OffsetList const&) = delete;
    OffsetList& operator=(OffsetList const&) = delete;
    // Who is told of changes from now on (null: nobody).
    void setDocument(SyncDocument* document) { document_ = document; }

    std::vector<Offset> const& points() const { return points_; }
    // An iterator to the point at `index`; valid until the next change.
    iterator getIterator(int index) { return points_.begin() + index; }

    myQTTime MovieTimeToAudioTime(myQTTime const& t) const;
    myQTTime AudioTimeToMovieTime(myQTTime const& a) const;
    // 0 no points, 1 all in the first half, 2 a point is flagged, 3 a point
    // lies in the second half.
    int getState() const;

    iterator push(Offset point);
    void remove(iterator it);
    void changeTime(iterator it, myQTTime const& t);
    void changeTimePreservingOffset(iterator it, myQTTime const& t);
    void changeAudioTime(iterator it, myQTTime const& t);
    void changeAudioRealTime(iterator it, myQTTime const& t);
    void changeAudioOffset(iterator it, double seconds);
    // Replaces all points at once (audio times as given, instants of the
    // unedited sound) with a single fit and re-timing: loading a list of
    // points costs one change, not one per point.
    void replacePoints(std::vector<Offset> points);

    double slope() const { return slope_; }
    // How far a point lies from the line, in seconds: the line's audio time
    // at the point's movie time minus the point's audio time (> 0: the
    // re-timed sound there comes early).
    double residual(Offset const& p) const;
    double intercept() const { return intercept_; }
    myQTTime duration() const { return duration_; }
    dm::TrackPtr const& soundTrack() const { return soundTrack_; }
    dm::TrackPtr const& backupTrack() const { return backupTrack_; }
    bool keptPreviousLine() const { return keptPreviousLine_; }

    static constexpr char const* kBackupTrackName = "Backup Sound Track";

private:
    void scaleSoundTrack();
    void restoreSoundTrack();
    void fitLine();
    void setFlags(int n);
    void sortPoints();

    std::vector<Offset> points_;
    dm::Movie* movie_;
    SyncDocument* document_;
    myQTTime duration_;
    dm::TrackPtr soundTrack_;
    dm::TrackPtr backupTrack_;
    double slope_ = 1.0;
    double intercept_ = 0.0;
    bool keptPreviousLine_ = false;
};
