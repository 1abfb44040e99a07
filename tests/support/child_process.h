#ifndef TARVO_TESTS_SUPPORT_CHILD_PROCESS_H
#define TARVO_TESTS_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

// What to start: the program, its environment changes, working directory and input.
struct ChildSpec {
    std::vector<std::string> arguments;   // arguments[0] is the program, looked up in PATH without a slash
    std::vector<std::string> environment; // over this process's: "NAME=value" sets, bare "NAME" removes
    std::string working_directory;        // empty: this process's own
    std::string standard_input;           // bytes the child reads, then end of file
};

struct ChildResult {
    int exit_code = -1; // -1 when a signal ended the child
    int signal = 0;
    bool timed_out = false;
    std::string standard_output;
    std::string standard_error;
};

// An anonymous in-memory file: the child writes to it, the test reads it at any time.
class CaptureFile {
public:
    CaptureFile();
    ~CaptureFile();
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;

    int descriptor() const { return m_descriptor; }
    std::string contents() const;

private:
    int m_descriptor = -1;
};

// One started program in a process group of its own; the group is killed when the object goes.
class ChildProcess {
public:
    explicit ChildProcess(const ChildSpec& spec); // throws std::runtime_error when it cannot start
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }
    bool running();
    // Waits at most `limit` for the exit; past it the group is killed and timed_out is set.
    ChildResult wait(std::chrono::milliseconds limit);
    // SIGTERM to the group, SIGKILL if it has not gone after `grace`.
    ChildResult stop(std::chrono::milliseconds grace);

    std::string standard_output() const { return m_output.contents(); }
    std::string standard_error() const { return m_error.contents(); }

private:
    bool reap(bool block);
    ChildResult result() const;

    CaptureFile m_input;
    CaptureFile m_output;
    CaptureFile m_error;
    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_status = 0;
    bool m_timed_out = false;
};

// Starts the program and waits for it at most `limit`.
ChildResult run_child(const ChildSpec& spec, std::chrono::milliseconds limit);

#endif
