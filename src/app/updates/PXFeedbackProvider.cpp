#include "PXFeedbackProvider.h"

#include "Fetch.h"
#include "Resources.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

namespace {
// Closing the window only hides it: it is kept for the next message.
class FeedbackWindow : public QWidget {
public:
    FeedbackWindow() : QWidget(nullptr, Qt::Window) {}

protected:
    void closeEvent(QCloseEvent* e) override
    {
        e->ignore();
        hide();
    }
};
} // namespace

PXFeedbackProvider::PXFeedbackProvider(QObject* parent) : QObject(parent)
{
    openUrl_ = [](QString const& url) { QDesktopServices::openUrl(QUrl(url)); };
}

PXFeedbackProvider::~PXFeedbackProvider() { delete feedbackWindow_.data(); }

QString PXFeedbackProvider::smtpServer()
{
    QVariant v = kit::Defaults::standard().value("PXFeedbackSMTPServer");
    return v.isValid() && !v.toString().isEmpty() ? v.toString() : QString("smtp://localhost:25");
}

void PXFeedbackProvider::openURL() { openUrl_(resources::localized("FEEDBACK_URL")); }

void PXFeedbackProvider::closeFeedbackWindow()
{
    messageText_->setPlainText("");
    subjectField_->setCurrentIndex(0);
    feedbackWindow_->hide();
}

void PXFeedbackProvider::sendFeedbackButtonAction()
{
    net::Mail mail;
    mail.server = smtpServer().toStdString();
    mail.to = resources::localized("FEEDBACK_EMAIL").toStdString();
    mail.from = mail.to;
    mail.subject = (resources::localized("FEEDBACK_SUBJECT_PREFIX") + subjectField_->currentText()).toStdString();
    mail.body = messageText_->toPlainText().toStdString();
    QApplication::setOverrideCursor(Qt::WaitCursor);
    bool sent = net::sendMail(mail);
    QApplication::restoreOverrideCursor();
    if (sent) {
        closeFeedbackWindow();
        return;
    }
    kit::AlertSpec a;
    a.title = resources::localized("Couldn't send message");
    a.message = a.title;
    a.informative = resources::localized("An error occurred while trying to send off your bug report, try using your e-mail client instead.");
    a.buttons = {resources::localized("OK")};
    a.sheetParent = feedbackWindow_;
    kit::runAlert(a); // the window keeps the subject and the text
}

void PXFeedbackProvider::orderFrontFeedbackWindow()
{
    if (!feedbackWindow_) {
        ++loads_;
        auto* w = new FeedbackWindow;
        w->setObjectName("PXFeedbackProvider");
        w->setWindowTitle("Send Feedback");
        auto* layout = new QVBoxLayout(w);
        auto* row = new QHBoxLayout;
        row->addWidget(new QLabel("Subject:", w));
        subjectField_ = new QComboBox(w);
        subjectField_->setEditable(true);
        subjectField_->addItems({"Bug report", "Feature request", "Question", "Praise"});
        row->addWidget(subjectField_, 1);
        layout->addLayout(row);
        messageText_ = new QPlainTextEdit(w);
        messageText_->setPlaceholderText("What happened, and what did you expect?");
        layout->addWidget(messageText_, 1);
        auto* send = new QPushButton("Send", w);
        send->setObjectName("send");
        send->setDefault(true);
        auto* buttons = new QHBoxLayout;
        buttons->addStretch(1);
        buttons->addWidget(send);
        layout->addLayout(buttons);
        connect(send, &QPushButton::clicked, this, &PXFeedbackProvider::sendFeedbackButtonAction);
        w->resize(460, 340);
        feedbackWindow_ = w;
    }
    feedbackWindow_->show();
    feedbackWindow_->raise();
    feedbackWindow_->activateWindow();
}
