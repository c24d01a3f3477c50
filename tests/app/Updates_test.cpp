// The start-up version check, the update checker against a real HTTP server
// (also serving hostile property lists) and the feedback sender against a
// real SMTP sink, both on loopback.
#include "LoopbackServers.h"
#include "PXFeedbackProvider.h"
#include "PXUpdateChecker.h"
#include "VersionCheck.h"

extern "C" {
#include <libavformat/avformat.h>
}
#include "AppTestSupport.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <cstdint>
#include <pthread.h>
#include <stdexcept>

namespace {

version_t v(char const* s) { return version_t(std::string(s)); }

TEST(VersionCheck, PlatformAnswersDecode)
{
    EXPECT_EQ(macOSVersion(0x1049), v("10.4.9"));
    EXPECT_EQ(macOSVersion(0x1039), v("10.3.9"));
    EXPECT_EQ(qtVersion(0x07048000), v("7.0.4"));
    EXPECT_EQ(qtVersion(0x06528000), v("6.5.2"));
    // The running versions come back through the same decoding.
    version_t media = qtVersion(mediaFrameworkVersionResponse());
    EXPECT_EQ(media.major_version, static_cast<int>(AV_VERSION_MAJOR(avformat_version())));
    EXPECT_GT(macOSVersion(systemVersionResponse()).major_version, 0);
    EXPECT_EQ(macOSVersionName(v("10.4")), ""); // no release names on this system
    // This machine meets the bundled requirements.
    int argc = 0;
    EXPECT_TRUE(versionCheck(argc, nullptr));
}

TEST(VersionCheck, MessagesAndTitles)
{
    struct Row {
        char const *minSys, *recSys, *minMedia;
        char const *sys, *media;
        bool ok;
        char const *title, *message;
    };
    const Row rows[] = {
        {"10.3.9", "10.4", "7.0.4", "10.3.5", "7.0.4", false, "System Software Too Old",
         "Dubmatch requires Linux 10.3.9 or later (10.4 or later recommended)"},
        {"10.4", "", "7.0", "10.3.9", "6.5.2", false, "Software Too Old",
         "Dubmatch requires Linux 10.4 or later and FFmpeg libavformat 7.0 or later"},
        {"10.3", "", "7.0.4", "10.4.9", "7.0.1", false, "FFmpeg libavformat Too Old", "Dubmatch requires FFmpeg libavformat 7.0.4 or later"},
        {"10.4", "", "", "10.4.0", "1.0", true, "", ""},
        {"10.4.1", "", "", "10.4.0", "1.0", false, "System Software Too Old", "Dubmatch requires Linux 10.4.1 or later"},
        {"10.4b1", "", "", "10.4.0", "1.0", true, "", ""},
        {"10.4b1", "", "", "10.3.9", "1.0", false, "System Software Too Old", "Dubmatch requires Linux 10.4b1 or later"},
        {"10.4", "10.4", "", "10.3", "1.0", false, "System Software Too Old", "Dubmatch requires Linux 10.4 or later"}, // equal: no advice
        {"10.4", "10.3", "", "10.3", "1.0", false, "System Software Too Old", "Dubmatch requires Linux 10.4 or later"},
        {"10.3", "10.5", "", "10.4", "1.0", true, "", ""}, // between minimum and recommended
        {"", "", "", "0.0", "0.0", true, "", ""},            // no keys at all
    };
    for (auto const& r : rows) {
        VersionRequirements req;
        req.minimumSystem = infoVersion(std::string(r.minSys));
        req.recommendedSystem = infoVersion(std::string(r.recSys));
        req.minimumMedia = infoVersion(std::string(r.minMedia));
        req.name = "Dubmatch";
        VersionVerdict verdict = evaluateVersions(req, v(r.sys), v(r.media));
        SCOPED_TRACE(std::string(r.minSys) + " / " + r.sys);
        EXPECT_EQ(verdict.ok, r.ok);
        EXPECT_EQ(verdict.title, r.title);
        EXPECT_EQ(verdict.message, r.message);
    }
    VersionRequirements nameless;
    nameless.minimumMedia = v("7.0");
    EXPECT_EQ(evaluateVersions(nameless, v("1.0"), v("6.0")).message, " requires FFmpeg libavformat 7.0 or later");
    EXPECT_EQ(infoVersion(std::nullopt), version_t());
}

// ---- Property lists from the network ----

// An XML property list of `levels` dictionaries, each the only value of the one above.
std::string nestedXmlPlist(int levels)
{
    std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\">";
    for (int i = 0; i < levels; ++i) s += "<dict><key>a</key>";
    s += "<string>bottom</string>";
    for (int i = 0; i < levels; ++i) s += "</dict>";
    return s + "</plist>";
}

// Binary property lists written object by object: 4-byte offsets, 2-byte
// references, the top object given.
std::string binaryPlist(std::vector<std::string> const& objects, std::uint64_t top)
{
    std::string out = "bplist00";
    std::vector<std::uint32_t> offsets;
    for (auto const& o : objects) {
        offsets.push_back(static_cast<std::uint32_t>(out.size()));
        out += o;
    }
    auto bigEndian = [&out](std::uint64_t v, int bytes) {
        for (int i = bytes - 1; i >= 0; --i) out += static_cast<char>((v >> (8 * i)) & 0xFF);
    };
    std::uint64_t table = out.size();
    for (auto off : offsets) bigEndian(off, 4);
    out += std::string(6, '\0') + '\x04' + '\x02';
    bigEndian(objects.size(), 8);
    bigEndian(top, 8);
    bigEndian(table, 8);
    return out;
}
std::string bpString(std::string const& s) // ASCII, under 256 characters
{
    return s.size() < 15 ? static_cast<char>(0x50 | s.size()) + s : std::string("\x5F\x10") + static_cast<char>(s.size()) + s;
}
std::string bpRefs(std::vector<std::uint16_t> const& refs)
{
    std::string r;
    for (auto x : refs) r += std::string{static_cast<char>(x >> 8), static_cast<char>(x & 0xFF)};
    return r;
}
// A dictionary of (key object, value object) pairs, fewer than 15.
std::string bpDict(std::vector<std::pair<std::uint16_t, std::uint16_t>> const& entries)
{
    std::vector<std::uint16_t> keys, values;
    for (auto [k, val] : entries) {
        keys.push_back(k);
        values.push_back(val);
    }
    return static_cast<char>(0xD0 | entries.size()) + bpRefs(keys) + bpRefs(values);
}

// A dictionary of `entries` pairs that all use the same key and value objects.
std::string bpWideDict(std::uint16_t entries, std::uint16_t key, std::uint16_t value)
{
    std::string d = std::string("\xDF\x11") + static_cast<char>(entries >> 8) + static_cast<char>(entries & 0xFF);
    return d + bpRefs(std::vector<std::uint16_t>(entries, key)) + bpRefs(std::vector<std::uint16_t>(entries, value));
}

// Dictionaries that each refer twice to the next one: a couple of hundred
// bytes that stand for 2^levels values once every reference is followed.
std::string selfReferencingBinaryPlist(int levels)
{
    std::vector<std::string> objects{bpString("a"), bpString("b")};
    for (int i = 0; i < levels; ++i) {
        auto next = static_cast<std::uint16_t>(objects.size() + 1);
        objects.push_back(i + 1 < levels ? bpDict({{0, next}, {1, next}}) : bpDict({}));
    }
    return binaryPlist(objects, 2);
}

// The update document as a binary list; the two strings of the page are one
// shared object, as real writers share equal strings.
std::string binaryUpdatePlist(std::string const& version)
{
    return binaryPlist({bpDict({{1, 2}}), bpString("org.dubmatch"), bpDict({{3, 4}, {5, 6}, {7, 4}}), bpString("productVersion"),
                        bpString(version), bpString("productPageURL"), bpString("https://x.org"), bpString("version")},
                       0);
}

// Runs `f` on a thread with a small stack, where recursion on a document's
// depth would crash at once.
void onSmallStack(std::function<void()> f)
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 512 * 1024);
    pthread_t thread;
    auto run = [](void* fn) -> void* {
        (*static_cast<std::function<void()>*>(fn))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attr, run, &f), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
}

