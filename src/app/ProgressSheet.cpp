#include "ProgressSheet.h"

#include "MediaError.h"

#include <QCloseEvent>
#include <QEventLoop>
#include <QPushButton>
#include <QTimer>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

ProgressSheet::ProgressSheet(QWidget* parent, QString const& title) : panel_(parent)
{
    panel_.setWindowTitle(title);
    panel_.setWindowModality(Qt::WindowModal);
    panel_.setRange(0, 100);
    panel_.setMinimumDuration(0);
    panel_.setAutoClose(false);
    panel_.setAutoReset(false);
    panel_.setLabelText("Preparing\u2026");
}

ProgressSheet::~ProgressSheet() { panel_.hide(); }

bool ProgressSheet::CloseGuard::eventFilter(QObject* watched, QEvent* event)
{
    // Closing the sheet from the window manager cancels, as the button
    // does, and leaves the sheet up until the work has ended.
    if (event->type() != QEvent::Close) return QObject::eventFilter(watched, event);
    event->ignore();
    if (auto* panel = qobject_cast<QProgressDialog*>(watched)) emit panel->canceled();
    return true;
}

std::optional<std::string> ProgressSheet::run(std::function<void(media::Progress const&)> work)
{
    // Shared with the worker; it may outlive this call only by the join below.
    struct Shared {
        std::mutex lock;
        std::string operation;     // guarded by lock
        double fraction = 0;       // guarded by lock
        std::optional<std::string> outcome; // guarded by lock
        std::atomic<bool> stop{false};
        std::atomic<bool> done{false};
    };
    auto shared = std::make_shared<Shared>();
    // Cancel (the button, Escape, or closing the sheet) asks the worker to
    // stop; the sheet stays up, saying so, until the work has really ended.
    // Hiding it at once would hand the window back while the document is
    // still busy, and the user's next command would go nowhere.
    // (Qt makes that connection by name, so it is undone by name.)
    QObject::disconnect(&panel_, SIGNAL(canceled()), &panel_, SLOT(cancel()));
    QObject::connect(&panel_, &QProgressDialog::canceled, &panel_, [this, shared] {
        if (shared->stop.exchange(true)) return;
        panel_.setLabelText("Stopping\u2026");
        if (auto* button = panel_.findChild<QPushButton*>()) button->setEnabled(false);
    });
    panel_.installEventFilter(&closeGuard_);
    panel_.show();

    media::Progress progress = [shared](std::string const& op, media::Phase, double f) {
        std::lock_guard<std::mutex> g(shared->lock);
        shared->operation = op;
        shared->fraction = f;
        return !shared->stop.load();
    };
    QEventLoop loop;
    std::thread worker([&loop, shared, progress, work = std::move(work)] {
        std::optional<std::string> outcome;
        try {
            work(progress);
            outcome = std::string();
        } catch (media::Cancelled const&) {
        } catch (std::exception const& e) {
            outcome = std::string(e.what()).empty() ? std::string("unknown error") : std::string(e.what());
        } catch (...) {
            outcome = std::string("unknown error");
        }
        {
            std::lock_guard<std::mutex> g(shared->lock);
            shared->outcome = outcome;
        }
        shared->done = true;
        QMetaObject::invokeMethod(&loop, "quit", Qt::QueuedConnection);
    });
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, &panel_, [this, shared] {
        if (panel_.wasCanceled()) shared->stop = true;
        std::lock_guard<std::mutex> g(shared->lock);
        if (shared->stop) return; // the sheet says "Stopping…"
        if (!shared->operation.empty()) panel_.setLabelText(QString::fromStdString(shared->operation) + "\u2026");
        panel_.setValue(static_cast<int>(shared->fraction * 100));
    });
    ticker.start(50);
    if (!shared->done) loop.exec();
    if (!shared->done) shared->stop = true; // the event loop was told to end: cancel, then wait
    worker.join();
    ticker.stop();
    panel_.hide();
    std::lock_guard<std::mutex> g(shared->lock);
    stopCameTooLate_ = shared->stop && shared->outcome && shared->outcome->empty();
    return shared->outcome;
}
