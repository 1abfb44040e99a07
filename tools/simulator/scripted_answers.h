#ifndef TARVO_SIMULATOR_SCRIPTED_ANSWERS_H
#define TARVO_SIMULATOR_SCRIPTED_ANSWERS_H

#include <httplib.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// An answer a host's test queued for the next request to one path (and, when `operation` is set,
// for that operation only), served instead of the simulated service's own: a chosen status and
// body, a delay, a connection cut mid-answer. With `process` the request is served as usual and
// its own answer is then spoiled as the other fields say, so its effects (a voucher authorised)
// happen while the host never learns of them.
struct ScriptedAnswer {
    std::string operation;
    bool process = false;
    std::optional<int> status;               // 200 unless processed, then the service's own
    std::optional<std::string> content_type; // likewise
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;                        // when processed, empty keeps the service's body
    long delay_ms = 0;                       // waited before anything is sent
    std::optional<size_t> cut_after;         // body bytes sent before the connection is closed
    long hang_ms = 0;                        // waited between those bytes and the close
};

// Reads a queued answer from a control request: the query parameters path, operation, process
// (0 or 1), status, content_type, header (repeatable, "Name: value"), delay_ms, cut_after and
// hang_ms (alone it cuts after 0 bytes); the body is the answer's body. Throws
// std::invalid_argument with a message for the user.
std::pair<std::string, ScriptedAnswer> scripted_answer_from(const httplib::Request& control);

// The operation a SOAP request asks for: the last segment of its SOAPAction, or without one (or
// an empty one) the local name of the first element in its Body; empty when neither says.
std::string requested_operation(const httplib::Request& request);

// The queued answers and the requests received, shared by every endpoint.
class ScriptedAnswers {
public:
    void queue(const std::string& path, ScriptedAnswer answer);
    // The first answer queued for the path that is for any operation or for the request's
    // (`operation` is asked only then), removed from its queue.
    std::optional<ScriptedAnswer> take(const std::string& path, const std::function<std::string()>& operation);

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