TEST(PlistLimits, HostileDocumentsAreRefusedQuicklyOnASmallStack)
{
    struct Row {
        char const* name;
        std::string bytes;
        char const* why;
        net::PlistLimits limits = {};
    };
    std::vector<std::string> chain; // 60000 arrays, each the only element of the one before
    for (std::uint16_t i = 0; i < 60000; ++i) {
        std::string element(1, i + 1 < 60000 ? '\xA1' : '\xA0');
        if (i + 1 < 60000) element += bpRefs({static_cast<std::uint16_t>(i + 1)});
        chain.push_back(std::move(element));
    }
    std::string cycle = binaryPlist({bpString("a"), bpDict({{0, 1}})}, 1);
    std::string selfRef = selfReferencingBinaryPlist(22);
    std::vector<Row> rows = {
        {"30000 nested XML dictionaries", nestedXmlPlist(30000), "nested more than 4 levels"},
        {"binary dictionaries referring to each other", selfRef, "nested more than 4 levels"},
        {"the same, allowed any depth", selfRef, "holds more than 20000 values", {1000, 20000}},
        {"three binary dictionaries of 1000 entries sharing one value", // 10^9 values, 3 levels
         binaryPlist({bpString("k"), bpWideDict(1000, 0, 2), bpWideDict(1000, 0, 3), bpWideDict(1000, 0, 4), bpString("v")}, 1),
         "holds more than 20000 values"},
        {"a binary dictionary that contains itself", cycle, "contains itself"},
        {"60000 nested binary arrays", binaryPlist(chain, 0), "nested more than 4 levels"},
        {"no XML", "<plist><dict><key>broken", "not a property list"},
        // libplist aborts the process on a string with a NUL character.
        {"a NUL character in an XML string", "<plist><dict><key>a</key><string>x&#0;y</string></dict></plist>", "not a property list"},
        {"a NUL character in a binary string", binaryPlist({bpDict({{1, 2}}), bpString("a"), bpString(std::string("x\0y", 3))}, 0),
         "string with a NUL character"},
        {"a NUL character in a binary UTF-16 key", binaryPlist({bpDict({{1, 2}}), std::string("\x62\0x\0\0", 5), bpString("v")}, 0),
         "string with a NUL character"},
        {"truncated binary", selfRef.substr(0, selfRef.size() - 1), "malformed binary"},
        {"reference past the table", binaryPlist({bpDict({{7, 7}})}, 0), "malformed binary"},
        {"offset table outside the document", std::string("bplist00") + std::string(24, 'x') + std::string(6, '\0') + "\x01\x01"
                                                   + std::string(7, '\0') + "\x01" + std::string(8, '\0') + std::string(7, '\0') + "\xff",
         "malformed binary"},
    };
    EXPECT_EQ(nestedXmlPlist(30000).size() / 1000, 750u); // as large as the worst seen, under the size cap
    EXPECT_LT(selfRef.size(), 400u);
    for (auto const& r : rows) {
        SCOPED_TRACE(r.name);
        std::optional<net::PlistValue> value;
        std::string error;
        qint64 ms = -1;
        onSmallStack([&] {
            QElapsedTimer clock;
            clock.start();
            value = net::parsePlist(r.bytes, r.limits, &error);
            ms = clock.elapsed();
        });
        EXPECT_FALSE(value);
        EXPECT_NE(error.find(r.why), std::string::npos) << error;
        EXPECT_LT(ms, 1000);
    }
}

