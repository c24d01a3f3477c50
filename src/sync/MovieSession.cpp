#include "MovieSession.h"

#include "ReferenceMatch.h"
#include "SavedSync.h"
#include "SyncLimits.h"

#include <algorithm>
#include <cmath>
#include <sys/stat.h>

namespace dmsync {

namespace {

// The end of a sound track on its own timeline, in seconds.
double soundEndSeconds(dm::Track const& sound)
{
    QTTimeRange r = sound.range();
    return myQTTime(QTTime{r.time.timeValue + r.duration.timeValue, r.time.timeScale, 0}).seconds();
}

std::string withoutFullStop(std::string s)
{
    if (!s.empty() && s.back() == '.') s.pop_back();
    return s;
}

} // namespace

std::unique_ptr<MovieSession> MovieSession::open(std::string const& path, int soundTrack)
{
    std::unique_ptr<MovieSession> s(new MovieSession);
    s->path_ = path;
    s->opened_ = media::openMovie(path);
    s->notes_ = s->opened_.notes;
    dm::Movie& movie = *s->opened_.movie;
    // The chosen track, by its number in the file, before a backup moves in.
    dm::TrackPtr chosen;
    if (soundTrack != 0) {
        chosen = movie.trackWithID(soundTrack);
        if (!chosen || chosen->mediaType() != dm::MediaType::Sound) {
            std::string list;
            for (auto const& t : movie.tracksOfMediaType(dm::MediaType::Sound))
                if (!isBackupTrack(*t))
                    list += (list.empty() ? "" : ", ") + std::to_string(t->id());
            throw Refused("Track " + std::to_string(soundTrack) + " of \"" + path + "\" is not a sound track.",
                          list.empty() ? "The movie has no sound track to sync." : "Its sound tracks are " + list + " (info lists them).");
        }
        if (isBackupTrack(*chosen))
            throw Refused("Track " + std::to_string(soundTrack) + " is the backup of an earlier sync, not a sound track to sync.",
                          "Choose the track that was synced: opening the movie brings its unedited sound back.");
    }
    // A movie saved after a sync plays its unedited sound again, from its
    // backup, and gets its points back: the list then re-times from the
    // unedited sound, never from a backup of a backup.
    SavedSync saved = adoptSavedSync(movie, s->opened_.syncPointsTag);
    s->syncedBefore_ = saved.backupAdopted;
    s->storedPoints_ = std::move(saved.points);
    s->storedNote_ = saved.note;
    if (!saved.note.empty()) s->notes_.push_back(withoutFullStop(saved.note));
    // The track synced before is synced again unless another is chosen.
    if (!chosen || chosen == saved.replaced) chosen = saved.sound;
    try {
        if (chosen && saved.backupAdopted && chosen != saved.sound)
            // Its backup belongs to the other track: a sync of this one
            // would write that track's unedited sound over its sync.
            throw Refused("The movie was synced on track " + std::to_string(saved.sound->id()) + " (\"" + saved.sound->displayName()
                              + "\"); a sync of track " + std::to_string(soundTrack) + " would undo that sync.",
                          "Sync track " + std::to_string(saved.sound->id())
                              + " again, or sync another track in the movie as it was before its first sync.");
        s->list_ = makeOffsetList(s->opened_.movie.get(), nullptr, chosen);
    } catch (Refused const& r) {
        s->refusal_ = r.refusal();
    }
    return s;
}

std::vector<dm::TrackPtr> MovieSession::soundTracks() const
{
    std::vector<dm::TrackPtr> out;
    for (auto const& t : opened_.movie->tracksOfMediaType(dm::MediaType::Sound)) {
        bool backup = list_ ? t == list_->backupTrack() : isBackupTrack(*t);
        if (!backup) out.push_back(t);
    }
    return out;
}



OffsetList& MovieSession::list() const
{
    if (!list_) throw Refused(refusal_);
    return *list_;
}

ReferenceSound MovieSession::referenceTrack(int id) const
{
    dm::TrackPtr t = opened_.movie->trackWithID(id);
    TrackRoles r = roles();
    if (!t || t->mediaType() != dm::MediaType::Sound || t == r.backup)
        throw Refused("Track " + std::to_string(id) + " of \"" + path_ + "\" is not a sound track to compare with.",
                      "dubmatch-cli info lists the tracks.");
    if (t == r.sound)
        throw Refused("Track " + std::to_string(id) + " is the sound to sync itself.",
                      "Give another sound track of the movie (the original language), or another file.");
    return {opened_.movie, t, "track " + std::to_string(id) + " (\"" + t->displayName() + "\")"};
}

ReferenceSound MovieSession::referenceFile(std::string const& path)
{
    media::OpenedMovie m = media::openMovie(path);
    dm::TrackPtr sound;
    for (auto const& t : m.movie->tracksOfMediaType(dm::MediaType::Sound))
        if (!sound || (t->isEnabled() && !sound->isEnabled())) sound = t;
    if (!sound) throw Refused("\"" + path + "\" has no sound to compare with.", "");
    return {m.movie, sound, "\"" + path + "\""};
}

suggest::SoundMatch MovieSession::matchReference(ReferenceSound const& reference, media::Progress const& progress,
                                                 std::atomic<bool> const* stop) const
{
    OffsetList const& l = list();
    dm::Track const& unedited = l.backupTrack() ? *l.backupTrack() : *l.soundTrack();
    return media::matchReferenceSound(unedited, *reference.track, progress, stop);
}

TrackRoles MovieSession::roles() const
{
    TrackRoles r;
    if (list_) {
        r.sound = list_->soundTrack();
        r.backup = list_->backupTrack();
    }
    for (auto const& t : opened_.movie->tracks())
        if (t != r.sound && t != r.backup) r.others.push_back(t);
    return r;
}

Prediction MovieSession::predict(std::vector<Offset> const& points, media::SoundCodec codec) const
{
    OffsetList const& l = list();
    dm::Track const& sound = *l.soundTrack();
    synclimits::Extent extent{l.duration().seconds(), soundEndSeconds(sound)};
    Prediction p;
    p.points = points.size();
    p.movieSeconds = extent.movie;
    p.uneditedSoundSeconds = extent.sound;
    p.limitSeconds = synclimits::longestRetimedSound(extent);
    struct stat st {};
    if (::stat(path_.c_str(), &st) == 0) p.inputBytes = st.st_size;
    p.soundSeconds = extent.sound;
    p.outputBytes = p.inputBytes;
    if (points.empty()) return p; // the sound is written unchanged, without a backup
    SyncLine line = fitSyncLine(points, l.duration());
    p.problem = synclimits::problemWith(points, line, extent);
    if (line.fitted) p.soundSeconds = synclimits::retimedSoundEnd(line, extent.sound);
    // A movie synced before holds a re-timed sound that the new one replaces.
    double perSecond = media::soundBytesPerSecond(sound, codec);
    double bytes = static_cast<double>(p.inputBytes) + perSecond * (p.soundSeconds - (syncedBefore_ ? extent.sound : 0.0));
    p.outputBytes = static_cast<std::int64_t>(std::clamp(bytes, 0.0, 9e18));
    return p;
}

media::Container MovieSession::saveAsContainer() const
{
    return media::containerForSaveAs(opened_.container, opened_.formatName);
}

media::Container MovieSession::containerFor(SaveTarget const& target) const
{
    if (!target.inPlace) return media::Container::forPath(target.path);
    if (opened_.container) return opened_.container;
    auto dot = path_.find_last_of('.');
    auto slash = path_.find_last_of('/');
    std::string stem = dot == std::string::npos || (slash != std::string::npos && dot < slash) ? path_ : path_.substr(0, dot);
    throw Refused("\"" + path_ + "\" is a " + opened_.formatName
                      + " file, which Dubmatch reads but does not write, so it cannot be saved in place.",
                  "Save a copy instead: " + stem + "-synced." + saveAsContainer().extension());
}

media::SaveOptions MovieSession::withPoints(media::SaveOptions options) const
{
    // The points travel with the movie, so that it can be opened again and
    // refined; a movie that cannot be synced keeps what its file carries.
    if (list_) {
        options.syncPoints = syncPointsTag(*list_, *opened_.movie);
        options.sound = list_->soundTrack().get();
    }
    return options;
}

media::SavePlan MovieSession::plan(media::SaveOptions const& options) const
{
    return media::planSave(*opened_.movie, withPoints(options));
}

PreparedSave MovieSession::prepareSave(SaveTarget const& target, media::SaveOptions options) const
{
    if (!options.container && !target.exportType) options.container = containerFor(target);
    PreparedSave s;
    s.movie_ = opened_.movie;
    s.target_ = target;
    s.options_ = withPoints(std::move(options));
    return s;
}

media::WriteResult PreparedSave::run(media::Progress const& progress) const
{
    if (target_.exportType) return media::exportMovie(*movie_, target_.path, *target_.exportType, myQTTime(), progress, options_);
    if (target_.inPlace) return media::saveInPlace(*movie_, target_.path, progress, options_);
    return media::writeMovie(*movie_, target_.path, progress, options_);
}

} // namespace dmsync
