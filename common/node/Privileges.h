// The effective user for the length of a piece of work on the hardware.
#pragma once

#include <unistd.h>

#include "common/node/EasMisc.h"

namespace eas {

/// Regains the saved user (root in a node daemon) and returns to the real one at the end of the
/// block. Credentials belong to the process: every thread has them meanwhile.
class PrivilegedSection {
  public:
    PrivilegedSection() { restore_priv(); }
    ~PrivilegedSection() {
        if (!keep_)
            drop_priv_temp(getuid());
    }
    PrivilegedSection(const PrivilegedSection&) = delete;
    PrivilegedSection& operator=(const PrivilegedSection&) = delete;

    /// Leaves the regained user in force after the block.
    void keep() noexcept { keep_ = true; }

  private:
    bool keep_ = false;
};

}  // namespace eas