TEST(PlistLimits, EveryDamagedByteIsParsedOrRefused)
{
    // Each byte of a binary update document replaced by a few values that
    // matter to the layout (sizes, markers, counts): the result is a value
    // or a refusal, never a crash or a runaway.
    std::string const good = binaryUpdatePlist("0.2.0");
    int refused = 0, parsed = 0;
    onSmallStack([&] {
        for (std::size_t i = 0; i < good.size(); ++i)
            for (int b : {0x00, 0x01, 0x0F, 0x10, 0x7F, 0xA1, 0xD1, 0xDF, 0xFF}) {
                std::string damaged = good;
                damaged[i] = static_cast<char>(b);
                (net::parsePlist(damaged) ? parsed : refused)++;
            }
    });
    EXPECT_EQ(parsed + refused, static_cast<int>(good.size()) * 9);
    EXPECT_GT(refused, 0);
    EXPECT_GT(parsed, 0);
}

TEST(PlistLimits, DocumentsWithinTheLimitsParse)
{
    net::PlistLimits limits;
    limits.maxDepth = 3;
    limits.maxNodes = 50;
    std::string error;
    // Depth: the root counts 1.
    auto three = net::parsePlist(nestedXmlPlist(3), limits, &error);
    ASSERT_TRUE(three) << error;
    EXPECT_EQ(*three->dict.at("a").dict.at("a").dict.at("a").string, "bottom");
    EXPECT_FALSE(net::parsePlist(nestedXmlPlist(4), limits));
    // The budget counts keys and values; <plist> itself is free.
    auto flat = [](int entries) {
        std::string s = "<plist><dict>";
        for (int i = 0; i < entries; ++i) s += "<key>k" + std::to_string(i) + "</key><string>v</string>";
        return s + "</dict></plist>";
    };
    EXPECT_TRUE(net::parsePlist(flat(24), limits)); // 1 + 48 values
    EXPECT_FALSE(net::parsePlist(flat(25), limits, &error));
    EXPECT_NE(error.find("more than 50 values"), std::string::npos);

    // A binary list with a shared string, and the same limits in binary.
    auto doc = net::parsePlist(binaryUpdatePlist("0.2.0"), {}, &error);
    ASSERT_TRUE(doc) << error;
    auto const& app = doc->dict.at("org.dubmatch");
    EXPECT_EQ(*app.dict.at("productVersion").string, "0.2.0");
    EXPECT_EQ(*app.dict.at("version").string, "0.2.0");
    EXPECT_EQ(*app.dict.at("productPageURL").string, "https://x.org");
    limits.maxDepth = 1;
    EXPECT_FALSE(net::parsePlist(binaryUpdatePlist("0.2.0"), limits, &error));
    EXPECT_NE(error.find("nested more than 1 level"), std::string::npos);
    limits = {};
    limits.maxNodes = 9; // the root, its key, the inner dictionary and its 6 keys and values; one fewer refuses
    EXPECT_TRUE(net::parsePlist(binaryUpdatePlist("0.2.0"), limits));
    limits.maxNodes = 8;
    EXPECT_FALSE(net::parsePlist(binaryUpdatePlist("0.2.0"), limits));
    // Twelve levels of doubling (4095 dictionaries, 8189 values after
    // expansion) fit the default budget, but not the default depth.
    EXPECT_FALSE(net::parsePlist(selfReferencingBinaryPlist(12), {}, &error));
    limits = {};
    limits.maxDepth = 12;
    EXPECT_TRUE(net::parsePlist(selfReferencingBinaryPlist(12), limits, &error)) << error;
}

