#ifndef TARVO_SIMULATOR_STATE_FILE_H
#define TARVO_SIMULATOR_STATE_FILE_H

#include <nlohmann/json.hpp>

#include <mutex>
#include <string>

// What the simulator remembers across a restart (`--state FILE`): one JSON document of named
// sections (tickets, invoicing, padron), each owned by the part that writes it. Every save
// rewrites the whole file atomically, so a crash leaves the old state or the new one. Without a
// path nothing is written and every section starts empty: memory only.
class StateFile {
public:
    // Reads the file when it exists; throws std::runtime_error naming it when it is not a state.
    explicit StateFile(std::string path = {});

    bool persistent() const { return !m_path.empty(); }

    // The section as last saved or read; null when there is none.
    nlohmann::json section(const std::string& name) const;

    // Replaces a section and writes the file; throws std::runtime_error when it cannot be written.
    // Callers save while holding their own lock, so sections reach the file in the order they changed.
    void save(const std::string& name, nlohmann::json content);

private:
    std::string m_path;
    mutable std::mutex m_mutex;
    nlohmann::json m_document = nlohmann::json::object();
};

#endif
