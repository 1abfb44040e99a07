#ifndef TARVO_SIMULATOR_SCRIPTED_ANSWERS_H
#define TARVO_SIMULATOR_SCRIPTED_ANSWERS_H

#include <httplib.h>

#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// An answer a host's test queued for the next request to one path, served instead of the
// simulated service's own: a chosen status and body, a delay, a connection cut mid-answer.
struct ScriptedAnswer {
    int status = 200;
    std::string content_type = "text/xml; charset=utf-8";
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    long delay_ms = 0;               // waited before anything is sent
    std::optional<size_t> cut_after; // body bytes sent before the connection is closed
    long hang_ms = 0;                // waited between those bytes and the close
};

// Reads a queued answer from a control request: the query parameters path, status,
// content_type, header (repeatable, "Name: value"), delay_ms, cut_after and hang_ms; the body
// is the answer's body. Throws std::invalid_argument with a message for the user.
std::pair<std::string, ScriptedAnswer> scripted_answer_from(const httplib::Request& control);

// The queued answers and the requests received, shared by every endpoint.
class ScriptedAnswers {
public:
    void queue(const std::string& path, ScriptedAnswer answer);
    // The next answer queued for the path, removed from its queue.
    std::optional<ScriptedAnswer> take(const std::string& path);

    // Keeps the request for inspection; the oldest go once there are too many.
    void record(const httplib::Request& request);
    // The requests received, oldest first, as a JSON array of {method, path, headers, body};
    // only those to `path` when it is not empty.
    std::string recorded_json(const std::string& path) const;

private:
    struct Recorded {
        std::string method;
        std::string path;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
    };

    mutable std::mutex m_mutex;
    std::map<std::string, std::deque<ScriptedAnswer>> m_queues;
    std::deque<Recorded> m_recorded;
};

#endif