TEST(VersionsAndPages, OnlyNewerVersionsAndWebPages)
{
    struct Row {
        char const *published, *running;
        std::optional<bool> newer;
    };
    const Row rows[] = {
        {"0.2.0", "0.1.0", true},
        {"0.1", "0.1.0", false},      // the same version written shorter
        {"0.0.9", "0.1.0", false},    // older
        {"0.1.0b1", "0.1.0", false},  // a pre-release of ours
        {"0.1.0r1", "0.1.0", true},
        {"0.1.1d1", "0.1.0", true},
        {"1.0\xCE\xB2" "3", "1.0b2", true}, // beta written with the Greek letter
        {"1.0rc1", "1.0b9", true},
        {"10.0", "9.9.9", true},      // numbers, not text
        {"70000", "0.1", std::nullopt}, // would wrap to 4464
        {"2.0 beta", "0.1", std::nullopt},
        {"", "0.1", std::nullopt},
        {"0.2", "our own build", std::nullopt},
    };
    for (auto const& r : rows) {
        SCOPED_TRACE(std::string(r.published) + " against " + r.running);
        EXPECT_EQ(PXUpdateChecker::isNewerVersion(r.published, r.running), r.newer);
    }
    for (auto url : {"http://dubmatch.org/get", "https://dubmatch.org", "HTTPS://dubmatch.org/x?y=1"})
        EXPECT_TRUE(PXUpdateChecker::isWebPage(url)) << url;
    for (auto url : {"file:///etc/passwd", "javascript:alert(1)", "dubmatch.org/get", "ftp://dubmatch.org/a", "http:///nohost",
                     "mailto:a@dubmatch.org", ""})
        EXPECT_FALSE(PXUpdateChecker::isWebPage(url)) << url;
}

// ---- The update checker ----

std::string plistDict(std::map<std::string, std::string> const& entries)
{
    std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>";
    for (auto const& [k, val] : entries) s += "<key>" + k + "</key>" + (val.rfind("<dict>", 0) == 0 ? val : "<string>" + val + "</string>");
    return s + "</dict></plist>";
}
std::string dict(std::map<std::string, std::string> const& entries)
{
    std::string s = "<dict>";
    for (auto const& [k, val] : entries) s += "<key>" + k + "</key><string>" + val + "</string>";
    return s + "</dict>";
}

constexpr char const* kBundle = "org.dubmatch.Dubmatch";


class Updates : public ::testing::Test {
protected:
    HttpServer http{{
        {"/newer.plist", plistDict({{kBundle, dict({{"productVersion", "0.2.0"}, {"productPageURL", "https://dubmatch.org/get"}})}})},
        {"/same.plist", plistDict({{kBundle, dict({{"productVersion", "0.1.0"}, {"productPageURL", "https://dubmatch.org/get"}})}})},
        {"/shorter.plist", plistDict({{kBundle, dict({{"productVersion", "0.1"}, {"productPageURL", "p"}})}})},
        {"/older.plist", plistDict({{kBundle, dict({{"productVersion", "0.0.9"}, {"productPageURL", "https://dubmatch.org/old"}})}})},
        {"/notaversion.plist", plistDict({{kBundle, dict({{"productVersion", "the best yet"}, {"productPageURL", "https://x.org"}})}})},
        {"/binary.plist", binaryPlist({bpDict({{1, 2}}), bpString(kBundle), bpDict({{3, 4}, {5, 6}}), bpString("productVersion"),
                                       bpString("0.2.1"), bpString("productPageURL"), bpString("https://x.org/b")},
                                      0)},
        {"/deep.plist", nestedXmlPlist(30000)},
        {"/selfref.plist", selfReferencingBinaryPlist(22)},
        {"/file.plist", plistDict({{kBundle, dict({{"productVersion", "0.2"}, {"productPageURL", "file:///etc/passwd"}})}})},
        {"/script.plist", plistDict({{kBundle, dict({{"productVersion", "0.2"}, {"productPageURL", "javascript:alert(1)"}})}})},
        {"/noscheme.plist", plistDict({{kBundle, dict({{"productVersion", "0.2"}, {"productPageURL", "dubmatch.org/get"}})}})},
        {"/pair.plist", plistDict({{kBundle, dict({{"version", "0.3"}, {"url", "https://dubmatch.org/v3"}})}})},
        {"/half.plist", plistDict({{kBundle, dict({{"productVersion", "0.4"}, {"version", "0.5"}, {"url", "https://dubmatch.org/v5"}})}})},
        {"/nourl.plist", plistDict({{kBundle, dict({{"version", "0.6"}})}})},
        {"/noversion.plist", plistDict({{kBundle, dict({{"url", "x"}})}})},
        {"/missing.plist", plistDict({{"org.other.App", dict({{"productVersion", "9"}})}})},
        {"/malformed.plist", "<plist><dict><key>broken"},
        {"/huge.plist", plistDict({{kBundle, dict({{"productVersion", std::string(3 << 20, 'x')}})}})},
        {"/pad/org.dubmatch.Dubmatch.plist", plistDict({{"productVersion", "0.7"}, {"productPageURL", "https://dubmatch.org/v7"}})},
    }};
    std::vector<QString> opened;

