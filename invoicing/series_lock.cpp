#include "invoicing/series_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "util/os_util.h"

namespace {

// The lock bytes: one per series, chosen by a hash; two series that share a byte only wait for
// each other.
constexpr off_t lock_range = 1 << 20;

off_t byte_of(const SeriesKey& series)
{
    std::uint64_t hash = 1469598103934665603ULL; // FNV-1a
    for (const std::int64_t part : {series.cuit, static_cast<std::int64_t>(series.point_of_sale),
                                    static_cast<std::int64_t>(series.voucher_type)})
        for (int shift = 0; shift < 64; shift += 8) {
            hash ^= static_cast<std::uint64_t>(part) >> shift & 0xff;
            hash *= 1099511628211ULL;
        }
    return static_cast<off_t>(hash % lock_range);
}

struct flock lock_request(short type, off_t byte)
{
    struct flock request;
    std::memset(&request, 0, sizeof request);
    request.l_type = type;
    request.l_whence = SEEK_SET;
    request.l_start = byte;
    request.l_len = 1;
    return request;
}

} // namespace

SeriesLock::SeriesLock(const std::string& ledger_path, const SeriesKey& series, std::chrono::milliseconds wait_limit)
{
    const std::string path = ledger_path + ".lock";
    m_fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (m_fd < 0)
        throw LedgerError("cannot open the ledger's lock file " + path + ": " + std::strerror(errno));
    struct flock request = lock_request(F_WRLCK, byte_of(series));
    // The library's own monotonic clock: libstdc++'s has a 32-bit time_t on i386.
    const auto deadline = monotonic_clock_now() + wait_limit;
    std::chrono::milliseconds pause{1};
    while (::fcntl(m_fd, F_OFD_SETLK, &request) != 0) {
        const int error = errno;
        if (error != EAGAIN && error != EACCES && error != EINTR) {
            ::close(m_fd);
            throw LedgerError("cannot lock " + path + ": " + std::strerror(error));
        }
        if (monotonic_clock_now() >= deadline) {
            ::close(m_fd);
            throw SeriesBusy("another process kept point of sale " + std::to_string(series.point_of_sale) +
                             ", voucher type " + std::to_string(series.voucher_type) + " busy for " +
                             std::to_string(wait_limit.count() / 1000) + " s; nothing was sent");
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(50));
        request = lock_request(F_WRLCK, byte_of(series));
    }
}

SeriesLock::~SeriesLock()
{
    ::close(m_fd); // closing the file lets go of its lock
}
