// The document framework: documents with a file, a type, a change count and
// windows; window controllers; the document controller.
#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QWidget>

#include <functional>

namespace kit {

enum class ChangeType { Done, Undone, Cleared };
enum class SaveOperation { Save = 0, SaveAs = 1, SaveTo = 2 };

class Document;

// Owns one window (built from code), named after its interface file.
class WindowController : public QObject {
    Q_OBJECT
public:
    WindowController(QString nibName, QWidget* window);
    ~WindowController() override;
    QString const& windowNibName() const { return nibName_; }
    QWidget* window() const { return window_; }
    Document* document() const { return document_; }
    void setDocument(Document* d) { document_ = d; }
    // Closing the window closes the document (after the save question).
    void setShouldCloseDocument(bool on) { shouldCloseDocument_ = on; }
    void showWindow();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QString nibName_;
    QPointer<QWidget> window_;
    Document* document_ = nullptr;
    bool shouldCloseDocument_ = false;
};

class Document : public QObject {
    Q_OBJECT
public:
    Document();
    ~Document() override;

    QString const& fileName() const { return fileName_; }
    void setFileName(QString path);
    QString const& fileType() const { return fileType_; }
    void setFileType(QString type) { fileType_ = std::move(type); }
    // Types this document class writes, and the extensions of a type.
    virtual QStringList writableTypes() const { return {}; }
    virtual QStringList fileExtensionsFromType(QString const& type) const;

    // Changes: Done +1, Undone -1, Cleared 0. Edited while not 0.
    void updateChangeCount(ChangeType change);
    // Takes back `saved` changes, as a save of them does.
    void changesSaved(int saved);
    int changeCount() const { return changeCount_; }
    bool isDocumentEdited() const { return changeCount_ != 0; }
    // The file's name, or "Untitled".
    QString displayName() const;

    void addWindowController(WindowController* wc);
    QList<WindowController*> windowControllers() const;
    virtual QWidget* windowForSheet() const;
    virtual void makeWindowControllers() {}
    virtual void showWindows();

    virtual bool readFromFile(QString const& path, QString const& type) = 0;
    virtual bool writeToFile(QString const& path, QString const& type, SaveOperation op) = 0;

    // Save: in place when the document has a file of a writable type, else
    // Save As. Save As and Save To ask for a file first.
    virtual void saveDocument();
    void saveDocumentAs();
    void saveDocumentTo();
    // Asks for a file and saves to it; `done` gets whether it was saved.
    virtual void runModalSavePanel(SaveOperation op, std::function<void(bool)> done);
    // Writes to `path`; Save and Save As make it the document's file and
    // take back the changes that were saved (changes made while the write
    // ran stay counted). Shows an alert on failure.
    virtual bool saveToFile(QString const& path, SaveOperation op);

    // Asks the save-changes question when edited; `done` gets whether the
    // document may close.
    virtual void canClose(std::function<void(bool)> done);
    // Closes the windows and the document.
    void close();
    bool isClosed() const { return closed_; }

    // The standard save-changes question's texts.
    static QString saveChangesMessage(QString const& displayName);
    static QString saveChangesInformative();
    static QStringList saveChangesButtons();

signals:
    void editedChanged(bool edited);
    void fileNameChanged(QString const& path);
    void documentClosed();

protected:
    void updateWindowTitles();

private:
    QString fileName_, fileType_;
    int changeCount_ = 0;
    QList<QPointer<WindowController>> controllers_;
    bool closed_ = false;
};

// Open documents, and opening files as documents.
class DocumentController : public QObject {
    Q_OBJECT
public:
    DocumentController();
    ~DocumentController() override;
    static DocumentController* shared();

    QList<Document*> documents() const { return documents_; }
    Document* documentForFileName(QString const& path) const;
    void addDocument(Document* d);
    void removeDocument(Document* d);
    // The document of the active window, if any.
    Document* currentDocument() const;
    bool shouldCreateUI() const { return true; }

    // Opens (or brings forward) the document for a file; null on failure.
    virtual Document* openDocumentWithContentsOfFile(QString const& path, bool display) = 0;
    // The Open panel; opens the chosen file.
    virtual void openDocument();
    // Whether the Open panel lists a (non-folder) file.
    virtual bool panelShouldShowFilename(QString const& path) const;

private:
    QList<Document*> documents_;
};

} // namespace kit