    void SetUp() override
    {
        kit::Defaults::standard().removeValue("PXUpdateCheckerCheckAtStartup");
        kit::Defaults::standard().removeValue("PXUpdateCheckerLastCheckDate");
    }
    PXUpdateChecker::Config config(std::string const& path)
    {
        PXUpdateChecker::Config c;
        c.updatePlistUrl = QString::fromStdString(http.url(path));
        c.bundleIdentifier = kBundle;
        c.bundleVersion = "0.1.0";
        c.displayName = "Dubmatch";
        c.limits.connectTimeoutMs = 1000;
        c.limits.totalTimeoutMs = 1500;
        c.openUrl = [this](QString const& u) { opened.push_back(u); };
        return c;
    }
};

TEST_F(Updates, OutcomesByHowTheCheckStarted)
{
    struct Row {
        char const* path;
        char const* menuTitle;    // "" = nothing shown
        char const* startupTitle; // "" = nothing shown
    };
    const Row rows[] = {
        {"/same.plist", "No update available", ""},
        {"/newer.plist", "A new version is available", "A new version is available"},
        {"/shorter.plist", "No update available", ""}, // 0.1 is our 0.1.0
        {"/older.plist", "No update available", ""},
        {"/binary.plist", "A new version is available", "A new version is available"},
        {"/notaversion.plist", "Could not check for updates", ""},
        {"/deep.plist", "Could not check for updates", ""},
        {"/selfref.plist", "Could not check for updates", ""},
        {"/malformed.plist", "Could not check for updates", ""},
        {"/missing.plist", "Could not check for updates", ""},
        {"/huge.plist", "Could not check for updates", ""},
        {"/noversion.plist", "Could not check for updates", ""},
        {"/absent.plist", "Could not check for updates", ""},
        {"/hang", "Could not check for updates", ""},
    };
    for (auto const& r : rows) {
        for (bool menu : {true, false}) {
            SCOPED_TRACE(std::string(r.path) + (menu ? " from the menu" : " at start-up"));
            AlertRecorder alerts;
            alerts.answer = 1; // Don't Download
            PXUpdateChecker checker(config(r.path));
            if (menu) checker.checkForUpdates();
            else {
                kit::Defaults::standard().setValue("PXUpdateCheckerCheckAtStartup", true);
                kit::Defaults::standard().removeValue("PXUpdateCheckerLastCheckDate");
                checker.awakeFromNib();
            }
            checker.waitForChecks();
            std::string expected = menu ? r.menuTitle : r.startupTitle;
            if (expected.empty()) {
                EXPECT_TRUE(alerts.shown.empty());
            } else {
                ASSERT_EQ(alerts.shown.size(), 1u);
                EXPECT_EQ(alerts.shown[0].title.toStdString(), expected);
            }
        }
    }
    EXPECT_TRUE(opened.empty());
}

TEST_F(Updates, TextsPairsAndDownload)
{
    AlertRecorder alerts;
    alerts.answer = 0; // Download
    {
        PXUpdateChecker checker(config("/newer.plist"));
        checker.checkForUpdates();
        checker.waitForChecks();
    }
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_EQ(alerts.shown[0].message, "Version 0.2.0 of Dubmatch is available. Would you like to download it now?");
    EXPECT_EQ(alerts.shown[0].buttons, (QStringList{"Download", "Don't Download"}));
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0], "https://dubmatch.org/get");

    // "version"/"url" when "productVersion"/"productPageURL" are not both there.
    for (auto [path, version, url] : {std::tuple{"/pair.plist", "0.3", "https://dubmatch.org/v3"},
                                      std::tuple{"/half.plist", "0.5", "https://dubmatch.org/v5"}}) {
        opened.clear();
        alerts.shown.clear();
        PXUpdateChecker checker(config(path));
        checker.checkForUpdates();
        checker.waitForChecks();
        ASSERT_EQ(alerts.shown.size(), 1u) << path;
        EXPECT_TRUE(alerts.shown[0].message.contains(version)) << path;
        ASSERT_EQ(opened.size(), 1u);
        EXPECT_EQ(opened[0].toStdString(), url);
    }
    // A version without a page: the alert, and Download opens nothing.
    opened.clear();
    alerts.shown.clear();
    PXUpdateChecker noUrl(config("/nourl.plist"));
    noUrl.checkForUpdates();
    noUrl.waitForChecks();
    EXPECT_EQ(alerts.shown.size(), 1u);
    EXPECT_TRUE(opened.empty());

    // The error alert's button is the literal OK.
    alerts.shown.clear();
    PXUpdateChecker broken(config("/malformed.plist"));
    broken.checkForUpdates();
    broken.waitForChecks();
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_EQ(alerts.shown[0].buttons, QStringList{"OK"});
    EXPECT_EQ(alerts.shown[0].message,
              "Dubmatch could not find out whether a newer version exists. Check your network connection, or try again later.");
}

