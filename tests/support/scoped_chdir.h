#ifndef TARVO_TESTS_SUPPORT_SCOPED_CHDIR_H
#define TARVO_TESTS_SUPPORT_SCOPED_CHDIR_H

#include <unistd.h>

#include <climits>
#include <stdexcept>
#include <string>

// Makes a directory the working directory for one scope: credentials.json lives there.
class ScopedChdir {
public:
    explicit ScopedChdir(const std::string& directory)
    {
        char previous[PATH_MAX];
        if (getcwd(previous, sizeof previous) == nullptr || chdir(directory.c_str()) != 0)
            throw std::runtime_error("cannot enter " + directory);
        m_previous = previous;
    }
    ~ScopedChdir()
    {
        if (chdir(m_previous.c_str()) != 0) {
            // Nothing sensible to do in a destructor; the next test runs in its own process.
        }
    }
    ScopedChdir(const ScopedChdir&) = delete;
    ScopedChdir& operator=(const ScopedChdir&) = delete;

private:
    std::string m_previous;
};

#endif
