#include "Refusal.h"

namespace {
std::string contact(char const* start, char const* end)
{
    return std::string(start) + " Please contact " + kContactAddress + end;
}
} // namespace

Refusal noSoundTracksRefusal()
{
    return {"There are no sound tracks in the movie.",
            contact("Dubmatch is currently unable to combine sound and video tracks; you will need to do that with another program.",
                    " if support for combining sound and video tracks is of interest to you.")};
}

Refusal mpegMovieRefusal()
{
    return {"The movie contains only MPEG tracks.",
            contact("Due to limitations in QuickTime, Dubmatch cannot currently handle MPEG movies.",
                    " if support for MPEG movies is of interest to you.")};
}

Refusal tooManySoundTracksRefusal()
{
    return {"There is more than one sound track in the movie.",
            "Choose the sound track to sync: Sync > Sound Track to Sync in Dubmatch, or --track N with dubmatch-cli "
            "(dubmatch-cli info lists the tracks)."};
}

std::unique_ptr<OffsetList> makeOffsetList(dm::Movie* movie, SyncDocument* document, dm::TrackPtr sound)
{
    try {
        if (sound) return std::make_unique<OffsetList>(movie, document, std::move(sound));
        return std::make_unique<OffsetList>(movie, document);
    } catch (OffsetList::NoSoundTracks const&) {
        throw Refused(noSoundTracksRefusal());
    } catch (OffsetList::MPEGMovie const&) {
        throw Refused(mpegMovieRefusal());
    } catch (OffsetList::TooManySoundTracks const&) {
        throw Refused(tooManySoundTracksRefusal());
    }
}
