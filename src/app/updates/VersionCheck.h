// The start-up version check: the running system and media framework must be
// at least the versions Info.plist names, or the application does not start.
// Here the system is Linux (the kernel release) and the media framework
// FFmpeg's libavformat.
#pragma once

#include "version.h"

#include <cstdint>
#include <optional>
#include <string>

// The versions from the platform's BCD-coded answers: 0x1049 is 10.4.9 for
// the system; 0x07048000 is 7.0.4 for the media framework.
version_t macOSVersion(std::uint32_t response);
version_t qtVersion(std::uint32_t response);
// Answers in those codes for the running kernel and libavformat (each field
// is kept within what its digits can hold).
std::uint32_t systemVersionResponse();
std::uint32_t mediaFrameworkVersionResponse();
// The release name of a system version: none on this platform (the names of
// the original table belong to another system).
std::string macOSVersionName(version_t const& v);

struct VersionRequirements {
    version_t minimumSystem, minimumMedia, recommendedSystem, recommendedMedia;
    std::optional<std::string> name; // CFBundleName
};
// An Info.plist value as a version; missing or empty gives 0.0.
version_t infoVersion(std::optional<std::string> const& value);
VersionRequirements requirementsFromInfoPlist();

struct VersionVerdict {
    bool ok = true;
    std::string title;
    std::string message;
};
// The alert for these versions, or ok.
VersionVerdict evaluateVersions(VersionRequirements const& r, version_t system, version_t media);

// Checks the running versions; when too old shows the alert and returns
// false (the caller then ends the program).
bool versionCheck(int& argc, char** argv);
