// Why a movie cannot be synced, in words for the user.
#pragma once

#include "OffsetList.h"

#include <memory>
#include <stdexcept>
#include <string>

struct Refusal {
    std::string message;    // what is wrong
    std::string suggestion; // what the user can do
};

// Where the refusals send users who need what Dubmatch cannot do yet.
inline constexpr char const* kContactAddress = "the Dubmatch team at feedback@dubmatch.org";

Refusal noSoundTracksRefusal();
Refusal mpegMovieRefusal();
Refusal tooManySoundTracksRefusal();

// A refusal thrown: what() says what is wrong, suggestion() what the user
// can do. The front ends turn it into their message.
class Refused : public std::runtime_error {
public:
    explicit Refused(std::string const& message, std::string suggestion = {})
        : std::runtime_error(message), suggestion_(std::move(suggestion))
    {
    }
    explicit Refused(Refusal const& r) : Refused(r.message, r.suggestion) {}
    std::string const& suggestion() const { return suggestion_; }
    Refusal refusal() const { return {what(), suggestion_}; }

private:
    std::string suggestion_;
};

// Builds the sync point list of a movie for `sound`, or when that is null
// for its one enabled sound track; throws Refused, saying why, when there
// is no such track.
std::unique_ptr<OffsetList> makeOffsetList(dm::Movie* movie, SyncDocument* document, dm::TrackPtr sound = nullptr);
