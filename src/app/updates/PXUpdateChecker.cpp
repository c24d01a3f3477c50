#include "PXUpdateChecker.h"

#include "Resources.h"
#include "version.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDesktopServices>
#include <QFile>
#include <QThread>
#include <QUrl>

#include <iostream>
#include <regex>

namespace {
constexpr char const* kCheckAtStartup = "PXUpdateCheckerCheckAtStartup";
constexpr char const* kLastCheckDate = "PXUpdateCheckerLastCheckDate";

void report(std::string const& what) { std::cerr << "Update check: " << what << std::endl; }

// A version number exactly as version_t reads it, with every number small
// enough to be kept whole (version_t keeps only the low 16 bits).
std::optional<version_t> strictVersion(std::string const& s)
{
    static const std::regex grammar(R"(([0-9]+)(\.([0-9]+)(\.([0-9]+))?((d|a|\xCE\xB1|b|\xCE\xB2|rc|r)([0-9]+))?)?)");
    std::smatch m;
    if (!std::regex_match(s, m, grammar)) return std::nullopt;
    for (int group : {1, 3, 5, 8})
        if (m[group].matched && (m[group].length() > 9 || std::stol(m[group].str()) > 32767)) return std::nullopt;
    return version_t(s);
}
} // namespace

std::optional<bool> PXUpdateChecker::isNewerVersion(std::string const& published, std::string const& running)
{
    auto p = strictVersion(published), r = strictVersion(running);
    if (!p || !r) return std::nullopt;
    return *r < *p;
}

bool PXUpdateChecker::isWebPage(std::string const& url)
{
    QUrl u(QString::fromStdString(url), QUrl::StrictMode);
    return u.isValid() && (u.scheme() == "http" || u.scheme() == "https") && !u.host().isEmpty();
}

PXUpdateChecker::Config PXUpdateChecker::Config::fromResources()
{
    Config c;
    QFile pad(":/MacPAD.url");
    if (pad.open(QIODevice::ReadOnly)) c.macPadUrl = pad.readAll().toStdString();
    c.updatePlistUrl = resources::localized("UPDATE_PLIST_URL");
    c.bundleIdentifier = resources::infoString("CFBundleIdentifier");
    c.bundleVersion = resources::infoString("CFBundleVersion");
    c.displayName = resources::infoString("CFBundleName");
    return c;
}

PXUpdateChecker::PXUpdateChecker(Config config) : config_(std::move(config))
{
    if (!config_.openUrl)
        config_.openUrl = [](QString const& url) { QDesktopServices::openUrl(QUrl(url, QUrl::StrictMode)); };
}

PXUpdateChecker::~PXUpdateChecker()
{
    closing_ = true;
    waitForChecks();
}

void PXUpdateChecker::waitForChecks()
{
    // A check may be waiting for the main thread to show its alert: keep
    // serving events until every thread is done.
    while (running_.load() > 0) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    for (auto& t : threads_)
        if (t.joinable()) t.join();
    threads_.clear();
}

QString PXUpdateChecker::text(QString const& key) const { return resources::localized(key, "PXUpdateChecker"); }

double PXUpdateChecker::referenceDateNow()
{
    static const QDateTime reference(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC);
    return static_cast<double>(reference.msecsTo(QDateTime::currentDateTimeUtc())) / 1000.0;
}

bool PXUpdateChecker::checkAtStartup() const
{
    QVariant v = kit::Defaults::standard().value(kCheckAtStartup);
    return v.isValid() ? v.toBool() : true;
}

void PXUpdateChecker::setCheckAtStartup(bool on)
{
    kit::Defaults::standard().setValue(kCheckAtStartup, on);
    if (prefsButton_) prefsButton_->setChecked(on);
    kit::Defaults::standard().setValue(kLastCheckDate, 0.0);
}

void PXUpdateChecker::awakeFromNib()
{
    QVariant flag = kit::Defaults::standard().value(kCheckAtStartup);
    QVariant last = kit::Defaults::standard().value(kLastCheckDate);
    bool on;
    if (!flag.isValid()) {
        kit::AlertSpec a;
        a.title = text("CHECK_FOR_UPDATES_TITLE");
        a.message = text("CHECK_FOR_UPDATES_TEXT").arg(config_.displayName);
        a.buttons = {text("Yes"), text("No")};
        a.icon = QMessageBox::Question;
        on = kit::runAlert(a) == 0;
        kit::Defaults::standard().setValue(kCheckAtStartup, on);
    } else {
        on = flag.toBool();
    }
    if (prefsButton_) prefsButton_->setChecked(on);
    if (!on) return;
    double lastCheck = last.isValid() ? last.toDouble() : -1e18; // the distant past
    if (referenceDateNow() - lastCheck > kInterval) {
        startCheck(false);
        kit::Defaults::standard().setValue(kLastCheckDate, referenceDateNow());
    }
}

void PXUpdateChecker::checkForUpdates() { startCheck(true); }

