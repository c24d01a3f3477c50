// A document opened from a type the application cannot write back: Save
// goes through Save As, and closing it while edited asks whether to save
// it under a new name.
#pragma once

#include "kit/Document.h"

class ImportDocument : public kit::Document {
    Q_OBJECT
public:
    void saveDocument() override;
    // Save stays enabled for a document that can only be saved under a new name.
    bool validateSaveItem() const { return true; }
    // Raises std::invalid_argument for an empty callback.
    void canClose(std::function<void(bool)> done) override;

    bool isImported() const { return !writableTypes().contains(fileType()); }
};
