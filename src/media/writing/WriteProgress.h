// Progress reports of long writes, throttled, with the stop answer.
#pragma once

#include "FFmpeg.h"
#include "MovieWriter.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>

namespace media {

// Reports progress at most every 100 ms (and at the phases); throws
// Cancelled when the callback says stop or when `stop` (set from any
// thread or a signal handler) is set. interrupt() gives FFmpeg the same
// stop, so that a blocked read or write ends too.
class ProgressReporter {
public:
    ProgressReporter(Progress const& p, std::string op, std::atomic<bool> const* stop = nullptr)
        : progress_(p), op_(std::move(op)), stop_(stop)
    {
        call(Phase::Begin, 0.0);
    }
    AVIOInterruptCB interrupt() const
    {
        return AVIOInterruptCB{[](void* flag) { return flag && static_cast<std::atomic<bool> const*>(flag)->load() ? 1 : 0; },
                               const_cast<std::atomic<bool>*>(stop_)};
    }
    ~ProgressReporter()
    {
        if (progress_ && !ended_) progress_(op_, Phase::End, 1.0);
    }
    void update(double fraction)
    {
        if (stop_ && stop_->load()) call(Phase::Update, std::clamp(fraction, 0.0, 1.0));
        auto now = std::chrono::steady_clock::now();
        if (now - last_ < std::chrono::milliseconds(100)) return;
        last_ = now;
        call(Phase::Update, std::clamp(fraction, 0.0, 1.0));
    }
    void end()
    {
        call(Phase::Update, 1.0);
        call(Phase::End, 1.0);
        ended_ = true;
    }

private:
    void call(Phase phase, double f)
    {
        // At the end the work is done: a stop then changes nothing.
        bool go = progress_ ? progress_(op_, phase, f) : true;
        if (stop_ && stop_->load()) go = false;
        if (!go && phase != Phase::End) {
            ended_ = true;
            if (progress_) progress_(op_, Phase::End, f);
            throw Cancelled();
        }
    }
    Progress const& progress_;
    std::string op_;
    std::atomic<bool> const* stop_;
    bool ended_ = false;
    std::chrono::steady_clock::time_point last_{};
};

} // namespace media
