// The update checker: asks once whether to check at start-up, checks in the
// background at most every ten days (and on demand), and tells the user.
#pragma once

#include "Fetch.h"

#include <QCheckBox>
#include <QObject>
#include <QPointer>
#include <QString>

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <thread>
#include <vector>

class PXUpdateChecker : public QObject {
    Q_OBJECT
public:
    // Where the update information comes from and what it is compared
    // with; by default from the application's resources.
    struct Config {
        std::optional<std::string> macPadUrl; // the text of MacPAD.url, if any
        QString updatePlistUrl;               // the localized "UPDATE_PLIST_URL"
        QString bundleIdentifier = "org.dubmatch.Dubmatch";
        QString bundleVersion;                // "CFBundleVersion"
        QString displayName = "Dubmatch";
        net::FetchLimits limits;
        std::function<void(QString const&)> openUrl; // default: the desktop's browser
        static Config fromResources();
    };
    // An outcome handed to the main thread: empty (up to date), a version
    // and a page, or an error.
    using Outcome = std::map<std::string, std::string>;

    explicit PXUpdateChecker(Config config = Config::fromResources());
    ~PXUpdateChecker() override;

    // The start-up logic: the first-run question, then a silent check when
    // the last one is more than ten days old.
    void awakeFromNib();
    // A check from the menu: every outcome is shown.
    void checkForUpdates();
    // The update information, or nullopt with `error` set.
    std::optional<net::PlistValue> latestVersionsDictionary(std::string* error = nullptr) const;
    // The check itself (background thread); `notify` shows every outcome.
    // Only a published version newer than ours is announced; an older or
    // equal one counts as up to date.
    void checkForUpdatesAndNotify(bool notify);
    // Shows the alert for an outcome (main thread). Download opens the page
    // only when it is an http or https address.
    void notifyAboutUpdateToNewVersion(Outcome const& outcome);
    // The preferences check box.
    void setPrefsButton(QCheckBox* box) { prefsButton_ = box; }
    void takeBoolFromObject(bool on) { setCheckAtStartup(on); }
    void setCheckAtStartup(bool on);
    bool checkAtStartup() const;
    // Waits for the background checks that are running (tests, shutdown).
    void waitForChecks();

    // Whether `published` is a newer version than `running`; nullopt when
    // either is not a version number (major[.minor[.subminor][marker build]],
    // each number at most 32767).
    static std::optional<bool> isNewerVersion(std::string const& published, std::string const& running);
    // Whether the browser may be given `url`: an http or https address with
    // a host. Anything else (file:, javascript:, no scheme) is refused.
    static bool isWebPage(std::string const& url);

    // Seconds since 1 January 2001, 00:00 GMT.
    static double referenceDateNow();
    static constexpr double kInterval = 864000; // ten days

private:
    void startCheck(bool notify);
    // Runs a check and reports any failure instead of letting it leave the thread.
    void runCheck(bool notify) noexcept;
    // Shows `outcome` on the main thread and waits until the alert is closed.
    void hand(Outcome const& outcome);
    QString text(QString const& key) const;
    Config config_;
    QPointer<QCheckBox> prefsButton_;
    std::vector<std::thread> threads_;
    std::atomic<int> running_{0};
    std::atomic<bool> closing_{false};
};
