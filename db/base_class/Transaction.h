// Ends the transaction that a connection has open: rolled back at the end of the block, also when
// an exception leaves it, unless it was committed. Wanted after a read, too: the connection then
// holds no lock and no snapshot, and what was cut short does not wait in a pool for the commit of a
// later call.
#pragma once

#include <sql.h>

#include "base/CancelState.h"
#include "db/base_class/DBConnection.h"

namespace eas {

class Transaction {
  public:
    explicit Transaction(DBConnection& con) noexcept : con_(con) {}
    ~Transaction() {
        const DeferCancellation until_done;
        if (!ended_)
            con_.rollback();
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    /// Returns the ODBC result. What could not be committed is rolled back at the end of the block.
    int commit() {
        const int rc = con_.commit();
        ended_ = SQL_SUCCEEDED(rc);
        return rc;
    }
    /// At once, while the statement that failed is still there.
    void rollback() {
        ended_ = true;
        con_.rollback();
    }

  private:
    DBConnection& con_;
    bool ended_ = false;
};

}  // namespace eas
