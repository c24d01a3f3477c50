#include "DMAppDelegate.h"

#include "DMApplication.h"
#include "DMDocumentController.h"
#include "MovieDoc.h"
#include "PreferencesWindow.h"
#include "ReadMeWindowController.h"
#include "ValueTransformers.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <plist/plist.h>

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
    if (!preferencesWindow_) preferencesWindow_ = new PreferencesWindow;
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
    QFile file(":/Info.plist");
    if (!file.open(QIODevice::ReadOnly)) return "Dubmatch";
    QByteArray data = file.readAll();
    plist_t root = nullptr;
    plist_from_memory(data.constData(), static_cast<std::uint32_t>(data.size()), &root);
    if (!root) return "Dubmatch";
    QString name = "Dubmatch";
    if (plist_t node = plist_dict_get_item(root, "CFBundleName"); node && plist_get_node_type(node) == PLIST_STRING) {
        char* s = nullptr;
        plist_get_string_val(node, &s);
        if (s) name = QString::fromUtf8(s);
        std::free(s);
    }
    plist_free(root);
    return name;
}
