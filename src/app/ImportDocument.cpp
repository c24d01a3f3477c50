#include "ImportDocument.h"

#include "kit/Alert.h"

#include <stdexcept>

void ImportDocument::saveDocument()
{
    if (isImported()) saveDocumentAs();
    else kit::Document::saveDocument();
}

void ImportDocument::canClose(std::function<void(bool)> done)
{
    if (!isDocumentEdited() || !isImported()) {
        kit::Document::canClose(std::move(done));
        return;
    }
    if (!done) throw std::invalid_argument("canCloseDocumentWithDelegate: Null delegate or callback selector");
    kit::AlertSpec spec;
    spec.message = saveChangesMessage(displayName());
    spec.informative = saveChangesInformative();
    spec.buttons = saveChangesButtons();
    spec.sheetParent = windowForSheet();
    int answer = kit::runAlert(spec);
    if (answer == 1) done(false);      // Cancel
    else if (answer == 2) done(true);  // Don't Save
    else runModalSavePanel(kit::SaveOperation::SaveAs, done); // closes only when saved
}