TEST_F(Updates, OnlyWebPagesAreOpened)
{
    AlertRecorder alerts;
    alerts.answer = 0; // Download
    for (char const* path : {"/file.plist", "/script.plist", "/noscheme.plist"}) {
        PXUpdateChecker checker(config(path));
        checker.checkForUpdates();
        checker.waitForChecks();
        ASSERT_EQ(alerts.shown.size(), 1u) << path; // the new version is still announced
        EXPECT_EQ(alerts.shown[0].title, "A new version is available");
        // Handed to the alert directly, the address is refused there too.
        checker.notifyAboutUpdateToNewVersion({{"productVersion", "0.2"}, {"productPageURL", "file:///etc/passwd"}});
        alerts.shown.clear();
    }
    EXPECT_TRUE(opened.empty());

    // A failure while opening the page stays on the main thread's side.
    auto c = config("/newer.plist");
    int attempts = 0;
    c.openUrl = [&](QString const&) {
        ++attempts;
        throw std::runtime_error("no browser");
    };
    PXUpdateChecker checker(c);
    checker.checkForUpdates();
    checker.waitForChecks();
    EXPECT_EQ(attempts, 1);
    checker.checkForUpdatesAndNotify(true); // on the main thread the alert is shown directly
    EXPECT_EQ(attempts, 2);
}

TEST_F(Updates, MacPadAddress)
{
    AlertRecorder alerts;
    auto c = config("/none");
    c.macPadUrl = "first line\n" + http.url("/pad/"); // ends in "/": identifier and ".plist" appended
    PXUpdateChecker pad(c);
    ASSERT_TRUE(pad.latestVersionsDictionary());
    EXPECT_EQ(*pad.latestVersionsDictionary()->dict.at("productVersion").string, "0.7");
    c.macPadUrl = http.url("/pad/org.dubmatch.Dubmatch.plist") + "\n"; // used as it is; a last empty line skipped
    EXPECT_TRUE(PXUpdateChecker(c).latestVersionsDictionary());
    c.macPadUrl = http.url("/pad/org.dubmatch.Dubmatch.plis");
    EXPECT_FALSE(PXUpdateChecker(c).latestVersionsDictionary());
    c.macPadUrl = http.url("/pad/x?id=");
    EXPECT_FALSE(PXUpdateChecker(c).latestVersionsDictionary()); // becomes ...?id=org.dubmatch.Dubmatch.plist
    EXPECT_EQ(http.requests("/pad/x?id=org.dubmatch.Dubmatch.plist"), 1);
}

TEST_F(Updates, FirstRunAndTheTenDayRule)
{
    auto& d = kit::Defaults::standard();
    {
        AlertRecorder alerts;
        alerts.answer = 1; // No
        PXUpdateChecker checker(config("/same.plist"));
        checker.awakeFromNib();
        checker.waitForChecks();
        ASSERT_EQ(alerts.shown.size(), 1u);
        EXPECT_EQ(alerts.shown[0].title, "Check for updates automatically?");
        EXPECT_FALSE(d.value("PXUpdateCheckerCheckAtStartup").toBool());
        EXPECT_EQ(http.requests("/same.plist"), 0);
        checker.awakeFromNib(); // asked only once
        EXPECT_EQ(alerts.shown.size(), 1u);
    }
    d.removeValue("PXUpdateCheckerCheckAtStartup");
    {
        AlertRecorder alerts;
        alerts.answer = 0; // Yes: with no last check, one starts at once
        PXUpdateChecker checker(config("/same.plist"));
        double before = PXUpdateChecker::referenceDateNow();
        checker.awakeFromNib();
        checker.waitForChecks();
        EXPECT_EQ(alerts.shown.size(), 1u); // the question; the silent check shows nothing
        EXPECT_EQ(http.requests("/same.plist"), 1);
        EXPECT_GE(d.value("PXUpdateCheckerLastCheckDate").toDouble(), before);
    }
    AlertRecorder alerts;
    PXUpdateChecker checker(config("/same.plist"));
    d.setValue("PXUpdateCheckerLastCheckDate", PXUpdateChecker::referenceDateNow() - 864000 + 2); // not quite ten days
    checker.awakeFromNib();
    checker.waitForChecks();
    EXPECT_EQ(http.requests("/same.plist"), 1);
    d.setValue("PXUpdateCheckerLastCheckDate", PXUpdateChecker::referenceDateNow() - 864001);
    checker.awakeFromNib();
    checker.waitForChecks();
    EXPECT_EQ(http.requests("/same.plist"), 2);

    // The check box stores the flag and resets the last check.
    QCheckBox box;
    checker.setPrefsButton(&box);
    checker.takeBoolFromObject(false);
    EXPECT_FALSE(box.isChecked());
    EXPECT_FALSE(checker.checkAtStartup());
    EXPECT_EQ(d.value("PXUpdateCheckerLastCheckDate").toDouble(), 0.0);
    checker.takeBoolFromObject(true);
    EXPECT_TRUE(box.isChecked());
    EXPECT_TRUE(alerts.shown.empty());
}