void PXUpdateChecker::startCheck(bool notify)
{
    ++running_;
    try {
        threads_.emplace_back([this, notify] {
            runCheck(notify);
            --running_;
        });
    } catch (std::exception const& e) { // no thread could be started
        --running_;
        report(std::string("cannot start: ") + e.what());
        if (notify) hand({{"isError", "1"}});
    }
}

void PXUpdateChecker::runCheck(bool notify) noexcept
{
    try {
        checkForUpdatesAndNotify(notify);
        return;
    } catch (std::exception const& e) {
        report(std::string("failed: ") + e.what());
    } catch (...) {
        report("failed");
    }
    if (!notify) return;
    try {
        hand({{"isError", "1"}});
    } catch (...) {
        report("the error alert could not be shown");
    }
}

void PXUpdateChecker::hand(Outcome const& outcome)
{
    if (closing_) return;
    auto show = [this, outcome] {
        try {
            notifyAboutUpdateToNewVersion(outcome);
        } catch (std::exception const& e) {
            report(std::string("alert failed: ") + e.what());
        } catch (...) {
            report("alert failed");
        }
    };
    if (QThread::currentThread() == thread()) show(); // already on the main thread
    else QMetaObject::invokeMethod(this, show, Qt::BlockingQueuedConnection);
}

std::optional<net::PlistValue> PXUpdateChecker::latestVersionsDictionary(std::string* error) const
{
    if (config_.macPadUrl) {
        // The last line of MacPAD.url is the address (the last non-empty one
        // when the file ends with a line feed).
        std::string text = *config_.macPadUrl, url;
        std::size_t start = 0;
        while (start <= text.size()) {
            std::size_t end = text.find('\n', start);
            std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (!line.empty()) url = line;
            if (end == std::string::npos) break;
            start = end + 1;
        }
        if (url.empty()) {
            if (error) *error = "MacPAD.url holds no address";
            return std::nullopt;
        }
        if (url.back() == '/' || url.back() == '=') url += config_.bundleIdentifier.toStdString() + ".plist";
        return net::dictionaryWithContentsOfURL(url, config_.limits, error);
    }
    auto all = net::dictionaryWithContentsOfURL(config_.updatePlistUrl.toStdString(), config_.limits, error);
    if (!all) return std::nullopt;
    auto it = all->dict.find(config_.bundleIdentifier.toStdString());
    if (it == all->dict.end() || !it->second.isDict) {
        if (error) *error = "no entry for " + config_.bundleIdentifier.toStdString();
        return std::nullopt;
    }
    return std::move(it->second);
}

void PXUpdateChecker::checkForUpdatesAndNotify(bool notify)
{
    std::string error;
    auto info = latestVersionsDictionary(&error);
    if (info) {
        auto str = [&](char const* key) -> std::optional<std::string> {
            auto it = info->dict.find(key);
            return it != info->dict.end() && it->second.string ? it->second.string : std::nullopt;
        };
        std::optional<std::string> version = str("productVersion"), page = str("productPageURL");
        if (!version || !page) {
            version = str("version");
            page = str("url");
        }
        std::optional<bool> newer = version ? isNewerVersion(*version, config_.bundleVersion.toStdString()) : std::nullopt;
        if (newer && !*newer) { // ours is as new or newer
            if (notify) hand({});
            return;
        }
        if (newer) {
            Outcome o{{"productVersion", *version}};
            if (page && isWebPage(*page)) o["productPageURL"] = *page;
            else if (page) report("download page refused (not an http or https address): " + *page);
            hand(o);
            return;
        }
        error = version ? "not a version number: " + *version : "the update information names no version";
    }
    report(error);
    if (notify) hand({{"isError", "1"}});
}

void PXUpdateChecker::notifyAboutUpdateToNewVersion(Outcome const& outcome)
{
    bool error = outcome.count("isError") && outcome.at("isError") == "1";
    auto version = outcome.find("productVersion");
    kit::AlertSpec a;
    if (!error && version == outcome.end()) {
        a.title = text("UP_TO_DATE_TITLE");
        a.message = text("UP_TO_DATE_TEXT").arg(config_.displayName);
        a.buttons = {text("OK")};
        a.icon = QMessageBox::Information;
        kit::runAlert(a);
    } else if (!error) {
        a.title = text("NEW_VERSION_TITLE");
        a.message = text("NEW_VERSION_TEXT").arg(config_.displayName, QString::fromStdString(version->second));
        a.buttons = {text("Download"), text("Don't Download")};
        a.icon = QMessageBox::Information;
        if (kit::runAlert(a) == 0) {
            auto page = outcome.find("productPageURL");
            if (page != outcome.end() && isWebPage(page->second)) config_.openUrl(QString::fromStdString(page->second));
        }
    } else {
        a.title = text("UPDATE_ERROR_TITLE");
        a.message = text("UPDATE_ERROR_TEXT").arg(config_.displayName);
        a.buttons = {"OK"};
        kit::runAlert(a);
    }
}
