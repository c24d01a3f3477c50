// The Read Me window ("ReadMe"): the user manual in a link-cursor text view
// and a note naming the application.
#pragma once

#include "LinkTextView.h"
#include "kit/Document.h"

#include <QLabel>

class ReadMeWindowController : public kit::WindowController {
    Q_OBJECT
public:
    ReadMeWindowController();
    LinkTextView* textView() const { return text_; }
    QLabel* noteField() const { return note_; }

private:
    LinkTextView* text_;
    QLabel* note_;
};