TEST_F(Updates, ADeadServerNeverFreezesTheWindow)
{
    AlertRecorder alerts;
    PXUpdateChecker checker(config("/hang"));
    QElapsedTimer clock;
    clock.start();
    checker.checkForUpdates();
    // The main thread goes on serving events while the check waits.
    int ticks = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] { ++ticks; });
    timer.start(20);
    EXPECT_LT(clock.elapsed(), 200);
    checker.waitForChecks();
    EXPECT_GT(ticks, 20); // about 1.5 s of timer ticks went by
    EXPECT_LT(clock.elapsed(), 5000);
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_EQ(alerts.shown[0].title, "Could not check for updates");
}

// ---- The feedback sender ----

// Presses Send and serves the main thread's events until the send ends;
// whether it was sent, or nullopt when it never ended.
std::optional<bool> sendAndWait(PXFeedbackProvider& feedback)
{
    QSignalSpy finished(&feedback, &PXFeedbackProvider::sendFinished);
    feedback.sendFeedbackButtonAction();
    if (!finished.wait(20000)) return std::nullopt;
    return finished.at(0).at(0).toBool();
}

TEST(Feedback, SendsByMailAndClearsTheWindow)
{
    SmtpSink sink;
    kit::Defaults::standard().setValue("PXFeedbackSMTPServer", QString::fromStdString(sink.url()));
    PXFeedbackProvider feedback;
    feedback.sendFeedback();
    feedback.sendFeedback(); // the same window comes forward
    EXPECT_EQ(feedback.windowLoads(), 1);
    ASSERT_TRUE(feedback.feedbackWindow()->isVisible());
    feedback.subjectField()->setCurrentIndex(2);
    feedback.messageText()->setPlainText("The loop stops.\n.A line with a point\nThanks");
    AlertRecorder alerts;
    EXPECT_EQ(sendAndWait(feedback), true);
    ASSERT_EQ(alerts.shown.size(), 1u); // the result
    EXPECT_EQ(alerts.shown[0].title, "Message sent");
    EXPECT_EQ(alerts.shown[0].informative, "Thank you for your feedback.");
    EXPECT_EQ(alerts.shown[0].buttons, QStringList{"OK"});
    auto messages = sink.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].to, "<feedback@dubmatch.org>");
    EXPECT_NE(messages[0].data.find("Subject: [Dubmatch] Question\r\n"), std::string::npos) << messages[0].data;
    EXPECT_NE(messages[0].data.find("The loop stops.\r\n..A line with a point\r\nThanks"), std::string::npos) << messages[0].data;
    EXPECT_FALSE(feedback.feedbackWindow()->isVisible());
    EXPECT_TRUE(feedback.messageText()->toPlainText().isEmpty());
    EXPECT_EQ(feedback.subjectField()->currentIndex(), 0);
    EXPECT_FALSE(feedback.isSending());
    EXPECT_FALSE(feedback.progressBar()->isVisibleTo(feedback.feedbackWindow()));

    // An empty subject: the prefix alone.
    feedback.sendFeedback();
    feedback.subjectField()->setEditText("");
    feedback.messageText()->setPlainText("x");
    EXPECT_EQ(sendAndWait(feedback), true);
    ASSERT_EQ(sink.messages().size(), 2u);
    EXPECT_NE(sink.messages()[1].data.find("Subject: [Dubmatch] \r\n"), std::string::npos);
    kit::Defaults::standard().removeValue("PXFeedbackSMTPServer");
}

