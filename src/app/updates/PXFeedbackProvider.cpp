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

#include <algorithm>
#include <iostream>

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

PXFeedbackProvider::~PXFeedbackProvider()
{
    cancel_ = true;
    if (sender_.joinable()) sender_.join(); // its outcome, still queued, dies with this object
    delete feedbackWindow_.data();
}

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

void PXFeedbackProvider::setLocked(bool locked)
{
    subjectField_->setEnabled(!locked);
    messageText_->setReadOnly(locked);
    sendButton_->setText(locked ? "Cancel" : "Send");
    progress_->setVisible(locked);
    if (locked) progress_->setRange(0, 0); // busy until the server takes the message
}

void PXFeedbackProvider::showProgress(std::size_t sent, std::size_t total)
{
    if (!sending_ || total == 0) return;
    progress_->setRange(0, 100);
    progress_->setValue(static_cast<int>(std::min<std::size_t>(100, sent * 100 / total)));
}

void PXFeedbackProvider::sendFeedbackButtonAction()
{
    if (sending_) {
        cancelSending();
        return;
    }
    net::Mail mail;
    mail.server = smtpServer().toStdString();
    mail.to = resources::localized("FEEDBACK_EMAIL").toStdString();
    mail.from = mail.to;
    mail.subject = (resources::localized("FEEDBACK_SUBJECT_PREFIX") + subjectField_->currentText()).toStdString();
    mail.body = messageText_->toPlainText().toStdString();

    if (sender_.joinable()) sender_.join(); // the previous send has ended
    cancel_ = false;
    sending_ = true;
    setLocked(true);
    try {
        sender_ = std::thread([this, mail = std::move(mail), timeout = timeoutMs_] {
            // Nothing leaves this thread but the outcome, posted to the main thread.
            bool sent = false;
            std::string error;
            try {
                int shown = -1; // last percentage posted, to keep the event queue short
                sent = net::sendMail(mail, &error, timeout, [this, &shown](std::size_t done, std::size_t total) {
                    int percent = total ? static_cast<int>(done * 100 / total) : -1;
                    if (percent != shown) {
                        shown = percent;
                        QMetaObject::invokeMethod(this, [this, done, total] { showProgress(done, total); }, Qt::QueuedConnection);
                    }
                    return !cancel_.load();
                });
            } catch (std::exception const& e) {
                error = e.what();
            } catch (...) {
                error = "unexpected failure";
            }
            try {
                QMetaObject::invokeMethod(this, [this, sent, error] { finishSending(sent, error); }, Qt::QueuedConnection);
            } catch (...) {
                std::cerr << "Feedback: the outcome of sending could not be reported" << std::endl;
            }
        });
    } catch (std::exception const& e) { // no thread could be started
        finishSending(false, e.what());
    }
}

void PXFeedbackProvider::finishSending(bool sent, std::string const& error)
{
    if (sender_.joinable()) sender_.join(); // it ends right after posting this
    sending_ = false;
    setLocked(false);
    kit::AlertSpec a;
    if (sent) {
        closeFeedbackWindow();
        a.title = resources::localized("Message sent");
        a.message = a.title;
        a.informative = resources::localized("Thank you for your feedback.");
        a.buttons = {resources::localized("OK")};
        a.icon = QMessageBox::Information;
        kit::runAlert(a);
    } else if (error != "cancelled") {
        std::cerr << "Feedback: sending failed: " << error << std::endl;
        a.title = resources::localized("Couldn't send message");
        a.message = a.title;
        a.informative = resources::localized(
            "An error occurred while trying to send off your bug report, try using your e-mail client instead.");
        a.buttons = {resources::localized("OK")};
        a.sheetParent = feedbackWindow_;
        kit::runAlert(a); // the window keeps the subject and the text
    }
    emit sendFinished(sent);
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
        progress_ = new QProgressBar(w);
        progress_->setObjectName("progress");
        progress_->setTextVisible(false);
        progress_->hide();
        sendButton_ = new QPushButton("Send", w);
        sendButton_->setObjectName("send");
        sendButton_->setDefault(true);
        auto* buttons = new QHBoxLayout;
        buttons->addWidget(progress_, 3);
        buttons->addStretch(1);
        buttons->addWidget(sendButton_);
        layout->addLayout(buttons);
        connect(sendButton_, &QPushButton::clicked, this, &PXFeedbackProvider::sendFeedbackButtonAction);
        w->resize(460, 340);
        feedbackWindow_ = w;
    }
    feedbackWindow_->show();
    feedbackWindow_->raise();
    feedbackWindow_->activateWindow();
}
