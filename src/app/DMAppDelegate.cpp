#include "DMAppDelegate.h"

#include "DMApplication.h"
#include "DMDocumentController.h"
#include "MovieDoc.h"
#include "PreferencesWindow.h"
#include "ReadMeWindowController.h"
#include "ValueTransformers.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include "PXFeedbackProvider.h"
#include "PXUpdateChecker.h"
#include "Resources.h"

#include <QEventLoop>
#include <QFile>

namespace {
const char* const kDamaged = "It appears that Dubmatch has been damaged. Please download a new copy.";

void damagedAlert(QString const& title)
{
    kit::AlertSpec a;
    a.title = title;
    a.message = title;
    a.informative = kDamaged;
    kit::runAlert(a);
}
} // namespace

void DMAppDelegate::initialize()
{
    static bool done = false;
    if (done) return;
    done = true;
    setupDefaults();
    registerValueTransformers();
}

bool DMAppDelegate::setupDefaults()
{
    QFile file(":/UserDefaults.plist");
    return file.open(QIODevice::ReadOnly) && kit::Defaults::standard().registerDefaultsFromPlist(file.readAll());
}

DMAppDelegate::DMAppDelegate() { initialize(); }

DMAppDelegate::~DMAppDelegate()
{
    delete updateChecker_;
    delete feedback_;
    delete readMe_;
    delete preferencesWindow_.data();
}

void DMAppDelegate::applicationDidFinishLaunching()
{
    if (auto* app = DMApplication::instance()) app->muckWithMenu();
}

MovieDoc* DMAppDelegate::openDocumentWithContentsOfFile(QString const& path, bool display)
{
    auto* dc = kit::DocumentController::shared();
    return dc ? qobject_cast<MovieDoc*>(dc->openDocumentWithContentsOfFile(path, display)) : nullptr;
}

void DMAppDelegate::showPreferences()
{
    if (!preferencesWindow_) {
        auto* prefs = new PreferencesWindow;
        preferencesWindow_ = prefs;
        updateChecker()->setPrefsButton(prefs->updatesBox());
        connect(prefs->updatesBox(), &QCheckBox::clicked, this, [this](bool on) { updateChecker()->takeBoolFromObject(on); });
    }
    if (!preferencesWindow_) {
        damagedAlert("Preferences could not load");
        return;
    }
    static_cast<PreferencesWindow*>(preferencesWindow_.data())->refresh();
    preferencesWindow_->show();
    preferencesWindow_->raise();
    preferencesWindow_->activateWindow();
}

void DMAppDelegate::showReadMe()
{
    if (!readMe_) {
        if (!QFile::exists(":/ReadMe.md")) {
            damagedAlert("Read Me file could not load");
            return;
        }
        readMe_ = new ReadMeWindowController;
    }
    readMe_->showWindow();
    // From inside a modal dialog the Read Me runs modally until it closes.
    if (QApplication::activeModalWidget() && QApplication::activeModalWidget() != readMe_->window()) {
        QWidget* w = readMe_->window();
        w->setWindowModality(Qt::ApplicationModal);
        w->hide();
        w->show();
        QEventLoop loop;
        struct CloseWatch : QObject {
            QEventLoop* loop;
            explicit CloseWatch(QEventLoop* l) : loop(l) {}
            bool eventFilter(QObject*, QEvent* e) override
            {
                if (e->type() == QEvent::Close || e->type() == QEvent::Hide) loop->quit();
                return false;
            }
        } watch(&loop);
        w->installEventFilter(&watch);
        loop.exec();
        w->removeEventFilter(&watch);
        w->setWindowModality(Qt::NonModal);
    }
}

QString DMAppDelegate::bundleName()
{
    QString name = resources::infoString("CFBundleName");
    return name.isEmpty() ? QString("Dubmatch") : name;
}

PXUpdateChecker* DMAppDelegate::updateChecker()
{
    if (!updateChecker_) updateChecker_ = new PXUpdateChecker;
    return updateChecker_;
}

PXFeedbackProvider* DMAppDelegate::feedbackProvider()
{
    if (!feedback_) feedback_ = new PXFeedbackProvider;
    return feedback_;
}
