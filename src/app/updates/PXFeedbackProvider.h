// The feedback sender: a small window whose message goes out by SMTP, and
// the feedback web page.
#pragma once

#include <QComboBox>
#include <QPlainTextEdit>
#include <QPointer>
#include <QWidget>

#include <functional>

class PXFeedbackProvider : public QObject {
    Q_OBJECT
public:
    explicit PXFeedbackProvider(QObject* parent = nullptr);
    ~PXFeedbackProvider() override;

    // The SMTP server (setting "PXFeedbackSMTPServer", default the local one).
    static QString smtpServer();
    void openURL();
    void closeFeedbackWindow();
    void sendFeedbackButtonAction();
    void orderFrontFeedbackWindow();
    void sendFeedback() { orderFrontFeedbackWindow(); }

    QWidget* feedbackWindow() const { return feedbackWindow_; }
    QComboBox* subjectField() const { return subjectField_; }
    QPlainTextEdit* messageText() const { return messageText_; }
    int windowLoads() const { return loads_; }
    void setOpenUrl(std::function<void(QString const&)> f) { openUrl_ = std::move(f); }

private:
    QPointer<QWidget> feedbackWindow_;
    QComboBox* subjectField_ = nullptr;
    QPlainTextEdit* messageText_ = nullptr;
    int loads_ = 0;
    std::function<void(QString const&)> openUrl_;
};
