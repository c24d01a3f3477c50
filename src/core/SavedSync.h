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
// movie-time order. Points must share `scale` (the sound track's).
std::string encodeSyncPoints(std::vector<Offset> const& points, std::int32_t scale);
// The value of kSyncPointsTag for a save of `list`: its points at its sound
// track's scale, or empty (which removes a stale tag) when it has none.
std::string syncPointsTag(OffsetList const& list);
// The points of a text made by encodeSyncPoints, or nothing when the text is
// not one (another version, damaged, or edited by hand into nonsense).
std::optional<std::vector<Offset>> decodeSyncPoints(std::string const& text);

struct SavedSync {
    // The movie's backup now plays as its sound track (enabled, with the
    // sound track's name, where the sound track stood); the re-timed track
    // it replaced is gone.
    bool backupAdopted = false;
    // The saved points, to give to the list: only with an adopted backup.
    std::optional<std::vector<Offset>> points;
    // For the user, when something was found but could not be used.
    std::string note;
};

// Looks for a movie saved after a sync: exactly one enabled sound track and
// exactly one disabled sound track named "Backup Sound Track" of the same
// time scale. `tag` is the value of kSyncPointsTag in the file, or empty.
SavedSync adoptSavedSync(dm::Movie& movie, std::string const& tag);
