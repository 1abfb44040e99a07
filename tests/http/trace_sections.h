#ifndef TARVO_TESTS_HTTP_TRACE_SECTIONS_H
#define TARVO_TESTS_HTTP_TRACE_SECTIONS_H

#include <optional>
#include <string>

// The five parts of a get_log text, cut at its headings; nullopt when the layout is broken.
// Bodies are assumed not to contain the headings themselves.
struct TraceSections {
    std::string info;
    std::string request_headers;
    std::string request_body;
    std::string response_headers;
    std::string response_body;
};

inline std::optional<TraceSections> split_trace(const std::string& log)
{
    static const std::string info_heading = "=== Info:\n";
    static const std::string request_headers_heading = "==> Request headers\n";
    static const std::string request_body_heading = "==> Request body\n";
    static const std::string response_headers_heading = "\n==> Response headers\n";
    static const std::string response_body_heading = "==> Response body\n";

    if (log.compare(0, info_heading.size(), info_heading) != 0 || log.empty() || log.back() != '\n')
        return std::nullopt;
    const size_t request_headers = log.find(request_headers_heading, info_heading.size());
    if (request_headers == std::string::npos)
        return std::nullopt;
    const size_t request_body = log.find(request_body_heading, request_headers);
    if (request_body == std::string::npos)
        return std::nullopt;
    const size_t response_headers = log.find(response_headers_heading, request_body);
    if (response_headers == std::string::npos)
        return std::nullopt;
    const size_t response_body = log.find(response_body_heading, response_headers);
    if (response_body == std::string::npos)
        return std::nullopt;

    TraceSections sections;
    const size_t info_start = info_heading.size();
    sections.info = log.substr(info_start, request_headers - info_start);
    const size_t headers_start = request_headers + request_headers_heading.size();
    sections.request_headers = log.substr(headers_start, request_body - headers_start);
    const size_t body_start = request_body + request_body_heading.size();
    sections.request_body = log.substr(body_start, response_headers - body_start);
    const size_t answer_headers_start = response_headers + response_headers_heading.size();
    sections.response_headers = log.substr(answer_headers_start, response_body - answer_headers_start);
    const size_t answer_body_start = response_body + response_body_heading.size();
    sections.response_body = log.substr(answer_body_start, log.size() - 1 - answer_body_start);
    return sections;
}

#endif
