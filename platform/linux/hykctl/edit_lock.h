/// The right to edit the host's files.
#ifndef HYKCTL_EDIT_LOCK_H
#define HYKCTL_EDIT_LOCK_H

#include "hykctl/descriptor.h"

namespace HykCtl {

/// Keeps other threads and processes from editing files of the host while it lives.
///
/// One lock serves all files. It is a file of its own that only root can open: a lock on a file or
/// directory that others can read could be held by any of them for as long as he likes.
class EditLock {
public:
    /// Waits up to 10 seconds for the others. Throws HostCtl::Lib::HostCtlException that names the
    /// lock's file when it is still held then, or cannot be made.
    EditLock();

private:
    Descriptor descriptor_;
};

} // namespace HykCtl

#endif
