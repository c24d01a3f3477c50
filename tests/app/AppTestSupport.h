// Shared helpers of the application's tests.
#pragma once

#include "DMDocumentController.h"
#include "MovieDoc.h"
#include "MovieView.h"
#include "kit/Alert.h"

#include <QApplication>
#include <QCoreApplication>

#include <gtest/gtest.h>

#include <string>
#include <vector>

// Records the alerts shown while it lives and answers each with `answer`
// (the index of the button chosen).
struct AlertRecorder {
    std::vector<kit::AlertSpec> shown;
    int answer = 0;
    AlertRecorder()
    {
        kit::setAlertResponder([this](kit::AlertSpec const& a) {
            shown.push_back(a);
            return answer;
        });
    }
    ~AlertRecorder() { kit::setAlertResponder(nullptr); }
    AlertRecorder(AlertRecorder const&) = delete;
    AlertRecorder& operator=(AlertRecorder const&) = delete;
};

// Tests of open movie documents: each is closed unsaved after the test, and
// every stand-in panel and alert answer is removed.
class DocumentTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        kit::setSavePanelResponder(nullptr);
        kit::setAlertResponder(nullptr);
        kit::setBeepResponder(nullptr);
        for (auto* d : documents().documents()) {
            d->updateChangeCount(kit::ChangeType::Cleared);
            d->close();
        }
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    static DMDocumentController& documents() { return *static_cast<DMDocumentController*>(kit::DocumentController::shared()); }
    // Opens a movie; with `focused` its window becomes the active one, as after a click.
    static MovieDoc* open(std::string const& path, bool focused = true)
    {
        auto* doc = qobject_cast<MovieDoc*>(documents().openDocumentWithContentsOfFile(QString::fromStdString(path), true));
        if (doc && focused) focus(doc);
        return doc;
    }
    static void focus(MovieDoc* doc)
    {
        QApplication::setActiveWindow(doc->movieWindow());
        doc->movieView()->setFocus();
    }
};
