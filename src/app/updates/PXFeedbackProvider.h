// The feedback sender: a small window whose message goes out by SMTP, and
// the feedback web page.
#pragma once

#include <QComboBox>
#include <QPlainTextEdit>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QWidget>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

class PXFeedbackProvider : public QObject {
    Q_OBJECT
public:
    explicit PXFeedbackProvider(QObject* parent = nullptr);
    // Cancels a message still being sent and waits for its thread.
    ~PXFeedbackProvider() override;

    // The SMTP server (setting "PXFeedbackSMTPServer", default the local one).
    static QString smtpServer();
    void openURL();
    void closeFeedbackWindow();
    // Starts sending the message on a thread of its own and returns at once;
    // the window shows the progress and is locked until the send ends, then
    // an alert tells the outcome (sendFinished is emitted after it). While a
    // message is on its way the button cancels it instead.
    void sendFeedbackButtonAction();
    void cancelSending() { cancel_ = true; }
    bool isSending() const { return sending_; }
    void orderFrontFeedbackWindow();
    void sendFeedback() { orderFrontFeedbackWindow(); }

    QWidget* feedbackWindow() const { return feedbackWindow_; }
    QComboBox* subjectField() const { return subjectField_; }
    QPlainTextEdit* messageText() const { return messageText_; }
    QProgressBar* progressBar() const { return progress_; }
    int windowLoads() const { return loads_; }
    void setOpenUrl(std::function<void(QString const&)> f) { openUrl_ = std::move(f); }
    // How long a send may take before it counts as failed.
    void setTimeoutMs(long ms) { timeoutMs_ = ms; }

signals:
    void sendFinished(bool sent);

private:
    // Main thread: the send ended (`error` is "cancelled" after cancelSending).
    void finishSending(bool sent, std::string const& error);
    void showProgress(std::size_t sent, std::size_t total);
    void setLocked(bool locked);

    QPointer<QWidget> feedbackWindow_;
    QComboBox* subjectField_ = nullptr;
    QPlainTextEdit* messageText_ = nullptr;
    QProgressBar* progress_ = nullptr;
    QPushButton* sendButton_ = nullptr;
    int loads_ = 0;
    long timeoutMs_ = 10000;
    std::function<void(QString const&)> openUrl_;
    bool sending_ = false;          // main thread only
    std::atomic<bool> cancel_{false}; // set on the main thread, read by the sender
    std::thread sender_;
};
