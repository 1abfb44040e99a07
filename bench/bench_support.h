#ifndef TARVO_BENCH_BENCH_SUPPORT_H
#define TARVO_BENCH_BENCH_SUPPORT_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A fresh directory under /tmp, removed with everything in it when the object goes.
class TempDirectory {
public:
    TempDirectory();
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Runs a program to its end, as a shell integration would; standard output goes to
// output_path (or /dev/null). Returns the exit status, -1 when a signal ended it.
int run_program(const std::vector<std::string>& arguments, const std::string& output_path = "");

// A program left running in the background; terminated and reaped when the object goes.
class BackgroundProgram {
public:
    // Standard output goes to output_path (or /dev/null).
    explicit BackgroundProgram(const std::vector<std::string>& arguments, const std::string& output_path = "");
    ~BackgroundProgram();
    BackgroundProgram(const BackgroundProgram&) = delete;
    BackgroundProgram& operator=(const BackgroundProgram&) = delete;

private:
    pid_t m_pid = -1;
};

// The simulator over plain HTTP on a free loopback port; it stops by itself after max_seconds.
// With a log path, its log of requests (one line each) goes there.
class Simulator {
public:
    Simulator(const std::string& program, const std::string& directory, const std::string& services,
              unsigned max_seconds, const std::vector<std::string>& options = {}, const std::string& log_path = "");

    std::string url(const std::string& path) const;

private:
    BackgroundProgram m_process;
    uint16_t m_port = 0;
};

// A loopback HTTP server in a forked child answering every POST with a canned body chosen by
// the request path: "/records" and "/text" get the large answers, anything else the small one.
// Plain sequential accept loop with Content-Length and "Connection: close": nothing else costs
// time on the server side. The child dies after lifetime_seconds, or with its parent.
class CannedServer {
public:
    CannedServer(std::string small_answer, size_t large_answer_bytes, unsigned lifetime_seconds);
    ~CannedServer();
    CannedServer(const CannedServer&) = delete;
    CannedServer& operator=(const CannedServer&) = delete;

    std::string url(const std::string& path) const;

private:
    pid_t m_pid = -1;
    uint16_t m_port = 0;
};

// A well-formed SOAP answer of exactly `bytes` bytes made of many small records, like a long
// parameter list.
std::string records_answer(size_t bytes);
// A well-formed SOAP answer of exactly `bytes` bytes holding one long text, like a document in
// Base64.
std::string text_answer(size_t bytes);

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& data);

// credentials.json in `directory` holding a ticket generated now, so SendSOAP does not log in.
void write_young_credentials(const std::string& directory, const std::string& service);

// The bytes a bare libcurl POST on a fresh easy handle receives; the body buffer is sized from
// Content-Length, the best a plain client can do. Returns the HTTP status, or -1.
long bare_curl_post(const std::string& url, const std::string& body, std::string& answer);

#endif
