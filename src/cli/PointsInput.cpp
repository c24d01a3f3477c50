// Sync points read from a file, a pipe or a terminal, bounded.
#include "AtomicFile.h"
#include "Containers.h"
#include "Evidence.h"
#include "MovieFile.h"
#include "MovieWriter.h"
#include "OffsetList.h"
#include "PointsText.h"
#include "Refusal.h"
#include "SaveCheck.h"
#include "SoundMeasure.h"
#include "SavedSync.h"
#include "SyncLimits.h"
#include "CliShared.h"
#include "Options.h"
#include "TestMovie.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cmath>
#include <set>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace cli {

// How long a pipe may keep the points waiting: a program that writes them
// sends them at once, and a pipe that nobody writes to would otherwise hold
// the command forever.
constexpr int kPointsWaitSeconds = 10;

// A descriptor that this code opened, closed when it goes.
class OwnedFd {
public:
    explicit OwnedFd(int fd) : fd_(fd) {}
    ~OwnedFd()
    {
        if (fd_ >= 0) ::close(fd_);
    }
    OwnedFd(OwnedFd const&) = delete;
    OwnedFd& operator=(OwnedFd const&) = delete;

private:
    int fd_;
};

std::string pointsSourceName(std::string const& file)
{
    return file == "-" ? std::string("standard input") : "the points file \"" + file + "\"";
}

// The text of a points file ("-": standard input), read to its end. A regular
// file, a pipe or a terminal is read; a folder or a device is refused before
// reading. At most kMaxPointsTextBytes are taken, and a pipe or named pipe
// that sends nothing for kPointsWaitSeconds is given up, so the read always ends.
std::string readPointsText(std::string const& file)
{
    std::string name = pointsSourceName(file);
    auto fail = [&](std::string const& why) { return UsageError(name + " " + why); };
    int fd = STDIN_FILENO;
    if (file != "-") {
        // Not blocking: opening a named pipe would otherwise wait for a writer.
        fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        if (fd < 0) throw fail(std::string("cannot be read: ") + std::strerror(errno));
    }
    OwnedFd owned(file != "-" ? fd : -1);
    struct stat st {};
    if (::fstat(fd, &st) != 0) throw fail(std::string("cannot be read: ") + std::strerror(errno));
    bool terminal = file == "-" && ::isatty(fd);
    bool pipe = S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode);
    if (S_ISDIR(st.st_mode)) throw fail("is a folder, not a file of sync points");
    if (!terminal && (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode))) throw fail("is a device, not a file of sync points");
    if (!terminal && !pipe && !S_ISREG(st.st_mode)) throw fail("is not a file of sync points");
    std::string limit = "more than " + std::to_string(kMaxPointsTextBytes / (1024 * 1024))
                        + " MiB: that is no list of sync points (a point takes some 30 bytes)";
    if (S_ISREG(st.st_mode) && static_cast<std::uintmax_t>(st.st_size) > kMaxPointsTextBytes) throw fail("holds " + limit);

    std::string text;
    std::vector<char> buffer(64 * 1024);
    auto lastData = std::chrono::steady_clock::now();
    for (;;) {
        int timeout = -1;
        if (pipe) {
            double waited = secondsSince(lastData);
            if (waited >= kPointsWaitSeconds)
                throw fail("sent nothing for " + std::to_string(kPointsWaitSeconds) + " s (a pipe must deliver its points within "
                           + std::to_string(kPointsWaitSeconds) + " s of each other): write them to a file and give --points FILE");
            timeout = static_cast<int>((kPointsWaitSeconds - waited) * 1000) + 1;
        }
        pollfd ready{fd, POLLIN, 0};
        int polled = ::poll(&ready, 1, timeout);
        if (polled < 0 && errno != EINTR) throw fail(std::string("cannot be read: ") + std::strerror(errno));
        if (polled <= 0) continue;
        std::size_t room = std::min(buffer.size(), kMaxPointsTextBytes + 1 - text.size());
        ssize_t n = ::read(fd, buffer.data(), room);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR) continue;
            throw fail(std::string("cannot be read: ") + std::strerror(errno));
        }
        if (n == 0) break;
        text.append(buffer.data(), static_cast<std::size_t>(n));
        if (text.size() > kMaxPointsTextBytes) throw fail((pipe || terminal ? "sent " : "holds ") + limit);
        lastData = std::chrono::steady_clock::now();
    }
    return text;
}

// The points of a points text; a text without any point is refused, since
// syncing with none would write the sound unchanged.
std::vector<Offset> parsePoints(std::string const& file, std::string const& text, long scale)
{
    std::vector<Offset> points;
    try {
        points = parsePointsText(text, scale);
    } catch (PointsTextError const& e) {
        throw UsageError(pointsSourceName(file) + ", " + e.what());
    }
    if (points.empty()) throw UsageError(pointsSourceName(file) + " holds no sync points");
    return points;
}

std::vector<Offset> readPoints(std::string const& file, long scale) { return parsePoints(file, readPointsText(file), scale); }

} // namespace cli
