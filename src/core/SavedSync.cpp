#include "SavedSync.h"

#include <charconv>
#include <cmath>
#include <sstream>

namespace {
constexpr char const* kMagic = "dubmatch-sync-points";
constexpr int kVersion = 1;

bool parseInt(std::string const& s, std::int64_t& v)
{
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    return ec == std::errc() && end == s.data() + s.size();
}
} // namespace

std::string encodeSyncPoints(std::vector<Offset> const& points, std::int32_t scale)
{
    std::ostringstream o;
    o << kMagic << " " << kVersion << " " << scale;
    for (Offset const& p : points) {
        myQTTime m = p.movieTime, a = p.audioTime;
        if (m.timeScale != scale) m = myQTTime(static_cast<long long>(std::llrint(m.seconds() * scale)), scale);
        if (a.timeScale != scale) a = myQTTime(static_cast<long long>(std::llrint(a.seconds() * scale)), scale);
        o << " " << m.timeValue << "/" << a.timeValue;
    }
    return o.str();
}

std::string syncPointsTag(OffsetList const& list)
{
    if (list.points().empty()) return {};
    return encodeSyncPoints(list.points(), static_cast<std::int32_t>(list.soundTrack()->timeScale()));
}

std::optional<std::vector<Offset>> decodeSyncPoints(std::string const& text)
{
    std::istringstream in(text);
    std::string magic, word;
    std::int64_t version = 0, scale = 0;
    if (!(in >> magic) || magic != kMagic) return std::nullopt;
    if (!(in >> word) || !parseInt(word, version) || version != kVersion) return std::nullopt;
    if (!(in >> word) || !parseInt(word, scale) || scale <= 0 || scale > 1'000'000) return std::nullopt;
    std::vector<Offset> points;
    while (in >> word) {
        auto slash = word.find('/');
        std::int64_t m = 0, a = 0;
        if (slash == std::string::npos || !parseInt(word.substr(0, slash), m) || !parseInt(word.substr(slash + 1), a)) return std::nullopt;
        if (points.size() >= 100'000) return std::nullopt;
        points.emplace_back(myQTTime(static_cast<long long>(m), static_cast<long>(scale)),
                            myQTTime(static_cast<long long>(a), static_cast<long>(scale)));
    }
    return points;
}

SavedSync adoptSavedSync(dm::Movie& movie, std::string const& tag)
{
    SavedSync result;
    dm::TrackPtr sound, backup;
    int enabled = 0, backups = 0;
    for (auto const& t : movie.tracksOfMediaType(dm::MediaType::Sound)) {
        if (t->isEnabled()) {
            ++enabled;
            sound = t;
        } else if (t->displayName() == OffsetList::kBackupTrackName) {
            ++backups;
            backup = t;
        }
    }
    std::optional<std::vector<Offset>> points;
    if (!tag.empty()) points = decodeSyncPoints(tag);
    if (backups == 0) {
        if (!tag.empty()) result.note = "The movie names sync points but has no backup of its sound, so they are not used.";
        return result;
    }
    if (enabled != 1 || backups != 1 || sound->timeScale() != backup->timeScale()) {
        result.note = "The movie has " + std::to_string(backups) + " backup sound track(s) that cannot be matched with its sound; "
                      "new points re-time the sound as it plays now.";
        return result;
    }
    backup->setEnabled(true);
    backup->setDisplayName(sound->displayName());
    dm::ReplaceMovieTrack(movie, sound, backup);
    result.backupAdopted = true;
    if (points) result.points = std::move(points);
    else
        result.note = tag.empty() ? "The movie was synced before, but it does not carry its sync points: it plays its unedited sound "
                                    "again, and new points start from that."
                                  : "The sync points stored in the movie cannot be read: it plays its unedited sound again, and new "
                                    "points start from that.";
    return result;
}
