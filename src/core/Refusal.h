// Why a movie cannot be synced, in words for the user.
#pragma once

#include "OffsetList.h"

#include <memory>
#include <string>
#include <variant>

struct Refusal {
    std::string message;    // what is wrong
    std::string suggestion; // what the user can do
};

// Where the refusals send users who need what Dubmatch cannot do yet.
inline constexpr char const* kContactAddress = "the Dubmatch team at feedback@dubmatch.org";

Refusal noSoundTracksRefusal();
Refusal mpegMovieRefusal();
Refusal tooManySoundTracksRefusal();

// Builds the sync point list of a movie, or the refusal that explains why the
// movie has no single enabled sound track.
std::variant<std::unique_ptr<OffsetList>, Refusal> makeOffsetList(dm::Movie* movie, SyncDocument* document);
