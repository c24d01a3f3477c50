#include "Document.h"

#include "Alert.h"

#include <QApplication>
#include <QCloseEvent>
#include <QFileInfo>

namespace kit {

WindowController::WindowController(QString nibName, QWidget* window) : nibName_(std::move(nibName)), window_(window)
{
    window_->installEventFilter(this);
}

WindowController::~WindowController()
{
    if (window_) delete window_.data();
}

void WindowController::showWindow()
{
    if (!window_) return;
    window_->show();
    window_->raise();
    window_->activateWindow();
}

bool WindowController::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == window_ && event->type() == QEvent::Close && shouldCloseDocument_ && document_ && !document_->isClosed()) {
        event->ignore();
        QPointer<Document> doc = document_;
        doc->canClose([doc](bool ok) {
            if (ok && doc) doc->close();
        });
        return true;
    }
    return QObject::eventFilter(watched, event);
}

Document::Document() = default;

Document::~Document()
{
    if (auto* dc = DocumentController::shared()) dc->removeDocument(this);
    for (auto& wc : controllers_)
        if (wc) delete wc.data();
}

void Document::setFileName(QString path)
{
    fileName_ = std::move(path);
    updateWindowTitles();
    emit fileNameChanged(fileName_);
}

QStringList Document::fileExtensionsFromType(QString const&) const { return {}; }

void Document::updateChangeCount(ChangeType change)
{
    bool was = isDocumentEdited();
    switch (change) {
    case ChangeType::Done: ++changeCount_; break;
    case ChangeType::Undone: --changeCount_; break;
    case ChangeType::Cleared: changeCount_ = 0; break;
    }
    if (was != isDocumentEdited()) {
        updateWindowTitles();
        emit editedChanged(isDocumentEdited());
    }
}

void Document::changesSaved(int saved)
{
    bool was = isDocumentEdited();
    changeCount_ -= saved;
    if (was != isDocumentEdited()) {
        updateWindowTitles();
        emit editedChanged(isDocumentEdited());
    }
}

QString Document::displayName() const
{
    return fileName_.isEmpty() ? QStringLiteral("Untitled") : QFileInfo(fileName_).fileName();
}

void Document::addWindowController(WindowController* wc)
{
    wc->setDocument(this);
    controllers_.push_back(wc);
    updateWindowTitles();
}

QList<WindowController*> Document::windowControllers() const
{
    QList<WindowController*> out;
    for (auto const& wc : controllers_)
        if (wc) out.push_back(wc.data());
    return out;
}

QWidget* Document::windowForSheet() const
{
    auto wcs = windowControllers();
    return wcs.isEmpty() ? nullptr : wcs.front()->window();
}

void Document::showWindows()
{
    for (auto* wc : windowControllers()) wc->showWindow();
}

void Document::updateWindowTitles()
{
    // The edited state shows as "[*]" in the title (Qt's convention).
    for (auto* wc : windowControllers()) {
        if (!wc->window()) continue;
        if (wc == windowControllers().front()) {
            wc->window()->setWindowTitle(displayName() + "[*]");
            wc->window()->setWindowModified(isDocumentEdited());
        }
    }
}

void Document::saveDocument()
{
    if (!fileName_.isEmpty() && writableTypes().contains(fileType_)) saveToFile(fileName_, SaveOperation::Save);
    else saveDocumentAs();
}

void Document::saveDocumentAs()
{
    runModalSavePanel(SaveOperation::SaveAs, [](bool) {});
}

void Document::saveDocumentTo()
{
    runModalSavePanel(SaveOperation::SaveTo, [](bool) {});
}

