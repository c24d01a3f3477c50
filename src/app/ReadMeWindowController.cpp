#include "ReadMeWindowController.h"

#include "DMAppDelegate.h"

#include <QFile>
#include <QGuiApplication>
#include <QScreen>
#include <QVBoxLayout>

ReadMeWindowController::ReadMeWindowController() : kit::WindowController("ReadMe", new QWidget(nullptr, Qt::Window))
{
    QWidget* w = window();
    w->setWindowTitle("Read Me");
    auto* layout = new QVBoxLayout(w);
    note_ = new QLabel("The manual of %1.", w);
    text_ = new LinkTextView(w);
    text_->setOpenExternalLinks(true);
    layout->addWidget(note_);
    layout->addWidget(text_, 1);
    QFile file(":/ReadMe.md");
    if (file.open(QIODevice::ReadOnly)) text_->setMarkdown(QString::fromUtf8(file.readAll()));
    note_->setText(note_->text().arg(DMAppDelegate::bundleName()));
    // As tall as the manual reads well, but never taller than the screen.
    QScreen* screen = QGuiApplication::primaryScreen();
    QRect avail = screen ? screen->availableGeometry() : QRect(0, 0, 1280, 800);
    QSize size = QSize(640, 720).boundedTo(avail.size() - QSize(40, 60)).expandedTo(QSize(320, 240));
    w->resize(size);
    w->move(avail.left() + (avail.width() - size.width()) / 2, avail.top() + std::max(0, (avail.height() - size.height()) / 2 - 20));
}