TEST(Feedback, ASlowServerNeverFreezesTheWindow)
{
    SmtpSink slow(false, 1500);
    kit::Defaults::standard().setValue("PXFeedbackSMTPServer", QString::fromStdString(slow.url()));
    PXFeedbackProvider feedback;
    feedback.sendFeedback();
    feedback.messageText()->setPlainText("Sent while the window goes on.");
    AlertRecorder alerts;
    int ticks = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] { ++ticks; });
    timer.start(20);
    QSignalSpy finished(&feedback, &PXFeedbackProvider::sendFinished);
    QElapsedTimer clock;
    clock.start();
    feedback.sendFeedbackButtonAction();
    EXPECT_LT(clock.elapsed(), 200); // returns at once
    // While it is on its way: locked, with the progress shown.
    EXPECT_TRUE(feedback.isSending());
    EXPECT_TRUE(feedback.progressBar()->isVisible());
    EXPECT_TRUE(feedback.messageText()->isReadOnly());
    EXPECT_FALSE(feedback.subjectField()->isEnabled());
    ASSERT_TRUE(finished.wait(10000));
    EXPECT_GE(clock.elapsed(), 1500);
    EXPECT_GT(ticks, 30); // the timer kept ticking through the 1.5 s wait
    EXPECT_TRUE(finished.at(0).at(0).toBool());
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_EQ(alerts.shown[0].title, "Message sent");
    EXPECT_EQ(slow.messages().size(), 1u);
    EXPECT_FALSE(feedback.progressBar()->isVisible());
    EXPECT_FALSE(feedback.messageText()->isReadOnly());

    // Send pressed again while sending cancels: no alert, nothing delivered,
    // the window keeps the text.
    feedback.sendFeedback();
    feedback.messageText()->setPlainText("Never mind.");
    alerts.shown.clear();
    finished.clear();
    feedback.sendFeedbackButtonAction();
    QTimer::singleShot(300, [&] { feedback.sendFeedbackButtonAction(); });
    ASSERT_TRUE(finished.wait(10000));
    EXPECT_FALSE(finished.at(0).at(0).toBool());
    EXPECT_TRUE(alerts.shown.empty());
    EXPECT_EQ(slow.messages().size(), 1u);
    EXPECT_TRUE(feedback.feedbackWindow()->isVisible());
    EXPECT_EQ(feedback.messageText()->toPlainText(), "Never mind.");

    // Going away in the middle of a send cancels it and waits for the thread.
    {
        PXFeedbackProvider leaving;
        leaving.sendFeedback();
        leaving.messageText()->setPlainText("Bye.");
        leaving.sendFeedbackButtonAction();
        EXPECT_TRUE(leaving.isSending());
    }
    QTest::qWait(50); // its queued outcome must not reach the destroyed object
    EXPECT_TRUE(alerts.shown.empty());
    kit::Defaults::standard().removeValue("PXFeedbackSMTPServer");
}

TEST(Feedback, AFailedSendKeepsEverything)
{
    SmtpSink refusing(true);
    for (std::string server : {refusing.url(), std::string("smtp://127.0.0.1:1")}) { // refusing, then absent
        SCOPED_TRACE(server);
        kit::Defaults::standard().setValue("PXFeedbackSMTPServer", QString::fromStdString(server));
        PXFeedbackProvider feedback;
        feedback.sendFeedback();
        feedback.subjectField()->setCurrentIndex(1);
        feedback.messageText()->setPlainText("Please keep this text.");
        AlertRecorder alerts;
        EXPECT_EQ(sendAndWait(feedback), false);
        ASSERT_EQ(alerts.shown.size(), 1u);
        EXPECT_EQ(alerts.shown[0].title, "Couldn't send message");
        EXPECT_EQ(alerts.shown[0].informative,
                  "An error occurred while trying to send off your bug report, try using your e-mail client instead.");
        EXPECT_EQ(alerts.shown[0].buttons, QStringList{"OK"});
        EXPECT_EQ(alerts.shown[0].sheetParent, feedback.feedbackWindow());
        EXPECT_TRUE(feedback.feedbackWindow()->isVisible());
        EXPECT_EQ(feedback.messageText()->toPlainText(), "Please keep this text.");
        EXPECT_EQ(feedback.subjectField()->currentIndex(), 1);
        EXPECT_FALSE(feedback.messageText()->isReadOnly());
    }
    EXPECT_TRUE(refusing.messages().empty());
    kit::Defaults::standard().removeValue("PXFeedbackSMTPServer");

    // A reporter that throws stops the transfer inside libcurl's callback.
    SmtpSink sink;
    net::Mail mail{sink.url(), "a@dubmatch.org", "b@dubmatch.org", "s", "b"};
    std::string error;
    EXPECT_FALSE(net::sendMail(mail, &error, 5000, [](std::size_t, std::size_t) -> bool { throw std::runtime_error("x"); }));
    EXPECT_EQ(error, "cancelled");
    EXPECT_TRUE(sink.messages().empty());

    std::vector<QString> opened;
    PXFeedbackProvider feedback;
    feedback.setOpenUrl([&](QString const& u) { opened.push_back(u); });
    feedback.openURL();
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0], "https://dubmatch.org/feedback");
}

} // namespace
