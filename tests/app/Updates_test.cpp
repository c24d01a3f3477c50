// The start-up version check, the update checker against a real HTTP server
// and the feedback sender against a real SMTP sink, both on loopback.
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
#include <QTimer>

#include <gtest/gtest.h>

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
        {"/shorter.plist", "A new version is available", "A new version is available"}, // plain string comparison
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
    feedback.sendFeedbackButtonAction();
    EXPECT_TRUE(alerts.shown.empty());
    auto messages = sink.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].to, "<feedback@dubmatch.org>");
    EXPECT_NE(messages[0].data.find("Subject: [Dubmatch] Question\r\n"), std::string::npos) << messages[0].data;
    EXPECT_NE(messages[0].data.find("The loop stops.\r\n..A line with a point\r\nThanks"), std::string::npos) << messages[0].data;
    EXPECT_FALSE(feedback.feedbackWindow()->isVisible());
    EXPECT_TRUE(feedback.messageText()->toPlainText().isEmpty());
    EXPECT_EQ(feedback.subjectField()->currentIndex(), 0);

    // An empty subject: the prefix alone.
    feedback.sendFeedback();
    feedback.subjectField()->setEditText("");
    feedback.messageText()->setPlainText("x");
    feedback.sendFeedbackButtonAction();
    ASSERT_EQ(sink.messages().size(), 2u);
    EXPECT_NE(sink.messages()[1].data.find("Subject: [Dubmatch] \r\n"), std::string::npos);
    kit::Defaults::standard().removeValue("PXFeedbackSMTPServer");
}

TEST(Feedback, AFailedSendKeepsEverything)
{
    std::string refusingUrl;
    SmtpSink refusing(true);
    for (std::string server : {refusing.url(), std::string("smtp://127.0.0.1:1")}) { // refusing, then absent
        SCOPED_TRACE(server);
        kit::Defaults::standard().setValue("PXFeedbackSMTPServer", QString::fromStdString(server));
        PXFeedbackProvider feedback;
        feedback.sendFeedback();
        feedback.subjectField()->setCurrentIndex(1);
        feedback.messageText()->setPlainText("Please keep this text.");
        AlertRecorder alerts;
        feedback.sendFeedbackButtonAction();
        ASSERT_EQ(alerts.shown.size(), 1u);
        EXPECT_EQ(alerts.shown[0].title, "Couldn't send message");
        EXPECT_EQ(alerts.shown[0].informative,
                  "An error occurred while trying to send off your bug report, try using your e-mail client instead.");
        EXPECT_EQ(alerts.shown[0].buttons, QStringList{"OK"});
        EXPECT_EQ(alerts.shown[0].sheetParent, feedback.feedbackWindow());
        EXPECT_TRUE(feedback.feedbackWindow()->isVisible());
        EXPECT_EQ(feedback.messageText()->toPlainText(), "Please keep this text.");
        EXPECT_EQ(feedback.subjectField()->currentIndex(), 1);
    }
    EXPECT_TRUE(refusing.messages().empty());
    kit::Defaults::standard().removeValue("PXFeedbackSMTPServer");

    std::vector<QString> opened;
    PXFeedbackProvider feedback;
    feedback.setOpenUrl([&](QString const& u) { opened.push_back(u); });
    feedback.openURL();
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0], "https://dubmatch.org/feedback");
}

} // namespace
