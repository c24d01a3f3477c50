// Refusals of the file layer: each carries a message fit for the user, and
// its type lets the application offer the right way out (ask, Save As).
#pragma once

#include "FFmpeg.h"

#include <string>

namespace media {

// The path names something that is not a regular file (a folder, a FIFO, a
// device, a socket, a broken symbolic link). Nothing was read or written.
class NotARegularFile : public MediaError {
public:
    using MediaError::MediaError;
};

// The file to be replaced is write-protected. Nothing was written; the
// caller may ask and try again with permission to replace it.
class TargetWriteProtected : public MediaError {
public:
    using MediaError::MediaError;
};

// The file to be replaced has other hard links. Replacing it would leave the
// other names on the old contents, so the save is refused; Save As works.
class TargetHasHardLinks : public MediaError {
public:
    using MediaError::MediaError;
};

// Another program changed or replaced the file since it was opened (or since
// the save began). Nothing was replaced; Save As keeps both versions.
class FileChangedOnDisk : public MediaError {
public:
    using MediaError::MediaError;
};

// The new file did not read back as what was written. The original is
// untouched and the new file removed.
class SaveCheckFailed : public MediaError {
public:
    using MediaError::MediaError;
};

} // namespace media
