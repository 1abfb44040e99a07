#include "state_file.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "util/atomic_file.h"

namespace {

constexpr int state_version = 1;

} // namespace

StateFile::StateFile(std::string path) : m_path(std::move(path))
{
    if (m_path.empty())
        return;
    std::ifstream file(m_path);
    if (!file)
        return; // a first run: the file is made at the first change
    std::stringstream content;
    content << file.rdbuf();
    nlohmann::json document = nlohmann::json::parse(content.str(), nullptr, false);
    if (!document.is_object() || document.value("afip_simulator_state", 0) != state_version)
        throw std::runtime_error(m_path + " is not a state file of this simulator (version " + std::to_string(state_version) +
                                 "); move it away to start afresh");
    m_document = std::move(document);
}

nlohmann::json StateFile::section(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_document.find(name);
    return found == m_document.end() ? nlohmann::json() : *found;
}

void StateFile::save(const std::string& name, nlohmann::json content)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_document[name] = std::move(content);
    if (m_path.empty())
        return;
    m_document["afip_simulator_state"] = state_version;
    if (!replace_file_atomically(m_path, m_document.dump(1) + "\n"))
        throw std::runtime_error("cannot write the state file " + m_path);
}
