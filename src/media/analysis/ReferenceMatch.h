// Sync points from a reference sound read from real files: the sound to
// sync and a sound already in sync with the picture (the original
// language's track of the same movie, or another release's sound) decoded
// to mono at a low rate and compared (see SoundMatch.h). Runs on any one
// thread (it opens its own decoders); progress and stop as for saves.
#pragma once

#include "SoundMatch.h"
#include "WriteProgress.h"
#include "movie/Movie.h"

#include <atomic>

namespace media {

// `unedited` is the sound to sync as it was before any sync (audio time);
// `reference` a sound track whose timeline is the movie's (movie time).
// Throws MediaError, Cancelled.
suggest::SoundMatch matchReferenceSound(dm::Track const& unedited, dm::Track const& reference, Progress const& progress = {},
                                        std::atomic<bool> const* stop = nullptr, suggest::MatchSettings const& settings = {});

} // namespace media
