// A movie opened for syncing, shared by the application and the command
// line: the file read once, every track given its role once (the sound to
// sync, the backup of an earlier sync, the other tracks), a stored backup
// and stored points adopted, and the sync point list made. Saves are planned
// and written through it, with the points stored in the file, so what a save
// does is decided here and in the writer's planner, nowhere else.
//
// Used from one thread. Nothing here knows Qt.
#pragma once

#include "MovieFile.h"
#include "MovieWriter.h"
#include "OffsetList.h"
#include "Refusal.h"
#include "SoundMatch.h"

#include <atomic>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace dmsync {

// What each track of the movie is to a sync.
struct TrackRoles {
    dm::TrackPtr sound;  // the enabled sound track the points re-time
    dm::TrackPtr backup; // its unedited sound, while a line is applied
    std::vector<dm::TrackPtr> others;
};

// What a sync with some points writes, worked out before anything is
// written: where the re-timed sound ends, the new file's size, and why the
// points are refused, if they are.
struct Prediction {
    std::size_t points = 0;
    double movieSeconds = 0;
    double uneditedSoundSeconds = 0;
    double soundSeconds = 0; // where the re-timed sound ends on the movie's timeline
    double limitSeconds = 0; // the latest end a sync writes
    std::int64_t inputBytes = 0;
    std::int64_t outputBytes = 0;
    std::string problem; // empty when a sync takes the points
};

// Where a save goes.
struct SaveTarget {
    SaveTarget() = default;
    SaveTarget(std::string p, bool in, std::optional<media::ExportType> type = {}) : path(std::move(p)), inPlace(in), exportType(type) {}
    std::string path;
    bool inPlace = false;
    // An export of this type instead of a save (never in place).
    std::optional<media::ExportType> exportType;
};

// A save decided on the session's thread, to be run on any thread: the
// movie, where it goes and the options with the points to store. Running it
// reads the movie's files but not the sync point list.
class PreparedSave {
public:
    media::WriteResult run(media::Progress const& progress) const;
    SaveTarget const& target() const { return target_; }
    media::SaveOptions const& options() const { return options_; }

private:
    friend class MovieSession;
    std::shared_ptr<dm::Movie const> movie_;
    SaveTarget target_;
    media::SaveOptions options_;
};

// A sound to compare the sound to sync with: a track of the movie or of
// another file (another release), whose timeline is the movie's.
struct ReferenceSound {
    std::shared_ptr<dm::Movie> movie; // keeps the track's file open
    dm::TrackPtr track;
    std::string description; // "track 2 (\"English\")", "\"other.mkv\""
};

class MovieSession {
public:
    // Reads the movie at `path` (throws media::MediaError and its kinds when
    // it cannot be read). A movie that reads but cannot be synced opens:
    // canSync() is false and list() throws the refusal. `soundTrack`, when
    // not 0, is the number of the sound track to sync as the file's tracks
    // are numbered (what `info` lists): a dub beside the original language.
    // Else the movie's one enabled sound track, or the one a stored sync
    // names, is synced.
    static std::unique_ptr<MovieSession> open(std::string const& path, int soundTrack = 0);
    MovieSession(MovieSession const&) = delete;
    MovieSession& operator=(MovieSession const&) = delete;

    std::string const& path() const { return path_; }
    media::OpenedMovie const& file() const { return opened_; }
    dm::Movie& movie() const { return *opened_.movie; }
    std::shared_ptr<dm::Movie> const& sharedMovie() const { return opened_.movie; }
    // What the user should hear about the reading, as sentences without a
    // final full stop: the reader's repairs, and a stored sync that was
    // found but could not be used.
    std::vector<std::string> const& notes() const { return notes_; }

    // Whether the movie was saved after a sync: its backup now plays as
    // the sound to sync, and the points stored with it (if any) are these.
    bool syncedBefore() const { return syncedBefore_; }
    std::optional<std::vector<Offset>> const& storedPoints() const { return storedPoints_; }
    // Why the stored sync could not be used, when it could not.
    std::string const& storedNote() const { return storedNote_; }

    bool canSync() const { return list_ != nullptr; }
    Refusal const& refusal() const { return refusal_; }
    // The sync point list; throws Refused when the movie cannot be synced.
    OffsetList& list() const;
    TrackRoles roles() const;
    // The movie's sound tracks a user can choose to sync (not the backup),
    // in the file's order; each track's id is its number in the file.
    std::vector<dm::TrackPtr> soundTracks() const;

    // A reference sound: track `id` of this movie (not the sound to sync),
    // or the sound another file plays. Throws Refused (and for a file
    // media::MediaError).
    ReferenceSound referenceTrack(int id) const;
    static ReferenceSound referenceFile(std::string const& path);
    // The sync points a comparison of the unedited sound to sync with the
    // reference suggests. Runs on the session's thread.
    suggest::SoundMatch matchReference(ReferenceSound const& reference, media::Progress const& progress = {},
                                       std::atomic<bool> const* stop = nullptr) const;

    // The lengths and sizes a sync with `points` gives, and the problem
    // with them if a sync refuses them. Call before the points are given
    // to the list: its sound track is then the unedited sound.
    Prediction predict(std::vector<Offset> const& points, media::SoundCodec codec) const;

    // The container a save to `target` writes: in place the file's own
    // (Refused when the file's container is only read), for a new file the
    // one its name asks for, else none.
    media::Container containerFor(SaveTarget const& target) const;
    // The container a new file gets when the user names none: the file's
    // own, or for a file that is only read, the writer's choice.
    media::Container saveAsContainer() const;
    // The plan of a save with `options` (its container set), storing the
    // list's points in the file; throws media::MediaError when the
    // container cannot hold the movie at all.
    media::SavePlan plan(media::SaveOptions const& options) const;
    // A save of the movie to `target` with the list's points stored in it
    // (the container, when `options` names none, from containerFor).
    PreparedSave prepareSave(SaveTarget const& target, media::SaveOptions options) const;
    media::WriteResult save(SaveTarget const& target, media::Progress const& progress, media::SaveOptions options) const
    {
        return prepareSave(target, std::move(options)).run(progress);
    }

private:
    MovieSession() = default;
    // The options a save needs beside the caller's: the points to store.
    media::SaveOptions withPoints(media::SaveOptions options) const;

    std::string path_;
    media::OpenedMovie opened_;
    std::vector<std::string> notes_;
    bool syncedBefore_ = false;
    std::optional<std::vector<Offset>> storedPoints_;
    std::string storedNote_;
    std::unique_ptr<OffsetList> list_;
    Refusal refusal_;
};

} // namespace dmsync
