#include "MovieView.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QStyle>
#include <QVBoxLayout>

TimeSlider::TimeSlider(QWidget* parent) : QWidget(parent)
{
    setMinimumHeight(18);
    setCursor(Qt::PointingHandCursor);
}

void TimeSlider::setDuration(double s)
{
    duration_ = s > 0 ? s : 1;
    update();
}

void TimeSlider::setTime(double s)
{
    time_ = s;
    update();
}

void TimeSlider::setSelection(double start, double length)
{
    selStart_ = start;
    selLength_ = length;
    update();
}

double TimeSlider::secondsAt(int x) const
{
    int w = std::max(1, width() - 8);
    return std::clamp((x - 4) * duration_ / w, 0.0, duration_);
}

void TimeSlider::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    int w = width() - 8, mid = height() / 2;
    QRect track(4, mid - 3, w, 6);
    p.setPen(Qt::NoPen);
    p.setBrush(palette().color(QPalette::Mid));
    p.drawRoundedRect(track, 3, 3);
    if (selLength_ > 0) {
        int x0 = 4 + static_cast<int>(selStart_ / duration_ * w);
        int x1 = 4 + static_cast<int>((selStart_ + selLength_) / duration_ * w);
        p.setBrush(palette().color(QPalette::Highlight));
        p.drawRect(QRect(x0, mid - 5, std::max(2, x1 - x0), 10));
    }
    int x = 4 + static_cast<int>(std::clamp(time_ / duration_, 0.0, 1.0) * w);
    p.setBrush(palette().color(QPalette::Text));
    QPolygon head;
    head << QPoint(x - 5, 1) << QPoint(x + 5, 1) << QPoint(x, 8);
    p.drawPolygon(head);
    p.drawRect(QRect(x - 1, 1, 2, height() - 2));
}

void TimeSlider::mousePressEvent(QMouseEvent* e)
{
    double s = secondsAt(static_cast<int>(e->position().x()));
    selecting_ = e->modifiers() & Qt::ShiftModifier;
    dragFrom_ = s;
    if (!selecting_) emit seekRequested(s);
}

void TimeSlider::mouseMoveEvent(QMouseEvent* e)
{
    double s = secondsAt(static_cast<int>(e->position().x()));
    if (selecting_) emit selectionRequested(std::min(dragFrom_, s), std::fabs(s - dragFrom_));
    else emit seekRequested(s);
}

MovieView::MovieView(QWidget* parent) : QWidget(parent)
{
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_OpaquePaintEvent);
    bar_ = new QWidget(this);
    bar_->setAutoFillBackground(true);
    auto* row = new QHBoxLayout(bar_);
    row->setContentsMargins(4, 2, 6, 2);
    play_ = new QToolButton(bar_);
    play_->setIcon(style()->standardIcon(QStyle::SP_MediaPlay));
    play_->setAutoRaise(true);
    play_->setFocusPolicy(Qt::NoFocus);
    play_->setToolTip("Play or pause (Space)");
    slider_ = new TimeSlider(bar_);
    time_ = new QLabel("00:00.000", bar_);
    time_->setFont(QFont("monospace"));
    time_->setMinimumWidth(time_->fontMetrics().horizontalAdvance("00:00:00.000") + 4);
    time_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    row->addWidget(play_);
    row->addWidget(slider_, 1);
    row->addWidget(time_);
    auto* col = new QVBoxLayout(this);
    col->setContentsMargins(0, 0, 0, 0);
    col->addStretch(1);
    col->addWidget(bar_);
    connect(play_, &QToolButton::clicked, this, &MovieView::playToggled);
    connect(slider_, &TimeSlider::seekRequested, this, [this](double s) {
        if (player_) player_->setCurrentTime(myQTTime(s, player_->sampleRate()));
    });
    connect(slider_, &TimeSlider::selectionRequested, this, [this](double start, double length) {
        if (!player_) return;
        int r = player_->sampleRate();
        player_->requestSelectionFromController(QTTimeRange{myQTTime(start, r), myQTTime(length, r)});
    });
}

MovieView::~MovieView()
{
    if (player_) player_->setFrameSink(nullptr);
}

void MovieView::setPlayer(media::Player* player, QSize naturalSize, double durationSeconds)
{
    if (player_) player_->setFrameSink(nullptr);
    player_ = player;
    natural_ = naturalSize.isValid() ? naturalSize : QSize(0, 0);
    slider_->setDuration(durationSeconds);
    if (!player_) return;
    // Pictures come on the player's video thread; the view paints the
    // latest one on its own thread.
    player_->setFrameSink([this](std::shared_ptr<const media::VideoFrame> f) {
        {
            std::lock_guard<std::mutex> g(frameLock_);
            frame_ = std::move(f);
        }
        QMetaObject::invokeMethod(this, [this] { update(); }, Qt::QueuedConnection);
    });
    QRect r = pictureRect();
    player_->setViewSize(r.width(), r.height());
}

int MovieView::controllerBarHeight() const { return bar_->sizeHint().height(); }

QSize MovieView::sizeHint() const
{
    QSize n = natural_.isEmpty() ? QSize(480, 0) : natural_;
    return {std::max(n.width(), 320), n.height() + controllerBarHeight()};
}

QRect MovieView::pictureRect() const { return QRect(0, 0, width(), std::max(0, height() - controllerBarHeight())); }

void MovieView::showTime(myQTTime const& t, int fields)
{
    time_->setText(QString::fromStdString(t.asString(fields, 3)));
    slider_->setTime(t.seconds());
}

void MovieView::showSelection(QTTimeRange const& r)
{
    slider_->setSelection(myQTTime(r.time).seconds(), r.duration.timeScale > 0 ? myQTTime(r.duration).seconds() : 0.0);
}

QImage MovieView::currentPicture() const
{
    std::lock_guard<std::mutex> g(frameLock_);
    if (!frame_) return {};
    return QImage(frame_->rgb.data(), frame_->width, frame_->height, frame_->stride, QImage::Format_RGB32).copy();
}

void MovieView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    QRect area = pictureRect();
    p.fillRect(area, Qt::black);
    std::shared_ptr<const media::VideoFrame> f;
    {
        std::lock_guard<std::mutex> g(frameLock_);
        f = frame_;
    }
    if (f) {
        QImage img(f->rgb.data(), f->width, f->height, f->stride, QImage::Format_RGB32);
        QSize s = img.size().scaled(area.size(), Qt::KeepAspectRatio);
        QRect target(area.x() + (area.width() - s.width()) / 2, area.y() + (area.height() - s.height()) / 2, s.width(), s.height());
        p.drawImage(target, img);
    } else if (natural_.isEmpty()) {
        p.setPen(Qt::gray);
        p.drawText(area, Qt::AlignCenter, "Sound only");
    }
    if (player_) play_->setIcon(style()->standardIcon(player_->isPlaying() ? QStyle::SP_MediaPause : QStyle::SP_MediaPlay));
}

void MovieView::resizeEvent(QResizeEvent*)
{
    QRect r = pictureRect();
    if (player_ && r.width() > 0 && r.height() > 0) player_->setViewSize(r.width(), r.height());
}

void MovieView::keyPressEvent(QKeyEvent* e)
{
    if (e->key() == Qt::Key_Space && player_) {
        emit playToggled();
        return;
    }
    QWidget::keyPressEvent(e);
}
