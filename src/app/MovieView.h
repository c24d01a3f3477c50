// The movie view: the picture and a controller bar (play/pause, a time
// slider that shows the selection, the time). It knows only the player's
// transport and receives immutable frames from it.
#pragma once

#include "Player.h"

#include <QImage>
#include <QLabel>
#include <QToolButton>
#include <QWidget>

#include <memory>
#include <mutex>

class TimeSlider : public QWidget {
    Q_OBJECT
public:
    explicit TimeSlider(QWidget* parent = nullptr);
    void setDuration(double seconds);
    void setTime(double seconds);
    void setSelection(double start, double length);
    QSize sizeHint() const override { return {200, 20}; }

signals:
    // A click or drag on the track.
    void seekRequested(double seconds);
    // A shift-drag: a new selection, which the document may refuse.
    void selectionRequested(double start, double length);

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent*) override;
    void mouseMoveEvent(QMouseEvent*) override;

private:
    double secondsAt(int x) const;
    double duration_ = 1, time_ = 0, selStart_ = 0, selLength_ = 0, dragFrom_ = 0;
    bool selecting_ = false;
};

class MovieView : public QWidget {
    Q_OBJECT
public:
    explicit MovieView(QWidget* parent = nullptr);
    ~MovieView() override;

    // Shows this player's pictures (null: none).
    void setPlayer(media::Player* player, QSize naturalSize, double durationSeconds);
    // The read-out and the slider; the document calls it on idle ticks.
    void showTime(myQTTime const& t, int fields);
    void showSelection(QTTimeRange const& r);
    bool isControllerVisible() const { return true; }
    int controllerBarHeight() const;
    QSize naturalSize() const { return natural_; }
    QSize sizeHint() const override;
    // The picture now shown (for tests and screenshots).
    QImage currentPicture() const;

signals:
    void playToggled();

protected:
    void paintEvent(QPaintEvent*) override;
    void resizeEvent(QResizeEvent*) override;
    void keyPressEvent(QKeyEvent*) override;

private:
    QRect pictureRect() const;
    media::Player* player_ = nullptr;
    QSize natural_{320, 240};
    QWidget* bar_;
    QToolButton* play_;
    TimeSlider* slider_;
    QLabel* time_;
    mutable std::mutex frameLock_;
    std::shared_ptr<const media::VideoFrame> frame_; // guarded by frameLock_
};
