// Sync points as a saved movie carries them, so that a movie can be opened
// again and refined: the points go into the movie's metadata next to the
// disabled "Backup Sound Track", and opening the movie puts that backup back
// in the sound track's place before the sync point list is made. The list
// then works on a plain movie, as always, and re-times from the unedited
// sound: there is never a backup of a backup.
#pragma once

#include "OffsetList.h"
#include "movie/Movie.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The metadata key of the points.
inline constexpr char const* kSyncPointsTag = "dubmatch_sync_points";

// "dubmatch-sync-points 1 48000 M/A M/A ...": exact ticks at one scale, in
// movie-time order. Points must share `scale` (the sound track's). A movie
// with several sound tracks also names the one the points re-time, by its
// place among the sound tracks that are not the backup (1 for the first):
// "dubmatch-sync-points 2 48000 sound=2 M/A ...". `soundOrdinal` 0 names
// none.
std::string encodeSyncPoints(std::vector<Offset> const& points, std::int32_t scale, int soundOrdinal = 0);
// Whether `track` is the backup of an earlier sync as a saved movie holds
// it: disabled and named "Backup Sound Track".
bool isBackupTrack(dm::Track const& track);
// The place of `sound` among the movie's sound tracks that are not the
// backup, from 1; 0 when it is not one of them.
int soundTrackOrdinal(dm::Movie const& movie, dm::TrackPtr const& sound);
// The value of kSyncPointsTag for a save of `list`: its points at its sound
// track's scale (naming that track when the movie has several sound tracks
// besides the backup), or empty (which removes a stale tag) when it has none.
std::string syncPointsTag(OffsetList const& list, dm::Movie const& movie);

struct StoredPoints {
    std::vector<Offset> points;
    int soundOrdinal = 0; // the re-timed track's place, 0 when not named
};
// The points of a text made by encodeSyncPoints, or nothing when the text is
// not one (another version, damaged, or edited by hand into nonsense).
std::optional<StoredPoints> decodeStoredPoints(std::string const& text);
inline std::optional<std::vector<Offset>> decodeSyncPoints(std::string const& text)
{
    auto stored = decodeStoredPoints(text);
    if (!stored) return std::nullopt;
    return std::move(stored->points);
}

struct SavedSync {
    // The movie's backup now plays as its sound track (with the sound
    // track's name and enabled flag, where the sound track stood); the
    // re-timed track it replaced is gone.
    bool backupAdopted = false;
    // With an adopted backup: the track that now holds the unedited sound
    // (the backup) and the re-timed track it replaced.
    dm::TrackPtr sound;
    dm::TrackPtr replaced;
    // The saved points, to give to the list: only with an adopted backup.
    std::optional<std::vector<Offset>> points;
    // For the user, when something was found but could not be used.
    std::string note;
};

// Looks for a movie saved after a sync: exactly one disabled sound track
// named "Backup Sound Track" and the sound track it backs up, of the same
// time scale: the one the stored points name, or else the one enabled sound
// track. `tag` is the value of kSyncPointsTag in the file, or empty.
SavedSync adoptSavedSync(dm::Movie& movie, std::string const& tag);
