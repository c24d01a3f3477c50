// What the sync point list needs of its document: to be told before and
// after every change of the document's mode (which follows the list's state).
#pragma once

class SyncDocument {
public:
    virtual ~SyncDocument() = default;
    virtual void willUpdateMode() = 0;
    virtual void didUpdateMode() = 0;
};
