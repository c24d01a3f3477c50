#include "VersionCheck.h"

#include "Resources.h"
#include "kit/Alert.h"

#include <QApplication>

extern "C" {
#include <libavformat/avformat.h>
}

#include <sstream>
#include <sys/utsname.h>

namespace {
constexpr char const* kSystemWord = "Linux";
constexpr char const* kMediaWord = "FFmpeg libavformat";
const version_t kZero{};
} // namespace

version_t macOSVersion(std::uint32_t r)
{
    return version_t(static_cast<std::int16_t>((r >> 12) * 10 + ((r >> 8) & 0xF)), static_cast<std::int16_t>((r >> 4) & 0xF),
                     static_cast<std::int16_t>(r & 0xF));
}

version_t qtVersion(std::uint32_t r)
{
    return version_t(static_cast<std::int16_t>(r >> 24), static_cast<std::int16_t>((r >> 20) & 0xF), static_cast<std::int16_t>((r >> 16) & 0xF));
}

std::uint32_t systemVersionResponse()
{
    utsname u{};
    int major = 0, minor = 0, patch = 0;
    if (uname(&u) == 0) std::sscanf(u.release, "%d.%d.%d", &major, &minor, &patch);
    major = std::clamp(major, 0, 159); // two decimal digits over 4 + 4 bits
    minor = std::clamp(minor, 0, 15);
    patch = std::clamp(patch, 0, 15);
    return static_cast<std::uint32_t>(((major / 10) << 12) | ((major % 10) << 8) | (minor << 4) | patch);
}

std::uint32_t mediaFrameworkVersionResponse()
{
    unsigned v = avformat_version();
    unsigned major = std::min(AV_VERSION_MAJOR(v), 255u), minor = std::min(AV_VERSION_MINOR(v), 15u), micro = std::min(AV_VERSION_MICRO(v), 15u);
    return (major << 24) | (minor << 20) | (micro << 16);
}

std::string macOSVersionName(version_t const&) { return {}; }

version_t infoVersion(std::optional<std::string> const& value)
{
    if (!value || value->empty()) return version_t();
    return version_t(*value);
}

VersionRequirements requirementsFromInfoPlist()
{
    auto get = [](char const* key) -> std::optional<std::string> {
        auto v = resources::plistString(":/Info.plist", key);
        return v ? std::optional<std::string>(v->toStdString()) : std::nullopt;
    };
    VersionRequirements r;
    r.minimumSystem = infoVersion(get("MinimumSystemVersion"));
    r.minimumMedia = infoVersion(get("MinimumQuickTimeVersion"));
    r.recommendedSystem = infoVersion(get("RecommendedSystemVersion"));
    r.recommendedMedia = infoVersion(get("RecommendedQuickTimeVersion"));
    r.name = get("CFBundleName");
    return r;
}

VersionVerdict evaluateVersions(VersionRequirements const& r, version_t system, version_t media)
{
    bool systemOld = system < r.minimumSystem;
    bool mediaOld = media < r.minimumMedia;
    VersionVerdict v;
    if (!systemOld && !mediaOld) return v;
    v.ok = false;
    std::ostringstream m;
    if (r.name) m << *r.name;
    m << " requires ";
    if (systemOld) {
        m << kSystemWord << " " << r.minimumSystem.asString();
        std::string name = macOSVersionName(r.minimumSystem);
        if (!name.empty()) m << " (" << name << ")";
        m << " or later";
        if (!(r.recommendedSystem == kZero) && r.minimumSystem < r.recommendedSystem)
            m << " (" << r.recommendedSystem.asString() << " or later recommended)";
    }
    if (systemOld && mediaOld) m << " and ";
    if (mediaOld) {
        m << kMediaWord << " " << r.minimumMedia.asString() << " or later";
        if (!(r.recommendedMedia == kZero) && r.minimumMedia < r.recommendedMedia)
            m << " (" << r.recommendedMedia.asString() << " or later recommended)";
    }
    v.message = m.str();
    if (systemOld && mediaOld) v.title = "Software Too Old";
    else if (systemOld) v.title = "System Software Too Old";
    else v.title = std::string(kMediaWord).append(" Too Old");
    return v;
}

bool versionCheck(int& argc, char** argv)
{
    VersionVerdict v = evaluateVersions(requirementsFromInfoPlist(), macOSVersion(systemVersionResponse()),
                                        qtVersion(mediaFrameworkVersionResponse()));
    if (v.ok) return true;
    std::unique_ptr<QApplication> app;
    if (!QApplication::instance()) app = std::make_unique<QApplication>(argc, argv);
    kit::AlertSpec a;
    a.title = QString::fromStdString(v.title);
    a.message = QString::fromStdString(v.message);
    kit::runAlert(a);
    return false;
}