void Document::runModalSavePanel(SaveOperation op, std::function<void(bool)> done)
{
    SavePanelSpec spec;
    spec.title = op == SaveOperation::SaveTo ? "Save To" : "Save As";
    QFileInfo info(fileName_);
    spec.directory = info.absolutePath();
    QStringList exts = writableTypes().isEmpty() ? QStringList{} : fileExtensionsFromType(writableTypes().front());
    spec.proposedName = exts.isEmpty() ? info.fileName() : info.completeBaseName() + "." + exts.front();
    if (!exts.isEmpty()) spec.requiredExtension = exts.front();
    spec.sheetParent = windowForSheet();
    QString path = runSavePanel(spec);
    if (path.isEmpty()) {
        done(false);
        return;
    }
    done(saveToFile(path, op));
}

bool Document::saveToFile(QString const& path, SaveOperation op)
{
    QString type = writableTypes().isEmpty() ? fileType_ : writableTypes().front();
    if (op == SaveOperation::Save) type = fileType_;
    int before = changeCount_;
    if (!writeToFile(path, type, op)) return false;
    if (op != SaveOperation::SaveTo) {
        setFileType(type);
        setFileName(path);
        changesSaved(before);
    }
    return true;
}

QString Document::saveChangesMessage(QString const& name)
{
    return QString::fromUtf8("Do you want to save the changes you made in the document \u201C%1\u201D?").arg(name);
}

QString Document::saveChangesInformative() { return QString::fromUtf8("Your changes will be lost if you don\u2019t save them."); }

QStringList Document::saveChangesButtons() { return {"Save", "Cancel", QString::fromUtf8("Don\u2019t Save")}; }

void Document::canClose(std::function<void(bool)> done)
{
    if (!isDocumentEdited()) {
        done(true);
        return;
    }
    AlertSpec spec;
    spec.message = saveChangesMessage(displayName());
    spec.informative = saveChangesInformative();
    spec.buttons = saveChangesButtons();
    spec.sheetParent = windowForSheet();
    int answer = runAlert(spec);
    if (answer == 1) done(false);
    else if (answer == 2) done(true);
    else {
        saveDocument();
        done(!isDocumentEdited());
    }
}

void Document::close()
{
    if (closed_) return;
    closed_ = true;
    emit documentClosed();
    if (auto* dc = DocumentController::shared()) dc->removeDocument(this);
    for (auto& wc : controllers_) {
        if (!wc) continue;
        if (wc->window()) {
            wc->window()->removeEventFilter(wc);
            wc->window()->hide();
        }
    }
    deleteLater();
}

namespace {
DocumentController* sharedController = nullptr;
}

DocumentController::DocumentController()
{
    if (!sharedController) sharedController = this;
}

DocumentController::~DocumentController()
{
    auto docs = documents_;
    documents_.clear();
    for (auto* d : docs) delete d;
    if (sharedController == this) sharedController = nullptr;
}

DocumentController* DocumentController::shared() { return sharedController; }

Document* DocumentController::documentForFileName(QString const& path) const
{
    QString canonical = QFileInfo(path).canonicalFilePath();
    for (auto* d : documents_)
        if (!d->fileName().isEmpty() && QFileInfo(d->fileName()).canonicalFilePath() == canonical) return d;
    return nullptr;
}

void DocumentController::addDocument(Document* d)
{
    if (!documents_.contains(d)) documents_.push_back(d);
}

void DocumentController::removeDocument(Document* d) { documents_.removeAll(d); }

Document* DocumentController::currentDocument() const
{
    QWidget* active = QApplication::activeWindow();
    for (auto* d : documents_)
        for (auto* wc : d->windowControllers())
            if (wc->window() && (wc->window() == active || wc->window()->isAncestorOf(active))) return d;
    return nullptr;
}

void DocumentController::openDocument()
{
    OpenPanelSpec spec;
    spec.title = "Open";
    spec.shouldShow = [this](QString const& path) { return panelShouldShowFilename(path); };
    QString path = runOpenPanel(spec);
    if (!path.isEmpty()) openDocumentWithContentsOfFile(path, true);
}

bool DocumentController::panelShouldShowFilename(QString const&) const { return true; }

} // namespace kit
