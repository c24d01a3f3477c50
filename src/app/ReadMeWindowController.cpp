#include "ReadMeWindowController.h"

#include "DMAppDelegate.h"

#include <QFile>
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
    w->resize(640, 720);
}
