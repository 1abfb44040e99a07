#ifndef TARVO_INVOICING_SERIES_LOCK_H
#define TARVO_INVOICING_SERIES_LOCK_H

#include <chrono>
#include <string>

#include "invoicing/ledger.h"

// While held, no other handle of any process numbers or sends vouchers of the series through
// the same ledger: AFIP takes a series' numbers in order only. A lock on a byte of a file beside
// the ledger, owned by the open file (not the process), so that two handles in one process
// exclude each other too, and let go when the process dies.
class SeriesLock {
public:
    // Waits up to `wait_limit`; throws LedgerError when the lock file cannot be used, and
    // SeriesBusy when another holder keeps it longer.
    SeriesLock(const std::string& ledger_path, const SeriesKey& series, std::chrono::milliseconds wait_limit);
    ~SeriesLock();
    SeriesLock(const SeriesLock&) = delete;
    SeriesLock& operator=(const SeriesLock&) = delete;

private:
    int m_fd = -1;
};

class SeriesBusy : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

#endif
