#include "scripted_answers.h"

#include <nlohmann/json.hpp>

#include <limits>
#include <stdexcept>

#include "options.h"
#include "soap.h"

namespace {

// Enough for any test run; a simulator left running for days must not grow without bound.
constexpr size_t most_recorded_requests = 1000;

long number_parameter(const httplib::Request& control, const char* name, long minimum, long maximum, long fallback)
{
    if (!control.has_param(name))
        return fallback;
    return parse_whole_number(name, control.get_param_value(name), minimum, maximum);
}

} // namespace

std::pair<std::string, ScriptedAnswer> scripted_answer_from(const httplib::Request& control)
{
    constexpr long unlimited = std::numeric_limits<int>::max();
    const std::string path = control.get_param_value("path");
    if (path.empty() || path[0] != '/')
        throw std::invalid_argument("path expects the path the answer is for, such as /wsfev1/service.asmx");

    ScriptedAnswer answer;
    answer.operation = control.get_param_value("operation");
    answer.process = number_parameter(control, "process", 0, 1, 0) == 1;
    if (control.has_param("status"))
        answer.status = static_cast<int>(number_parameter(control, "status", 100, 599, 200));
    if (control.has_param("content_type"))
        answer.content_type = control.get_param_value("content_type");
    for (size_t i = 0; i < control.get_param_value_count("header"); ++i) {
        const std::string line = control.get_param_value("header", i);
        const size_t colon = line.find(':');
        if (colon == std::string::npos || colon == 0)
            throw std::invalid_argument("header expects 'Name: value', not '" + line + "'");
        const size_t value = line.find_first_not_of(' ', colon + 1);
        answer.headers.emplace_back(line.substr(0, colon), value == std::string::npos ? "" : line.substr(value));
    }
    answer.body = control.body;
    answer.delay_ms = number_parameter(control, "delay_ms", 0, unlimited, 0);
    if (control.has_param("cut_after"))
        answer.cut_after = static_cast<size_t>(number_parameter(control, "cut_after", 0, unlimited, 0));
    answer.hang_ms = number_parameter(control, "hang_ms", 0, unlimited, 0);
    if (control.has_param("hang_ms") && !answer.cut_after)
        answer.cut_after = 0;
    if (answer.process && !answer.status && !answer.cut_after && answer.body.empty() && answer.delay_ms == 0)
        throw std::invalid_argument("process=1 needs cut_after, hang_ms, status, delay_ms or a body: how the answer is lost");
    return {path, std::move(answer)};
}

void ScriptedAnswers::queue(const std::string& path, ScriptedAnswer answer)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_queues[path].push_back(std::move(answer));
}

std::string requested_operation(const httplib::Request& request)
{
    std::string action = request.get_header_value("SOAPAction");
    if (action.size() >= 2 && action.front() == '"' && action.back() == '"')
        action = action.substr(1, action.size() - 2);
    if (!action.empty())
        return action.substr(action.find_last_of('/') + 1);
    pugi::xml_document document;
    document.load_buffer(request.body.data(), request.body.size());
    return local_name(soap_body_content(document));
}

std::optional<ScriptedAnswer> ScriptedAnswers::take(const std::string& path, const std::function<std::string()>& operation)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_queues.find(path);
    if (found == m_queues.end())
        return std::nullopt;
    std::deque<ScriptedAnswer>& queue = found->second;
    std::optional<std::string> asked;
    for (auto answer = queue.begin(); answer != queue.end(); ++answer) {
        if (!answer->operation.empty()) {
            if (!asked)
                asked = operation();
            if (answer->operation != *asked)
                continue;
        }
        ScriptedAnswer taken = std::move(*answer);
        queue.erase(answer);
        return taken;
    }
    return std::nullopt;
}

void ScriptedAnswers::record(const httplib::Request& request)
{
    Recorded recorded{request.method, request.path, {}, request.body};
    for (const auto& [name, value] : request.headers)
        recorded.headers.emplace_back(name, value);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_recorded.size() == most_recorded_requests)
        m_recorded.pop_front();
    m_recorded.push_back(std::move(recorded));
}

std::string ScriptedAnswers::recorded_json(const std::string& path) const
{
    nlohmann::json list = nlohmann::json::array();
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const Recorded& request : m_recorded)
        if (path.empty() || request.path == path)
            list.push_back({{"method", request.method}, {"path", request.path}, {"headers", request.headers},
                            {"body", request.body}});
    // Bodies are bytes: anything that is not UTF-8 shows as U+FFFD rather than failing the list.
    return list.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}
