#include "util/atomic_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

FileWriteCalls file_write_calls = {::write, ::fsync};

namespace {

const char temporary_suffix[] = ".tmp-";

std::string directory_of(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// A temporary file beside the target, locked while its writer lives so that another writer can
// tell it from one left by a crash; removed unless it was renamed into place.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& target) : m_path(target + temporary_suffix + "XXXXXX")
    {
        m_fd = ::mkostemp(&m_path[0], O_CLOEXEC); // owner-only
        if (m_fd >= 0 && ::flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
            ::close(m_fd);
            ::unlink(m_path.c_str());
            m_fd = -1;
        }
    }
    ~TemporaryFile()
    {
        if (m_fd < 0)
            return;
        if (!m_renamed)
            ::unlink(m_path.c_str());
        ::close(m_fd);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    int fd() const { return m_fd; }

    bool write_all(const std::string& content)
    {
        const char* data = content.data();
        size_t left = content.size();
        while (left > 0) {
            const ssize_t written = file_write_calls.write(m_fd, data, left);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
                return false;
            data += written;
            left -= static_cast<size_t>(written);
        }
        return true;
    }

    bool rename_to(const std::string& target)
    {
        m_renamed = ::rename(m_path.c_str(), target.c_str()) == 0;
        return m_renamed;
    }

private:
    std::string m_path;
    int m_fd = -1;
    bool m_renamed = false;
};

// Temporary files whose writer is gone (nobody holds their lock) are removed.
void remove_abandoned_temporaries(const std::string& target)
{
    const std::string directory = directory_of(target);
    const std::string prefix = target.substr(target.rfind('/') + 1) + temporary_suffix;
    DIR* listing = ::opendir(directory.c_str());
    if (listing == nullptr)
        return;
    while (const dirent* entry = ::readdir(listing)) {
        if (std::string(entry->d_name).compare(0, prefix.size(), prefix) != 0)
            continue;
        const std::string path = directory + "/" + entry->d_name;
        const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            continue;
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0)
            ::unlink(path.c_str());
        ::close(fd);
    }
    ::closedir(listing);
}

// A link named as the cache is followed, as writing through it did: its target is replaced.
std::string resolved_target(const std::string& path)
{
    struct stat link {};
    if (::lstat(path.c_str(), &link) != 0 || !S_ISLNK(link.st_mode))
        return path;
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

} // namespace

bool replace_file_atomically(const std::string& path, const std::string& content)
{
    const std::string target = resolved_target(path);
    struct stat existing {};
    const bool exists = ::stat(target.c_str(), &existing) == 0;
    if (exists && ::faccessat(AT_FDCWD, target.c_str(), W_OK, AT_EACCESS) != 0)
        return false;

    remove_abandoned_temporaries(target);
    TemporaryFile temporary(target);
    if (temporary.fd() < 0)
        return false;
    if (exists) {
        // Owner and group too where allowed; where not, the file becomes the writer's own.
        if (::fchown(temporary.fd(), existing.st_uid, existing.st_gid) != 0 && errno != EPERM)
            return false;
        if (::fchmod(temporary.fd(), existing.st_mode & 07777) != 0)
            return false;
    }
    if (!temporary.write_all(content) || file_write_calls.fsync(temporary.fd()) != 0 || !temporary.rename_to(target))
        return false;
    // The rename itself must reach the disk too; the file is in place whatever this answers.
    const int directory = ::open(directory_of(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
        ::fsync(directory);
        ::close(directory);
    }
    return true;
}
