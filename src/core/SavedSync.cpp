#include "SavedSync.h"

#include <charconv>
#include <cmath>
#include <sstream>

namespace {
constexpr char const* kMagic = "dubmatch-sync-points";
constexpr int kVersion = 1;
constexpr int kVersionWithTrack = 2;
constexpr char const* kSoundKey = "sound=";



bool parseInt(std::string const& s, std::int64_t& v)
{
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    return ec == std::errc() && end == s.data() + s.size();
}
} // namespace

bool isBackupTrack(dm::Track const& t) { return !t.isEnabled() && t.displayName() == OffsetList::kBackupTrackName; }

std::string encodeSyncPoints(std::vector<Offset> const& points, std::int32_t scale, int soundOrdinal)
{
    std::ostringstream o;
    if (soundOrdinal > 0) o << kMagic << " " << kVersionWithTrack << " " << scale << " " << kSoundKey << soundOrdinal;
    else o << kMagic << " " << kVersion << " " << scale;
    for (Offset const& p : points) {
        myQTTime m = p.movieTime, a = p.audioTime;
        if (m.timeScale != scale) m = myQTTime(static_cast<long long>(std::llrint(m.seconds() * scale)), scale);
        if (a.timeScale != scale) a = myQTTime(static_cast<long long>(std::llrint(a.seconds() * scale)), scale);
        o << " " << m.timeValue << "/" << a.timeValue;
    }
    return o.str();
}

int soundTrackOrdinal(dm::Movie const& movie, dm::TrackPtr const& sound)
{
    int n = 0;
    for (auto const& t : movie.tracksOfMediaType(dm::MediaType::Sound)) {
        if (isBackupTrack(*t)) continue;
        ++n;
        if (t == sound) return n;
    }
    return 0;
}

std::string syncPointsTag(OffsetList const& list, dm::Movie const& movie)
{
    if (list.points().empty()) return {};
    int sounds = 0;
    for (auto const& t : movie.tracksOfMediaType(dm::MediaType::Sound)) sounds += isBackupTrack(*t) ? 0 : 1;
    int ordinal = sounds > 1 ? soundTrackOrdinal(movie, list.soundTrack()) : 0;
    return encodeSyncPoints(list.points(), static_cast<std::int32_t>(list.soundTrack()->timeScale()), ordinal);
}

std::optional<StoredPoints> decodeStoredPoints(std::string const& text)
{
    std::istringstream in(text);
    std::string magic, word;
    std::int64_t version = 0, scale = 0;
    if (!(in >> magic) || magic != kMagic) return std::nullopt;
    if (!(in >> word) || !parseInt(word, version) || (version != kVersion && version != kVersionWithTrack)) return std::nullopt;
    if (!(in >> word) || !parseInt(word, scale) || scale <= 0 || scale > 1'000'000) return std::nullopt;
    StoredPoints stored;
    if (version == kVersionWithTrack) {
        std::int64_t ordinal = 0;
        std::string key = kSoundKey;
        if (!(in >> word) || word.rfind(key, 0) != 0 || !parseInt(word.substr(key.size()), ordinal) || ordinal < 1 || ordinal > 10'000)
            return std::nullopt;
        stored.soundOrdinal = static_cast<int>(ordinal);
    }
    std::vector<Offset>& points = stored.points;
    while (in >> word) {
        auto slash = word.find('/');
        std::int64_t m = 0, a = 0;
        if (slash == std::string::npos || !parseInt(word.substr(0, slash), m) || !parseInt(word.substr(slash + 1), a)) return std::nullopt;
        if (points.size() >= 100'000) return std::nullopt;
        points.emplace_back(myQTTime(static_cast<long long>(m), static_cast<long>(scale)),
                            myQTTime(static_cast<long long>(a), static_cast<long>(scale)));
    }
    return stored;
}

SavedSync adoptSavedSync(dm::Movie& movie, std::string const& tag)
{
    SavedSync result;
    std::vector<dm::TrackPtr> sounds, enabled, backups;
    for (auto const& t : movie.tracksOfMediaType(dm::MediaType::Sound)) {
        if (isBackupTrack(*t)) {
            backups.push_back(t);
            continue;
        }
        sounds.push_back(t);
        if (t->isEnabled()) enabled.push_back(t);
    }
    std::optional<StoredPoints> stored;
    if (!tag.empty()) stored = decodeStoredPoints(tag);
    if (backups.empty()) {
        if (!tag.empty()) result.note = "The movie names sync points but has no backup of its sound, so they are not used.";
        return result;
    }
    // The track the backup belongs to: the one the points name, or the one
    // that plays.
    dm::TrackPtr sound;
    if (stored && stored->soundOrdinal > 0) {
        if (stored->soundOrdinal <= static_cast<int>(sounds.size())) sound = sounds[static_cast<std::size_t>(stored->soundOrdinal - 1)];
    } else if (enabled.size() == 1) {
        sound = enabled.front();
    }
    dm::TrackPtr backup = backups.front();
    if (!sound || backups.size() != 1 || sound->timeScale() != backup->timeScale()) {
        result.note = "The movie has " + std::to_string(backups.size()) + " backup sound track(s) that cannot be matched with its sound; "
                      "new points re-time the sound as it plays now.";
        return result;
    }
    backup->setEnabled(sound->isEnabled());
    backup->setDisplayName(sound->displayName());
    dm::ReplaceMovieTrack(movie, sound, backup);
    result.backupAdopted = true;
    result.sound = backup;
    result.replaced = sound;
    if (stored) result.points = std::move(stored->points);
    else
        result.note = tag.empty() ? "The movie was synced before, but it does not carry its sync points: it plays its unedited sound "
                                    "again, and new points start from that."
                                  : "The sync points stored in the movie cannot be read: it plays its unedited sound again, and new "
                                    "points start from that.";
    return result;
}
