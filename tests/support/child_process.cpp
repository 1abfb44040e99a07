#include "support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace {

std::string variable_name(const std::string& entry)
{
    return entry.substr(0, entry.find('='));
}

std::vector<std::string> child_environment(const std::vector<std::string>& changes)
{
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry)
        result.emplace_back(*entry);
    for (const std::string& change : changes) {
        const std::string name = variable_name(change);
        std::vector<std::string> kept;
        for (std::string& entry : result)
            if (variable_name(entry) != name)
                kept.push_back(std::move(entry));
        result = std::move(kept);
        if (change.find('=') != std::string::npos)
            result.push_back(change);
    }
    return result;
}

// posix_spawn wants NULL-terminated arrays of mutable pointers into strings that outlive the call.
std::vector<char*> pointer_array(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

void write_all(int descriptor, const std::string& data)
{
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t written = ::write(descriptor, data.data() + done, data.size() - done);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            throw std::runtime_error(std::string("write: ") + std::strerror(errno));
        }
        done += static_cast<size_t>(written);
    }
}

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&m_actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&m_actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    posix_spawn_file_actions_t* get() { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions;
};

class SpawnAttributes {
public:
    SpawnAttributes() { posix_spawnattr_init(&m_attributes); }
    ~SpawnAttributes() { posix_spawnattr_destroy(&m_attributes); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    posix_spawnattr_t* get() { return &m_attributes; }

private:
    posix_spawnattr_t m_attributes;
};

} // namespace

CaptureFile::CaptureFile()
{
    m_descriptor = memfd_create("tarvo-child-stream", MFD_CLOEXEC);
    if (m_descriptor < 0)
        throw std::runtime_error(std::string("memfd_create: ") + std::strerror(errno));
}

CaptureFile::~CaptureFile()
{
    ::close(m_descriptor);
}

std::string CaptureFile::contents() const
{
    // pread leaves the offset that the child shares untouched.
    std::string data;
    char chunk[65536];
    off_t offset = 0;
    for (;;) {
        const ssize_t got = ::pread(m_descriptor, chunk, sizeof chunk, offset);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        data.append(chunk, static_cast<size_t>(got));
        offset += got;
    }
    return data;
}

ChildProcess::ChildProcess(const ChildSpec& spec)
{
    if (spec.arguments.empty())
        throw std::runtime_error("ChildProcess: no program given");
    write_all(m_input.descriptor(), spec.standard_input);
    ::lseek(m_input.descriptor(), 0, SEEK_SET);

    SpawnActions actions;
    posix_spawn_file_actions_adddup2(actions.get(), m_input.descriptor(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(actions.get(), m_output.descriptor(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(actions.get(), m_error.descriptor(), STDERR_FILENO);
    if (!spec.working_directory.empty())
        posix_spawn_file_actions_addchdir_np(actions.get(), spec.working_directory.c_str());

    // Own process group, so that stopping it also stops anything it started.
    SpawnAttributes attributes;
    sigset_t no_signals;
    sigemptyset(&no_signals);
    posix_spawnattr_setsigmask(attributes.get(), &no_signals);
    posix_spawnattr_setpgroup(attributes.get(), 0);
    posix_spawnattr_setflags(attributes.get(), POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);

    std::vector<std::string> arguments = spec.arguments;
    std::vector<std::string> environment = child_environment(spec.environment);
    std::vector<char*> argv = pointer_array(arguments);
    std::vector<char*> envp = pointer_array(environment);
    const int error = posix_spawnp(&m_pid, argv[0], actions.get(), attributes.get(), argv.data(), envp.data());
    if (error != 0)
        throw std::runtime_error("cannot start " + spec.arguments[0] + ": " + std::strerror(error));
}

ChildProcess::~ChildProcess()
{
    if (!m_reaped) {
        ::kill(-m_pid, SIGKILL);
        reap(true);
    }
}

bool ChildProcess::reap(bool block)
{
    if (m_reaped)
        return true;
    for (;;) {
        const pid_t got = ::waitpid(m_pid, &m_status, block ? 0 : WNOHANG);
        if (got == m_pid) {
            m_reaped = true;
            return true;
        }
        if (got < 0 && errno == EINTR)
            continue;
        return false;
    }
}

bool ChildProcess::running()
{
    return !reap(false);
}

ChildResult ChildProcess::wait(std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!reap(false)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            m_timed_out = true;
            ::kill(-m_pid, SIGKILL);
            reap(true);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return result();
}

ChildResult ChildProcess::stop(std::chrono::milliseconds grace)
{
    if (!reap(false)) {
        ::kill(-m_pid, SIGTERM);
        const auto deadline = std::chrono::steady_clock::now() + grace;
        while (!reap(false) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (!m_reaped) {
            ::kill(-m_pid, SIGKILL);
            reap(true);
        }
    }
    return result();
}

ChildResult ChildProcess::result() const
{
    ChildResult outcome;
    outcome.timed_out = m_timed_out;
    if (m_reaped && WIFEXITED(m_status))
        outcome.exit_code = WEXITSTATUS(m_status);
    if (m_reaped && WIFSIGNALED(m_status))
        outcome.signal = WTERMSIG(m_status);
    outcome.standard_output = m_output.contents();
    outcome.standard_error = m_error.contents();
    return outcome;
}

ChildResult run_child(const ChildSpec& spec, std::chrono::milliseconds limit)
{
    ChildProcess child(spec);
    return child.wait(limit);
}
